// The live store: a java.util.WeakHashMap of the Java wrappers whose values
// must stay alive in the kernel. A protected kernel pointer value carries
// the two functions through which the kernel's collector reaches it: the
// mark function marks every registered wrapper's value, the dispose function
// (run when the kernel discards its values, as at a restart) zeroes every
// wrapper's handle and empties the store. LiveStore.java holds the rules
// that keep a handle in Java from outliving its value.
//
// A collection must never sweep a value Java holds: when the mark pass
// cannot mark every registered wrapper, it abandons the collection with a
// kernel error. The passes run inside a kernel call and may be unwound by a
// kernel error: they hold no object with a destructor, and nothing of Java
// (a set-aside exception, an attached thread) across a kernel call.
#include <cstdlib>

#include "frame.h"

using ambrix::lookups;

namespace {

// The kernel of the engine whose store pointer was made last: the passes get
// only the pointer value and need a kernel vector to read it.
KernelVector liveStoreKernelVector = nullptr;

// The handles of one mark pass, copied out of Java so that the marks run
// with Java left as the pass found it. Kept and grown from pass to pass;
// only the thread inside the kernel uses it.
ALGEB *markBuffer = nullptr;
size_t markRoom = 0;

constexpr jsize kChunk = 512;

constexpr const char *kNotMarked = "live values could not be marked; the collection was abandoned";

// LiveStore.register's answers (REGISTERED is 0).
constexpr jint kDisposed = 1, kNotRunning = 2;

// A pass runs with no exception pending: one left by an earlier step of the
// kernel call is set aside and thrown again afterwards, so that it stays the
// one the caller sees.
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

// Copies the Java array's handles, up to the first 0, into markBuffer;
// the count, or -1 when there is no memory for them.
jsize copyHandles(JNIEnv *env, jlongArray handles) {
    jsize length = env->GetArrayLength(handles);
    if (static_cast<size_t>(length) > markRoom) {
        auto *grown = static_cast<ALGEB *>(realloc(markBuffer, sizeof(ALGEB) * static_cast<size_t>(length)));
        if (grown == nullptr) return -1;
        markBuffer = grown;
        markRoom = static_cast<size_t>(length);
    }
    jlong chunk[kChunk];
    for (jsize start = 0; start < length; start += kChunk) {
        jsize n = length - start < kChunk ? length - start : kChunk;
        env->GetLongArrayRegion(handles, start, n, chunk);
        for (jsize i = 0; i < n; i++) {
            if (chunk[i] == 0) return start + i;
            markBuffer[start + i] = reinterpret_cast<ALGEB>(chunk[i]);
        }
    }
    return length;
}

// The registered wrappers' handles, in markBuffer, through LiveStore.mark on
// `env`; the count, or -1 when the pass failed (its exception cleared).
jsize readHandles(JNIEnv *env, CallBackFrontEnd *frontEnd) {
    auto handles = static_cast<jlongArray>(
        env->CallStaticObjectMethod(lookups.liveStore, lookups.liveMark, frontEnd->liveAlgebStore));
    // The pass may have disposed withdrawn wrappers: handles read before the
    // lock are read again.
    ambrix::handlesChanged();
    jsize count = handles == nullptr || env->ExceptionCheck() ? -1 : copyHandles(env, handles);
    if (env->ExceptionCheck()) {
        env->ExceptionClear();
        count = -1;
    }
    env->DeleteLocalRef(handles);
    return count;
}

CallBackFrontEnd *storeOwner(ALGEB storePointer) {
    return static_cast<CallBackFrontEnd *>(VexelToPointer(liveStoreKernelVector, storePointer));
}

// The handles of the wrappers to mark, in markBuffer; -1 when they cannot
// be had. Java is left as it was found: the exception set aside is pending
// again, and a thread attached for the pass is detached.
jsize handlesToMark(CallBackFrontEnd *frontEnd) {
    // Java is reached only through a thread inside a kernel call.
    if (frontEnd == nullptr || frontEnd->env == nullptr) return -1;
    JavaVM *vm = nullptr;
    if (frontEnd->env->GetJavaVM(&vm) != 0) return -1;
    // The collector runs on a thread that may not be Java's: attach it for
    // the pass when it is not attached already.
    JNIEnv *env = nullptr;
    bool attached = false;
    if (vm->GetEnv(reinterpret_cast<void **>(&env), JNI_VERSION_1_6) != JNI_OK) {
        if (vm->AttachCurrentThread(reinterpret_cast<void **>(&env), nullptr) != 0) return -1;
        attached = true;
    }
    jthrowable aside = setAside(env);
    jsize count = readHandles(env, frontEnd);
    throwAgain(env, aside);
    if (attached) vm->DetachCurrentThread();
    return count;
}

void markLiveAlgebStore(ALGEB storePointer) {
    ambrix::noteJavaEntry();
    KernelVector kv = liveStoreKernelVector;
    jsize count = handlesToMark(storeOwner(storePointer));
    if (count < 0) {
        VexelRaiseError(kv, kNotMarked);
        return;
    }
    // A mark that fails reports through the error callback, which enters
    // Java: the count of entries tells, without asking the VM.
    uint64_t entries = ambrix::javaEntries.load(std::memory_order_relaxed);
    for (jsize i = 0; i < count; i++) VexelGcMark(kv, markBuffer[i]);
    if (ambrix::javaEntries.load(std::memory_order_relaxed) != entries) VexelRaiseError(kv, kNotMarked);
}

void disposeLiveAlgebStore(ALGEB storePointer) {
    ambrix::noteJavaEntry();
    CallBackFrontEnd *frontEnd = storeOwner(storePointer);
    if (frontEnd == nullptr || frontEnd->env == nullptr) return;
    JNIEnv *env = frontEnd->env;
    jthrowable aside = setAside(env);
    env->CallStaticVoidMethod(lookups.liveStore, lookups.disposeStore, frontEnd->liveAlgebStore);
    ambrix::handlesChanged();
    // A failure of the pass stays pending for the caller, unless one was set aside.
    if (env->ExceptionCheck() && aside == nullptr) return;
    throwAgain(env, aside);
}

// The wrapper's engine record, or null with "Engine is void" pending.
CallBackFrontEnd *storeOf(JNIEnv *env, jobject wrapper) {
    CallBackFrontEnd *frontEnd = ambrix::frontEndOf(env, wrapper, false);
    if (frontEnd == nullptr || !ambrix::lookupsReady()) ambrix::fail(env, "Engine is void");
    return env->ExceptionCheck() ? nullptr : frontEnd;
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

// Both run under the store's monitor, taken in Java, so that they cannot
// race a pass of the collector on another thread. Neither enters the kernel.
void addToLiveAlgebStore(JNIEnv *env, jobject wrapper) {
    if (storeOf(env, wrapper) == nullptr) return;
    jint answer = env->CallStaticIntMethod(lookups.liveStore, lookups.liveRegister, wrapper);
    if (env->ExceptionCheck()) return;
    if (answer == kDisposed) ambrix::fail(env, "this Algebraic has been disposed");
    if (answer == kNotRunning) ambrix::fail(env, "Engine is void");
}

void removeFromLiveAlgebStore(JNIEnv *env, jobject wrapper) {
    if (storeOf(env, wrapper) == nullptr) return;
    jboolean ours = env->CallStaticBooleanMethod(lookups.liveStore, lookups.liveWithdraw, wrapper);
    if (!env->ExceptionCheck() && !ours) ambrix::fail(env, "Engine is void");
}

void makeVexelPointer(CallBackFrontEnd *frontEnd) {
    KernelVector kv = frontEnd->kernelVector;
    ALGEB storePointer = ToVexelPointer(kv, frontEnd, reinterpret_cast<uintptr_t>(frontEnd));
    VexelGcProtect(kv, storePointer);
    VexelPointerSetMarkFunction(kv, storePointer, markLiveAlgebStore);
    VexelPointerSetDisposeFunction(kv, storePointer, disposeLiveAlgebStore);
    liveStoreKernelVector = kv;
}

}  // extern "C"
