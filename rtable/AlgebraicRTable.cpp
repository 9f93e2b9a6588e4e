// The natives of AlgebraicRTable: elements that are any kernel value.
#include "bulk.h"

extern "C" {

JNIEXPORT void JNICALL Java_com_quorbit_ambrix_AlgebraicRTable_assign(JNIEnv *env, jobject self, jintArray index,
                                                                      jobject value) {
    ambrix::assignElement(env, self, {{value, "Value is NULL"}}, index, ambrix::handleElement);
}

// The element is wrapped, as the class its kind selects, before the lock is
// released.
JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_AlgebraicRTable_select(JNIEnv *env, jobject self, jintArray index) {
    return ambrix::selectElement<jobject>(
        env, self, index, [](ambrix::Call &call, RTableElement element) { return call.wrap(element.dag); });
}

JNIEXPORT jobjectArray JNICALL Java_com_quorbit_ambrix_AlgebraicRTable_toArray(JNIEnv *env, jobject self) {
    return ambrix::valuesToArray(
        env, self, [](ambrix::Call &, RTableElement element) { return element.dag; },
        [](ambrix::Call &call, ALGEB value) { return call.wrap(value); });
}

JNIEXPORT void JNICALL Java_com_quorbit_ambrix_AlgebraicRTable_assignAll(JNIEnv *env, jobject self,
                                                                         jobjectArray values) {
    ambrix::valuesAssignAll(env, self, values, ambrix::handleElementOf);
}

}  // extern "C"
