// Engine.interrupt, and the kernel lock's monitor for time limits. The
// request itself is kept in the engine record (bridge/record.h).
#include "frame.h"
#include "record.h"

extern "C" {

JNIEXPORT void JNICALL Java_com_quorbit_ambrix_Engine_interrupt(JNIEnv *env, jobject self) {
    ambrix::engineMethod<void>(env, self, [](ambrix::Call &call) { ambrix::requestInterrupt(call.frontEnd); });
}

// The kernel lock's monitor, for Engine.evaluate with a time limit: holding
// it from Java keeps every other thread's kernel call out while the limit's
// requests are aimed.
JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Engine_kernelLock(JNIEnv *env, jobject self) {
    return ambrix::engineMethod<jobject>(
        env, self, [](ambrix::Call &call) { return call.env->NewLocalRef(call.frontEnd->liveAlgebStore); });
}

}  // extern "C"
