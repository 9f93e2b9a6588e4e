// The live store: a java.util.WeakHashMap of the Java wrappers whose values
// must stay alive in the kernel. A protected kernel pointer value carries
// the two functions through which the kernel's collector reaches it: the
// mark function marks every registered wrapper's value, the dispose function
// (run when the kernel discards its values, as at a restart) zeroes every
// registered wrapper's handle and empties the store.
//
// The mark and dispose passes run inside a kernel call and may be unwound by
// a kernel error: they hold no object with a destructor.
#include <cstdio>

#include "bridge.h"

namespace {

// The kernel of the engine whose store pointer was made last: the passes get
// only the pointer value and need a kernel vector to read it.
KernelVector liveStoreKernelVector = nullptr;

// Throws `message` unless an exception is pending; always yields false.
bool failed(JNIEnv *env, const char *message) {
    ThrowVexelException(env, message);
    return false;
}

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

// A snapshot of the store's keys, or null with an exception pending.
jobjectArray readKeys(JNIEnv *env, jobject store, jclass *storeClass) {
    *storeClass = env->GetObjectClass(store);
    if (*storeClass == nullptr) return failed(env, "could not find java.util.WeakHashMap"), nullptr;
    jmethodID keySet = env->GetMethodID(*storeClass, "keySet", "()Ljava/util/Set;");
    if (keySet == nullptr) return failed(env, "could not get keySet method for java.util.WeakHashMap"), nullptr;
    jobject set = env->CallObjectMethod(store, keySet);
    if (env->ExceptionCheck() || set == nullptr) return failed(env, "error calling keySet method for java.util.WeakHashMap"), nullptr;
    jclass setClass = env->GetObjectClass(set);
    if (setClass == nullptr) return failed(env, "could not find class of returned object"), nullptr;
    jmethodID toArray = env->GetMethodID(setClass, "toArray", "()[Ljava/lang/Object;");
    if (toArray == nullptr) return failed(env, "could not get toArray method"), nullptr;
    jobject keys = env->CallObjectMethod(set, toArray);
    if (env->ExceptionCheck() || keys == nullptr) return failed(env, "error calling toArray method"), nullptr;
    return static_cast<jobjectArray>(keys);
}

jfieldID algebraicDagField(JNIEnv *env) {
    jclass algebraic = env->FindClass("com/quorbit/ambrix/Algebraic");
    if (algebraic == nullptr) return failed(env, "could not find com.quorbit.ambrix.Algebraic"), nullptr;
    return env->GetFieldID(algebraic, "dag", "J");
}

// What a pass does to one wrapper (null for a null element); false when the
// wrapper could not be handled, which the pass reports after the others.
typedef bool (*Visit)(JNIEnv *env, CallBackFrontEnd *frontEnd, jobject wrapper, jfieldID dagField);

enum class Walk { Stopped, Done, Missed };

// Visits every wrapper of a snapshot of the store's keys. Stopped: an
// exception is pending; Missed: some wrapper could not be handled.
Walk eachWrapper(JNIEnv *env, CallBackFrontEnd *frontEnd, jclass *storeClass, Visit visit) {
    jobjectArray keys = readKeys(env, frontEnd->liveAlgebStore, storeClass);
    if (keys == nullptr) return Walk::Stopped;
    jsize length = env->GetArrayLength(keys);
    if (env->ExceptionCheck()) return Walk::Stopped;
    jfieldID dagField = algebraicDagField(env);
    if (dagField == nullptr) return Walk::Stopped;
    bool missed = false;
    for (jsize i = 0; i < length; i++) {
        jobject wrapper = env->GetObjectArrayElement(keys, i);
        if (env->ExceptionCheck()) return Walk::Stopped;
        missed |= !visit(env, frontEnd, wrapper, dagField);
        env->DeleteLocalRef(wrapper);
        if (env->ExceptionCheck()) return Walk::Stopped;
    }
    return missed ? Walk::Missed : Walk::Done;
}

bool markOne(JNIEnv *env, CallBackFrontEnd *frontEnd, jobject wrapper, jfieldID dagField) {
    jlong dag = wrapper == nullptr ? 0 : env->GetLongField(wrapper, dagField);
    if (dag != 0) VexelGcMark(frontEnd->kernelVector, reinterpret_cast<ALGEB>(dag));
    return dag != 0;
}

bool disposeOne(JNIEnv *env, CallBackFrontEnd *, jobject wrapper, jfieldID dagField) {
    if (wrapper != nullptr) env->SetLongField(wrapper, dagField, 0);
    return wrapper != nullptr;
}

// Marks the value of every registered wrapper. A wrapper whose handle is 0
// is passed over and reported once all others are marked.
void markKeys(JNIEnv *env, CallBackFrontEnd *frontEnd) {
    jclass storeClass;
    if (eachWrapper(env, frontEnd, &storeClass, markOne) == Walk::Missed)
        failed(env, "could not extract dag from Algebraic");
}

// Zeroes the handle of every registered wrapper, then empties the store.
void disposeKeys(JNIEnv *env, CallBackFrontEnd *frontEnd) {
    jclass storeClass;
    Walk walk = eachWrapper(env, frontEnd, &storeClass, disposeOne);
    if (walk == Walk::Stopped) return;
    jmethodID clear = env->GetMethodID(storeClass, "clear", "()V");
    if (clear == nullptr) {
        failed(env, "could not get clear method for java.util.WeakHashMap");
        return;
    }
    env->CallVoidMethod(frontEnd->liveAlgebStore, clear);
    if (!env->ExceptionCheck() && walk == Walk::Missed) failed(env, "could not access Element");
}

// Runs one pass inside a local frame; a pass that stops early still pops it.
void runPass(JNIEnv *env, CallBackFrontEnd *frontEnd, void (*pass)(JNIEnv *, CallBackFrontEnd *)) {
    if (env->PushLocalFrame(20) != 0) return;
    pass(env, frontEnd);
    env->PopLocalFrame(nullptr);
}

CallBackFrontEnd *storeOwner(ALGEB storePointer) {
    return static_cast<CallBackFrontEnd *>(VexelToPointer(liveStoreKernelVector, storePointer));
}

void markLiveAlgebStore(ALGEB storePointer) {
    CallBackFrontEnd *frontEnd = storeOwner(storePointer);
    // Java is reached only through a thread inside a kernel call.
    if (frontEnd == nullptr || frontEnd->env == nullptr) return;
    jthrowable aside = setAside(frontEnd->env);
    JavaVM *vm = nullptr;
    if (frontEnd->env->GetJavaVM(&vm) != 0) {
        printf("crap\n");
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
            printf("double crap\n");
            env = frontEnd->env;
        }
    }
    runPass(env, frontEnd, markKeys);
    if (attached) vm->DetachCurrentThread();
    throwAgain(frontEnd->env, aside);
}

