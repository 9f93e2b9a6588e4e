// The live store: a java.util.WeakHashMap of the Java wrappers whose values
// must stay alive in the kernel. A protected kernel pointer value carries
// the two functions through which the kernel's collector reaches it: the
// mark function marks every registered wrapper's value, the dispose function
// (run when the kernel discards its values, as at a restart) zeroes every
// registered wrapper's handle and empties the store.
//
// Each pass makes one call into Java (LiveStore.handles or .dispose) rather
// than a JNI round trip per wrapper. The passes run inside a kernel call and
// may be unwound by a kernel error: they hold no object with a destructor.
#include <cstdio>

#include "frame.h"

using ambrix::lookups;

namespace {

// The kernel of the engine whose store pointer was made last: the passes get
// only the pointer value and need a kernel vector to read it.
KernelVector liveStoreKernelVector = nullptr;

// Handles are read from Java in chunks of this many, on the stack.
constexpr jsize kChunk = 512;

// A pass runs with no exception pending: one left by an earlier step of the
// kernel call is set aside and thrown again afterwards, so that it stays the
// one the caller sees (over any failure of the pass) and the pass still does
// its whole work.
jthrowable setAside(JNIEnv *env) {
    jthrowable pending = env->ExceptionOccurred();
    if (pending != nullptr) env->ExceptionClear();
    return pending;
}

void throwAgain(JNIEnv *env, jthrowable aside) {
    if (aside == nullptr) return;
    if (env->ExceptionCheck()) env->ExceptionClear();
    env->Throw(aside);
    env->DeleteLocalRef(aside);
}

// Marks the value of every registered wrapper. A wrapper whose handle is 0
// is passed over and reported once all others are marked.
void markKeys(JNIEnv *env, CallBackFrontEnd *frontEnd) {
    auto handles = static_cast<jlongArray>(
        env->CallStaticObjectMethod(lookups.liveStore, lookups.liveHandles, frontEnd->liveAlgebStore));
    if (handles == nullptr || env->ExceptionCheck()) return;
    jsize length = env->GetArrayLength(handles);
    KernelVector kv = frontEnd->kernelVector;
    bool missed = false;
    jlong chunk[kChunk];
    // A mark that fails reports through the error callback, which enters
    // Java: the VM is asked for an exception only when that happened.
    uint64_t entries = ambrix::javaEntries.load(std::memory_order_relaxed);
    bool failed = false;
    for (jsize start = 0; start < length && !failed; start += kChunk) {
        jsize n = length - start < kChunk ? length - start : kChunk;
        env->GetLongArrayRegion(handles, start, n, chunk);
        for (jsize i = 0; i < n && !failed; i++) {
            if (chunk[i] == 0) {
                missed = true;
                continue;
            }
            VexelGcMark(kv, reinterpret_cast<ALGEB>(chunk[i]));
            if (ambrix::javaEntries.load(std::memory_order_relaxed) != entries) {
                entries = ambrix::javaEntries.load(std::memory_order_relaxed);
                failed = env->ExceptionCheck();
            }
        }
    }
    env->DeleteLocalRef(handles);
    if (missed) ambrix::fail(env, "could not extract dag from Algebraic");
}

CallBackFrontEnd *storeOwner(ALGEB storePointer) {
    return static_cast<CallBackFrontEnd *>(VexelToPointer(liveStoreKernelVector, storePointer));
}

void markLiveAlgebStore(ALGEB storePointer) {
    ambrix::noteJavaEntry();
    CallBackFrontEnd *frontEnd = storeOwner(storePointer);
    // Java is reached only through a thread inside a kernel call.
    if (frontEnd == nullptr || frontEnd->env == nullptr) return;
    jthrowable aside = setAside(frontEnd->env);
    JavaVM *vm = nullptr;
    if (frontEnd->env->GetJavaVM(&vm) != 0) {
        fputs("ambrix: kernel collection: could not get the Java VM; live values were not marked\n", stderr);
        throwAgain(frontEnd->env, aside);
        return;
    }
    // The collector runs on a thread that may not be Java's: attach it for
    // the pass when it is not attached already.
    JNIEnv *env = nullptr;
    bool attached = false;
    if (vm->GetEnv(reinterpret_cast<void **>(&env), JNI_VERSION_1_6) != JNI_OK) {
        if (vm->AttachCurrentThread(reinterpret_cast<void **>(&env), nullptr) == 0) {
            attached = true;
        } else {
            fputs("ambrix: kernel collection: could not attach the collecting thread to the Java VM; "
                  "marking through the thread that called the kernel\n",
                  stderr);
            env = frontEnd->env;
        }
    }
    markKeys(env, frontEnd);
    if (attached) vm->DetachCurrentThread();
    throwAgain(frontEnd->env, aside);
}

void disposeLiveAlgebStore(ALGEB storePointer) {
    ambrix::noteJavaEntry();
    CallBackFrontEnd *frontEnd = storeOwner(storePointer);
    if (frontEnd == nullptr || frontEnd->env == nullptr) return;
    JNIEnv *env = frontEnd->env;
    jthrowable aside = setAside(env);
    env->CallStaticVoidMethod(lookups.liveStore, lookups.disposeStore, frontEnd->liveAlgebStore);
    // A failure of the pass stays pending for the caller, unless one was set aside.
    if (env->ExceptionCheck() && aside == nullptr) return;
    throwAgain(env, aside);
}

// put or remove on the store, under the store's monitor so that it cannot
// race a pass of the collector on another thread. It never enters the kernel.
void storeCall(JNIEnv *env, jobject wrapper, bool put) {
    CallBackFrontEnd *frontEnd = ambrix::frontEndOf(env, wrapper, false);
    if (frontEnd == nullptr) {
        ambrix::fail(env, "Engine is void");
        return;
    }
    jobject store = frontEnd->liveAlgebStore;
    if (store == nullptr) {
        ambrix::fail(env, "could not find java.util.WeakHashMap");
        return;
    }
    if (env->MonitorEnter(store) < 0) {
        ambrix::fail(env, "error occured obtaining kernel lock");
        return;
    }
    jobject previous = put ? env->CallObjectMethod(store, lookups.storePut, wrapper, nullptr)
                           : env->CallObjectMethod(store, lookups.storeRemove, wrapper);
    env->DeleteLocalRef(previous);
    env->MonitorExit(store);
}

}  // namespace

extern "C" {

jobject createLiveAlgebStore(JNIEnv *env) {
    if (!ambrix::lookupsReady()) return ambrix::fail(env, "could not find java.util.WeakHashMap"), nullptr;
    jobject store = env->NewObject(lookups.weakHashMap, lookups.storeInit);
    jobject global = store == nullptr ? nullptr : env->NewGlobalRef(store);
    env->DeleteLocalRef(store);
    return global;
}

void addToLiveAlgebStore(JNIEnv *env, jobject wrapper) { storeCall(env, wrapper, true); }

void removeFromLiveAlgebStore(JNIEnv *env, jobject wrapper) { storeCall(env, wrapper, false); }

void makeVexelPointer(CallBackFrontEnd *frontEnd) {
    KernelVector kv = frontEnd->kernelVector;
    ALGEB storePointer = ToVexelPointer(kv, frontEnd, reinterpret_cast<uintptr_t>(frontEnd));
    VexelGcProtect(kv, storePointer);
    VexelPointerSetMarkFunction(kv, storePointer, markLiveAlgebStore);
    VexelPointerSetDisposeFunction(kv, storePointer, disposeLiveAlgebStore);
    liveStoreKernelVector = kv;
}

}  // extern "C"
