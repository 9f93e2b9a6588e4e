// The kernel lock: the Java monitor of the engine's live store. Taking it
// records the calling thread's JNIEnv in the front end, where the kernel's
// callbacks find Java.
#include "frame.h"
#include "record.h"

namespace ambrix {

std::atomic<uint64_t> javaEntries{0};
std::atomic<uint64_t> handleGeneration{0};

bool Call::readAgain() {
    generation = currentGeneration();
    if (engine) {
        // A stop zeroes the engine's kernelID under the lock.
        CallBackFrontEnd *now = frontEndOf(env, receiver, true);
        return now == frontEnd || fail(env, kNoEngine);
    }
    if (receiver != nullptr && !readDag(env, receiver, messages.self, self)) return false;
    for (int i = 0; i < argCount; i++)
        if (!readDag(env, argObjects[i].object, argObjects[i].message, args[i])) return false;
    return true;
}

bool enterKernel(JNIEnv *env, CallBackFrontEnd *frontEnd) {
    // The record holds one env and no nesting count: a Java callback that
    // calls back into the engine would clear it under the outer call.
    if (__atomic_load_n(&frontEnd->env, __ATOMIC_ACQUIRE) == env)
        return fail(env, "kernel re-entered from a callback");
    if (env->MonitorEnter(frontEnd->liveAlgebStore) < 0) return fail(env, "error occured obtaining kernel lock");
    beginKernelCall(frontEnd);
    __atomic_store_n(&frontEnd->env, env, __ATOMIC_RELEASE);
    return true;
}

}  // namespace ambrix

extern "C" {

void EnterKernel(JNIEnv *env, CallBackFrontEnd *frontEnd) { ambrix::enterKernel(env, frontEnd); }

void LeaveKernel(CallBackFrontEnd *frontEnd) {
    JNIEnv *env = frontEnd->env;
    if (env == nullptr) return;
    __atomic_store_n(&frontEnd->env, static_cast<JNIEnv *>(nullptr), __ATOMIC_RELEASE);
    // JNI allows MonitorExit with an exception pending, and that exception
    // stays the one the caller sees; a failed release reports only when
    // nothing else is pending.
    if (env->MonitorExit(frontEnd->liveAlgebStore) < 0)
        ThrowVexelException(env, "error occured releasing kernel lock");
}

}  // extern "C"
