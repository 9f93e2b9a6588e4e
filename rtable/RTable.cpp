// The natives of RTable, which serve a table of any class: its size, its
// dimensions and their bounds, and a copy. Counts and bounds come back as
// their low 32 bits; dimension numbers go to the kernel untouched.
#include "element.h"

using ambrix::Call;
using ambrix::kTableQuery;

extern "C" {

JNIEXPORT jint JNICALL Java_com_quorbit_ambrix_RTable_numElements(JNIEnv *env, jobject self) {
    return ambrix::valueOp<jint>(env, self, kTableQuery, {},
                                 [](Call &call) { return static_cast<jint>(RTableNumElements(call.kv(), call.self)); });
}

JNIEXPORT jint JNICALL Java_com_quorbit_ambrix_RTable_dimensions(JNIEnv *env, jobject self) {
    return ambrix::valueOp<jint>(env, self, kTableQuery, {}, [](Call &call) {
        return static_cast<jint>(RTableNumDimensions(call.kv(), call.self));
    });
}

JNIEXPORT jint JNICALL Java_com_quorbit_ambrix_RTable_lowerBound(JNIEnv *env, jobject self, jint dim) {
    return ambrix::valueOp<jint>(env, self, kTableQuery, {}, [=](Call &call) {
        return static_cast<jint>(RTableLowerBound(call.kv(), call.self, dim));
    });
}

JNIEXPORT jint JNICALL Java_com_quorbit_ambrix_RTable_upperBound(JNIEnv *env, jobject self, jint dim) {
    return ambrix::valueOp<jint>(env, self, kTableQuery, {}, [=](Call &call) {
        return static_cast<jint>(RTableUpperBound(call.kv(), call.self, dim));
    });
}

// The copy has the source's settings, so it is wrapped in the source's class.
JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_RTable_copy(JNIEnv *env, jobject self) {
    return ambrix::copyTable(env, self, RTableCopy);
}

}  // extern "C"
