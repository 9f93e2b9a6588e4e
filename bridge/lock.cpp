// The kernel lock: the Java monitor of the engine's live store. Taking it
// records the calling thread's JNIEnv in the front end, where the kernel's
// callbacks find Java.
#include "bridge.h"
#include "interrupt.h"

extern "C" {

void EnterKernel(JNIEnv *env, CallBackFrontEnd *frontEnd) {
    // The record holds one env and no nesting count: a Java callback that
    // calls back into the engine would clear it under the outer call.
    if (__atomic_load_n(&frontEnd->env, __ATOMIC_ACQUIRE) == env) {
        ThrowVexelException(env, "kernel re-entered from a callback");
        return;
    }
    if (env->MonitorEnter(frontEnd->liveAlgebStore) < 0) {
        ThrowVexelException(env, "error occured obtaining kernel lock");
        return;
    }
    ambrix::beginKernelCall(frontEnd);
    __atomic_store_n(&frontEnd->env, env, __ATOMIC_RELEASE);
}

void LeaveKernel(CallBackFrontEnd *frontEnd) {
    JNIEnv *env = frontEnd->env;
    if (env == nullptr) return;
    __atomic_store_n(&frontEnd->env, static_cast<JNIEnv *>(nullptr), __ATOMIC_RELEASE);
    // Release with nothing pending, then throw the kept exception again: it
    // is the one the caller must see, even over a failed release.
    jthrowable kept = env->ExceptionOccurred();
    if (kept != nullptr) env->ExceptionClear();
    if (env->MonitorExit(frontEnd->liveAlgebStore) < 0)
        ThrowVexelException(env, "error occured releasing kernel lock");
    if (kept != nullptr) {
        if (env->ExceptionCheck()) env->ExceptionClear();
        env->Throw(kept);
        env->DeleteLocalRef(kept);
    }
}

}  // extern "C"