void disposeLiveAlgebStore(ALGEB storePointer) {
    CallBackFrontEnd *frontEnd = storeOwner(storePointer);
    if (frontEnd == nullptr || frontEnd->env == nullptr) return;
    jthrowable aside = setAside(frontEnd->env);
    runPass(frontEnd->env, frontEnd, disposeKeys);
    throwAgain(frontEnd->env, aside);
}

// put or remove on the store, under the store's monitor so that it cannot
// race a pass of the collector on another thread. It never enters the kernel.
void storeCall(JNIEnv *env, jobject wrapper, bool put) {
    CallBackFrontEnd *frontEnd = getCallBackFrontEnd(env, wrapper);
    if (frontEnd == nullptr) {
        failed(env, "Engine is void");
        return;
    }
    jobject store = frontEnd->liveAlgebStore;
    jclass storeClass = store == nullptr ? nullptr : env->GetObjectClass(store);
    if (storeClass == nullptr) {
        failed(env, "could not find java.util.WeakHashMap");
        return;
    }
    jmethodID method = put ? env->GetMethodID(storeClass, "put",
                                              "(Ljava/lang/Object;Ljava/lang/Object;)Ljava/lang/Object;")
                           : env->GetMethodID(storeClass, "remove", "(Ljava/lang/Object;)Ljava/lang/Object;");
    env->DeleteLocalRef(storeClass);
    if (method == nullptr) {
        failed(env, put ? "could not get put method for java.util.WeakHashMap"
                        : "could not get remove method for java.util.WeakHashMap");
        return;
    }
    if (env->MonitorEnter(store) < 0) {
        failed(env, "error occured obtaining kernel lock");
        return;
    }
    jobject previous = put ? env->CallObjectMethod(store, method, wrapper, nullptr)
                           : env->CallObjectMethod(store, method, wrapper);
    env->DeleteLocalRef(previous);
    env->MonitorExit(store);
}

}  // namespace

extern "C" {

jobject createLiveAlgebStore(JNIEnv *env) {
    jclass cls = env->FindClass("java/util/WeakHashMap");
    if (cls == nullptr) return failed(env, "could not find java.util.WeakHashMap"), nullptr;
    jobject global = nullptr;
    jmethodID init = env->GetMethodID(cls, "<init>", "()V");
    if (init != nullptr) {
        jobject store = env->NewObject(cls, init);
        if (store != nullptr) global = env->NewGlobalRef(store);
        env->DeleteLocalRef(store);
    }
    env->DeleteLocalRef(cls);
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
