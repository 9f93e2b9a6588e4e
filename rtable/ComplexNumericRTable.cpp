// The natives of ComplexNumericRTable: elements that are pairs of kernel
// values, real part first, crossing to Java as one complex value.
#include "bulk.h"

using ambrix::Call;

extern "C" {

// The kernel splits the value into the pair that the table stores.
JNIEXPORT void JNICALL Java_com_quorbit_ambrix_ComplexNumericRTable_assign(JNIEnv *env, jobject self, jintArray index,
                                                                           jobject value) {
    ambrix::assignElement(env, self, {{value, "Value is NULL"}}, index, [](Call &call) {
        RTableElement element{};
        element.cxdag = VexelToComplexFloatDAG(call.kv(), call.args[0]);
        return element;
    });
}

// The pair becomes one complex value, wrapped before the lock is released.
JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_ComplexNumericRTable_select(JNIEnv *env, jobject self,
                                                                              jintArray index) {
    return ambrix::selectElement<jobject>(env, self, index, [](Call &call, RTableElement element) -> jobject {
        ALGEB value = ToVexelComplexFloat(call.kv(), element.cxdag.re, element.cxdag.im);
        return call.wrap(value);
    });
}

// The parts' tables are wrapped as the class their kind selects.
JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_ComplexNumericRTable_copyReal(JNIEnv *env, jobject self) {
    return ambrix::copyTable(env, self, RTableCopyRealPart);
}

JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_ComplexNumericRTable_copyImaginary(JNIEnv *env, jobject self) {
    return ambrix::copyTable(env, self, RTableCopyImPart);
}

JNIEXPORT jobjectArray JNICALL Java_com_quorbit_ambrix_ComplexNumericRTable_toArray(JNIEnv *env, jobject self) {
    return ambrix::valuesToArray(
        env, self,
        [](Call &call, RTableElement element) {
            return ToVexelComplexFloat(call.kv(), element.cxdag.re, element.cxdag.im);
        },
        [](Call &call, ALGEB value) { return call.wrap(value); });
}

JNIEXPORT void JNICALL Java_com_quorbit_ambrix_ComplexNumericRTable_assignAll(JNIEnv *env, jobject self,
                                                                              jobjectArray values) {
    ambrix::valuesAssignAll(env, self, values, [](Call &call, ALGEB value) {
        RTableElement element{};
        element.cxdag = VexelToComplexFloatDAG(call.kv(), value);
        return element;
    });
}

}  // extern "C"
