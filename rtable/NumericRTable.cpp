// The natives of NumericRTable: elements that are kernel floats.
#include "element.h"

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

}  // extern "C"
