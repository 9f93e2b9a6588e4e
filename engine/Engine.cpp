// The Engine natives: start, restart and stop the one kernel of the process,
// evaluate statements, and build values directly. Help is in help.cpp.
#include <atomic>
#include <cstdlib>

#include "arrays.h"
#include "engine.h"
#include "text.h"

using ambrix::Call;

namespace {

// Set by the first Engine.getKernel, whatever its outcome, and never cleared:
// a process runs at most one kernel.
std::atomic<int> engineCreated{0};

void freeArgs(char **argv, jsize argc) {
    if (argv == nullptr) return;
    for (jsize i = 0; i < argc; i++) free(argv[i]);
    free(argv);
}

// A Java string as 8-bit text on the C heap, scratch text for the length of
// one call that the caller frees; null with an exception pending: a null
// string fails with `nullMessage`, text that cannot cross is refused, and no
// memory gives an OutOfMemoryError with `noMemory`.
char *heapText(JNIEnv *env, jstring s, const char *nullMessage, const char *noMemory) {
    ambrix::JavaChars chars;
    if (!ambrix::holdChars(env, s, nullMessage, chars)) return nullptr;
    auto *text = static_cast<char *>(malloc(static_cast<size_t>(chars.length) + 1));
    if (text != nullptr) ambrix::narrowInto(text, chars.units, chars.length);
    ambrix::releaseChars(env, chars);
    if (text == nullptr) ambrix::throwOutOfMemory(env, noMemory);
    return text;
}

// The start arguments as 8-bit strings on the C heap; false with an
// exception pending. A null array counts as empty.
bool narrowArgs(JNIEnv *env, jobjectArray args, jsize *argc, char ***argv) {
    *argc = 0;
    *argv = nullptr;
    if (args == nullptr) return true;
    jsize n = env->GetArrayLength(args);
    if (env->ExceptionCheck()) return false;
    if (n == 0) return true;
    auto **vector = static_cast<char **>(calloc(static_cast<size_t>(n), sizeof(char *)));
    if (vector == nullptr) {
        ambrix::throwOutOfMemory(env, "Failed to allocate CallBackVector");
        return false;
    }
    for (jsize i = 0; i < n; i++) {
        auto arg = static_cast<jstring>(env->GetObjectArrayElement(args, i));
        vector[i] = heapText(env, arg, "Argument is NULL", "Failed to allocate CallBackVector");
        env->DeleteLocalRef(arg);
        if (vector[i] == nullptr) {
            freeArgs(vector, i);
            return false;
        }
    }
    *argc = n;
    *argv = vector;
    return true;
}

// Runs `make` under the lock and wraps its value in a `className` object
// before the lock is released, so no collection can take the fresh value.
template <typename Make>
jobject makeValue(Call &call, ambrix::Peer peer, Make &&make) {
    return call.inLock([&] { return call.peer(make(call.kv()), peer); });
}

template <typename Make>
jobject factory(JNIEnv *env, jobject engine, ambrix::Peer peer, Make &&make) {
    return ambrix::engineMethod<jobject>(env, engine, [&](Call &call) { return makeValue(call, peer, make); });
}

template <typename Make>
jobject stringFactory(JNIEnv *env, jobject engine, jstring s, ambrix::Peer peer, Make &&make) {
    return ambrix::engineMethod<jobject>(env, engine, [&](Call &call) -> jobject {
        ambrix::JavaChars chars;
        if (!ambrix::holdChars(env, s, "String is NULL", chars)) return nullptr;
        jobject result = call.inLock([&]() -> jobject {
            char *text = ambrix::kernelCopy(call, chars);
            return text == nullptr ? nullptr : call.peer(make(call.kv(), text), peer);
        });
        ambrix::releaseChars(env, chars);
        return result;
    });
}

// A start that failed after the kernel came up: stops the kernel and frees
// the record and the vector, keeping the exception for the caller. No second
// engine may be started all the same.
void abandonStart(JNIEnv *env, CallBackFrontEnd *frontEnd, CallBackVector *vector) {
    jthrowable failure = env->ExceptionOccurred();
    env->ExceptionClear();
    StopVexel(frontEnd->kernelVector);
    if (env->ExceptionCheck()) env->ExceptionClear();
    if (frontEnd->liveAlgebStore != nullptr) env->DeleteGlobalRef(frontEnd->liveAlgebStore);
    frontEnd->liveAlgebStore = nullptr;
    DeleteCallBackFrontEnd(frontEnd);
    free(vector);
    if (failure != nullptr) {
        env->Throw(failure);
        env->DeleteLocalRef(failure);
    }
}

}  // namespace

namespace ambrix {

bool holdChars(JNIEnv *env, jstring s, const char *nullMessage, JavaChars &chars) {
    if (s == nullptr) return fail(env, nullMessage);
    chars.string = s;
    chars.length = env->GetStringLength(s);
    chars.units = env->GetStringChars(s, nullptr);
    if (chars.units == nullptr) return false;
    jsize at = unsendable(chars.units, chars.length);
    if (at < 0) return true;
    refuseText(env, chars.units, at);
    releaseChars(env, chars);
    return false;
}

void releaseChars(JNIEnv *env, JavaChars &chars) { env->ReleaseStringChars(chars.string, chars.units); }

char *kernelCopy(Call &call, const JavaChars &chars) {
    char *text = kernelText(call.kv(), chars.units, chars.length);
    if (call.pending()) return nullptr;
    if (text == nullptr) return throwOutOfMemory(call.env, "Failed to allocate CallBackVector"), nullptr;
    return text;
}

}  // namespace ambrix

