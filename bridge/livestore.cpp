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

// The handles of one mark pass: Java writes them into memory outside its
// heap (LiveStore's room), which the pass reads in place once Java is left
// as the pass found it. Only the thread inside the kernel uses them.
struct Marks {
    const ALGEB *handles;
    size_t count;
};

// The scratch space of the sort, kept and grown from pass to pass.
ALGEB *sortScratch = nullptr;
size_t sortRoom = 0;

// From this many handles on, they go to the kernel in ascending order:
// where a kernel's handles are addresses (or grow with its cells), the
// kernel then visits its cells in memory order instead of at random, which
// outweighs the sort once they no longer fit the caches.
constexpr size_t kSortedFrom = size_t{1} << 18;

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

// The registered wrappers' handles, through LiveStore.mark on `env`, in
// the room that holds their count and then them; false when the pass failed
// (its exception cleared).
bool readHandles(JNIEnv *env, CallBackFrontEnd *frontEnd, Marks &marks) {
    jobject room = env->CallStaticObjectMethod(lookups.liveStore, lookups.liveMark, frontEnd->liveAlgebStore);
    // The pass may have disposed withdrawn wrappers: handles read before the
    // lock are read again.
    ambrix::handlesChanged();
    bool read = room != nullptr && !env->ExceptionCheck();
    if (read) {
        auto *handles = static_cast<const jlong *>(env->GetDirectBufferAddress(room));
        jlong capacity = env->GetDirectBufferCapacity(room);
        read = handles != nullptr && capacity >= 1 && handles[0] >= 0 && handles[0] < capacity;
        if (read) marks = {reinterpret_cast<const ALGEB *>(handles + 1), static_cast<size_t>(handles[0])};
    }
    if (env->ExceptionCheck()) {
        env->ExceptionClear();
        read = false;
    }
    env->DeleteLocalRef(room);
    return read;
}

// The handles sorted as unsigned numbers, in the room or in the scratch
// space: a radix sort, a byte at a time, skipping bytes they all share.
// When there is no memory for the scratch space they stay as they are.
Marks sorted(Marks marks) {
    size_t n = marks.count;
    if (n < kSortedFrom) return marks;
    if (n > sortRoom) {
        auto *grown = static_cast<ALGEB *>(realloc(sortScratch, 2 * n * sizeof(ALGEB)));
        if (grown == nullptr) return marks;
        sortScratch = grown;
        sortRoom = n;
    }
    auto *from = reinterpret_cast<const uintptr_t *>(marks.handles);
    auto *to = reinterpret_cast<uintptr_t *>(sortScratch);
    auto *spare = to + n;
    for (unsigned shift = 0; shift < 8 * sizeof(uintptr_t); shift += 8) {
        // A byte's counts, then a scatter by it; a byte all handles share is skipped.
        size_t counts[256] = {};
        for (size_t i = 0; i < n; i++) counts[(from[i] >> shift) & 0xFF]++;
        if (counts[(from[0] >> shift) & 0xFF] == n) continue;
        for (size_t i = 0, sum = 0; i < 256; i++) {
            size_t c = counts[i];
            counts[i] = sum;
            sum += c;
        }
        for (size_t i = 0; i < n; i++) {
            uintptr_t v = from[i];
            to[counts[(v >> shift) & 0xFF]++] = v;
        }
        // The room is Java's: the passes after the first alternate between
        // the two halves of the scratch space.
        from = to;
        to = to == spare ? reinterpret_cast<uintptr_t *>(sortScratch) : spare;
    }
    return {reinterpret_cast<const ALGEB *>(from), n};
}

CallBackFrontEnd *storeOwner(ALGEB storePointer) {
    return static_cast<CallBackFrontEnd *>(VexelToPointer(liveStoreKernelVector, storePointer));
}

// The handles of the wrappers to mark; false when they cannot be had. Java
// is left as it was found: the exception set aside is pending again, and a
// thread attached for the pass is detached.
bool handlesToMark(CallBackFrontEnd *frontEnd, Marks &marks) {
    // Java is reached only through a thread inside a kernel call.
    if (frontEnd == nullptr || frontEnd->env == nullptr) return false;
    JavaVM *vm = nullptr;
    if (frontEnd->env->GetJavaVM(&vm) != 0) return false;
    // The collector runs on a thread that may not be Java's: attach it for
    // the pass when it is not attached already.
    JNIEnv *env = nullptr;
    bool attached = false;
    if (vm->GetEnv(reinterpret_cast<void **>(&env), JNI_VERSION_1_6) != JNI_OK) {
        if (vm->AttachCurrentThread(reinterpret_cast<void **>(&env), nullptr) != 0) return false;
        attached = true;
    }
    jthrowable aside = setAside(env);
    bool read = readHandles(env, frontEnd, marks);
    throwAgain(env, aside);
    if (attached) vm->DetachCurrentThread();
    return read;
}

void markLiveAlgebStore(ALGEB storePointer) {
    ambrix::noteJavaEntry();
    KernelVector kv = liveStoreKernelVector;
    Marks marks{};
    if (!handlesToMark(storeOwner(storePointer), marks)) {
        VexelRaiseError(kv, kNotMarked);
        return;
    }
    marks = sorted(marks);
    // A mark that fails reports through the error callback, which enters
    // Java: the count of entries tells, without asking the VM.
    uint64_t entries = ambrix::javaEntries.load(std::memory_order_relaxed);
    for (size_t i = 0; i < marks.count; i++) VexelGcMark(kv, marks.handles[i]);
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
