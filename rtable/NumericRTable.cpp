// The natives of NumericRTable: elements that are kernel floats.
#include "bulk.h"

extern "C" {

JNIEXPORT void JNICALL Java_com_quorbit_ambrix_NumericRTable_assign(JNIEnv *env, jobject self, jintArray index,
                                                                    jobject value) {
    ambrix::assignElement(env, self, {{value, "Value is NULL"}}, index, ambrix::handleElement);
}

// Always a Numeric, whatever the element is: the kernel is not asked. It is
// made before the lock is released, like every fresh value's wrapper.
JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_NumericRTable_select(JNIEnv *env, jobject self, jintArray index) {
    return ambrix::selectElement<jobject>(env, self, index, [](ambrix::Call &call, RTableElement element) {
        return call.peer(element.dag, ambrix::kNumeric);
    });
}

JNIEXPORT jobjectArray JNICALL Java_com_quorbit_ambrix_NumericRTable_toArray(JNIEnv *env, jobject self) {
    return ambrix::valuesToArray(
        env, self, [](ambrix::Call &, RTableElement element) { return element.dag; },
        [](ambrix::Call &call, ALGEB value) { return call.peer(value, ambrix::kNumeric); });
}

JNIEXPORT void JNICALL Java_com_quorbit_ambrix_NumericRTable_assignAll(JNIEnv *env, jobject self,
                                                                       jobjectArray values) {
    ambrix::valuesAssignAll(env, self, values, ambrix::handleElementOf);
}

}  // extern "C"
