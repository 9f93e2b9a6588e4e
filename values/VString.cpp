// The native of VString: the kernel string's text as a Java string.
#include "values.h"

extern "C" {

// One bracket from the kernel's text to the Java string, so that no
// collection run by another thread can reclaim the text before it is
// copied. There is no message of its own for a missing receiver: getDag
// yields zero for `this` only with its own exception pending.
JNIEXPORT jstring JNICALL Java_com_quorbit_ambrix_VString_stringValue(JNIEnv *env, jobject self) {
    return ambrix::valueOp<jstring>(env, self, {nullptr, "Kernel Vector is NULL"}, {}, [](ambrix::Call &call) {
        const char *text = VexelToString(call.kv(), call.self);
        return call.pending() ? nullptr : ambrix::toJavaString(call.env, text);
    });
}

}  // extern "C"
