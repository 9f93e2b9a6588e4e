// The natives of Name: whether the name has a value, and giving it one.
#include "values.h"

namespace {

constexpr ambrix::Messages kName{"Name is NULL", "Kernel Vector is NULL"};

}  // namespace

AMBRIX_RECEIVER_NATIVE(Name, isAssigned, jboolean, kName, IsVexelAssignedName)

extern "C" {

JNIEXPORT void JNICALL Java_com_quorbit_ambrix_Name_assign(JNIEnv *env, jobject self, jobject value) {
    ambrix::valueOp<void>(env, self, kName, {{value, "Value is NULL"}},
                          [](ambrix::Call &call) { VexelAssign(call.kv(), call.self, call.args[0]); });
}

}  // extern "C"