extern "C" {

JNIEXPORT jlong JNICALL Java_com_quorbit_ambrix_Engine_getKernel(JNIEnv *env, jobject self, jobjectArray args,
                                                                 jobject callBacks, jobject data) {
    if (engineCreated.exchange(1) != 0) {
        ThrowVexelException(env, "only one Engine may be created");
        return 0;
    }
    CallBackFrontEnd *frontEnd = NewCallBackFrontEnd(env, callBacks, data);
    if (frontEnd == nullptr) return 0;
    if (!ambrix::makeLookups(env, self, callBacks)) {
        DeleteCallBackFrontEnd(frontEnd);
        return 0;
    }
    CallBackVector *vector = NewVCallBackVector(env);
    jsize argc = 0;
    char **argv = nullptr;
    if (vector == nullptr || !narrowArgs(env, args, &argc, &argv)) {
        DeleteCallBackFrontEnd(frontEnd);
        free(vector);
        return 0;
    }
    // The kernel may call back during its start: the record's env is this
    // thread's, and its kernel vector is still null.
    char errorBuffer[2048] = "";
    KernelVector kv = StartVexel(argc, argv, vector, frontEnd, nullptr, errorBuffer);
    freeArgs(argv, argc);
    if (kv == nullptr) {
        DeleteCallBackFrontEnd(frontEnd);
        free(vector);
        ThrowVexelException(env, errorBuffer);
        return 0;
    }
    frontEnd->kernelVector = kv;
    frontEnd->liveAlgebStore = createLiveAlgebStore(env);
    // From here on, new wrappers register themselves in the store from Java.
    if (frontEnd->liveAlgebStore != nullptr)
        env->CallStaticVoidMethod(ambrix::lookups.liveStore, ambrix::lookups.liveAttach, frontEnd->liveAlgebStore,
                                  reinterpret_cast<jlong>(frontEnd));
    if (frontEnd->liveAlgebStore == nullptr || env->ExceptionCheck()) {
        abandonStart(env, frontEnd, vector);
        return 0;
    }
    makeVexelPointer(frontEnd);
    RegisterRestartCallBack(kv, restartCallBack);
    // From here on env names the thread inside the kernel, and no thread is.
    frontEnd->env = nullptr;
    return reinterpret_cast<jlong>(frontEnd);
}

JNIEXPORT void JNICALL Java_com_quorbit_ambrix_Engine_restart(JNIEnv *env, jobject self) {
    ambrix::engineMethod<void>(env, self, [](Call &call) {
        call.locked([&] { EvalVexelStatement(call.kv(), "restart:"); });
    });
}

JNIEXPORT void JNICALL Java_com_quorbit_ambrix_Engine_stop(JNIEnv *env, jobject self) {
    ambrix::engineMethod<void>(env, self, [&](Call &call) {
        call.locked([&] {
            StopVexel(call.kv());
            zeroCallBackFrontEnd(env, self);
            ambrix::handlesChanged();
        });
    });
}

void restartCallBack(void *data) { makeVexelPointer(static_cast<CallBackFrontEnd *>(data)); }

JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Engine_evaluate(JNIEnv *env, jobject self, jstring statement) {
    return ambrix::engineMethod<jobject>(env, self, [&](Call &call) -> jobject {
        char *text = heapText(env, statement, "Statement is NULL", "Failed to allocate statement");
        if (text == nullptr) return nullptr;
        jobject result = call.inLock([&] { return call.wrap(EvalVexelStatement(call.kv(), text)); });
        free(text);
        return result;
    });
}

JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Engine_newTable(JNIEnv *env, jobject self) {
    return factory(env, self, ambrix::kTable, [](KernelVector kv) { return VexelTableAlloc(kv); });
}

JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Engine_newExpseq(JNIEnv *env, jobject self, jint size) {
    return factory(env, self, ambrix::kExpseq,
                   [=](KernelVector kv) { return NewVexelExpressionSequence(kv, size); });
}

JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Engine_newList(JNIEnv *env, jobject self, jint size) {
    return factory(env, self, ambrix::kList,
                   [=](KernelVector kv) { return VexelListAlloc(kv, static_cast<int64_t>(size)); });
}

// A list of the given values, made and filled in one pass.
JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Engine_newListOf(JNIEnv *env, jobject self, jobjectArray elements) {
    return ambrix::engineMethod<jobject>(env, self, [&](Call &call) -> jobject {
        ambrix::Handles values;
        return call.inLock([&]() -> jobject {
            if (!values.read(env, elements)) return nullptr;
            return ambrix::newListOf(call, values.length, [&](jsize i) { return values.handles[i]; });
        });
    });
}

JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Engine_newNumeric__J(JNIEnv *env, jobject self, jlong value) {
    return factory(env, self, ambrix::kNumeric,
                   [=](KernelVector kv) { return ToVexelInteger64(kv, value); });
}

JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Engine_newNumeric__D(JNIEnv *env, jobject self, jdouble value) {
    return factory(env, self, ambrix::kNumeric, [=](KernelVector kv) { return ToVexelFloat(kv, value); });
}

JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Engine_newName(JNIEnv *env, jobject self, jstring name,
                                                                 jboolean global) {
    return stringFactory(env, self, name, ambrix::kName,
                         [=](KernelVector kv, char *text) { return ToVexelName(kv, text, global ? 1 : 0); });
}

JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Engine_newVString(JNIEnv *env, jobject self, jstring text) {
    return stringFactory(env, self, text, ambrix::kVString,
                         [](KernelVector kv, char *s) { return ToVexelString(kv, s); });
}

}  // extern "C"
