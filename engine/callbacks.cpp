// The callback vector: the eight entry points through which the kernel
// reaches the Java callbacks object. Each runs on the thread inside the
// kernel call (the record's env) and hands a Java exception to
// HandleException, whose raise unwinds out of the entry: so no entry holds
// an object with a destructor, and every local reference is deleted before
// the check that may raise.
//
// While a Java exception is pending (left by a throwing errorCallBack or an
// unknown text tag), an entry runs no Java code and gives its neutral answer,
// so the first exception is the one the Java caller sees.
#include <climits>
#include <cstdlib>
#include <cstring>

#include "frame.h"
#include "record.h"
#include "text.h"

namespace {

// The answer given for "no text": the kernel must neither free nor modify it.
char kEmptyText[1] = "";

// The record's env when Java may be called now; null otherwise.
JNIEnv *javaEnv(CallBackFrontEnd *frontEnd) {
    ambrix::noteJavaEntry();
    JNIEnv *env = frontEnd->env;
    return env == nullptr || env->ExceptionCheck() ? nullptr : env;
}

// Raises a pending exception in the kernel; true when one was pending.
bool raised(JNIEnv *env, CallBackFrontEnd *frontEnd) { return HandleException(env, frontEnd->kernelVector) != 0; }

template <typename... Refs>
void drop(JNIEnv *env, Refs... refs) {
    (env->DeleteLocalRef(refs), ...);
}

// Kernel text as a new Java string (null text: the empty string), or null
// with an exception pending.
jstring toJava(JNIEnv *env, const char *text) { return ambrix::newJavaString(env, text == nullptr ? "" : text); }

// A callback's answer as kernel text; a null or empty answer gives the
// constant empty text, and null means the kernel gave no memory. An answer
// that cannot cross exactly sets *refused and gives the empty text.
char *fromJava(JNIEnv *env, KernelVector kv, jstring answer, bool *refused) {
    if (answer == nullptr) return kEmptyText;
    jsize n = env->GetStringLength(answer);
    if (n == 0) return kEmptyText;
    const jchar *chars = env->GetStringChars(answer, nullptr);
    if (chars == nullptr) return kEmptyText;
    *refused = ambrix::unsendable(chars, n) >= 0;
    char *text = *refused ? kEmptyText : ambrix::kernelText(kv, chars, n);
    env->ReleaseStringChars(answer, chars);
    return text;
}

// The value of the callbacks class's VEXEL_TEXT_* field for a kernel tag;
// false for a tag the library does not know.
bool tagValue(int tag, jint &value) {
    for (int i = 0; i < ambrix::kTextTagCount; i++) {
        if (ambrix::kTextTags[i] == tag) {
            value = ambrix::lookups.textTags[i];
            return true;
        }
    }
    return false;
}

CallBackFrontEnd *record(void *data) { return static_cast<CallBackFrontEnd *>(data); }

// The answer of a Java method that returns text, as kernel text; deletes the
// answer's local reference.
char *answerText(JNIEnv *env, CallBackFrontEnd *fe, jstring answer) {
    if (raised(env, fe)) return kEmptyText;  // the method threw: there is no answer
    bool refused = false;
    char *text = fromJava(env, fe->kernelVector, answer, &refused);
    drop(env, answer);
    if (raised(env, fe)) return kEmptyText;
    if (refused) {
        VexelRaiseError(fe->kernelVector, ambrix::kOutOfRange);
        return kEmptyText;
    }
    if (text == nullptr) {
        VexelRaiseError(fe->kernelVector, "could not allocate the answer of a callback");
        return kEmptyText;
    }
    return text;
}

void TextCallBack(void *data, int tag, const char *output) {
    CallBackFrontEnd *fe = record(data);
    JNIEnv *env = javaEnv(fe);
    if (env == nullptr) return;
    jint value = 0;
    if (!tagValue(tag, value)) {
        ThrowVexelException(env, "invalid tag for text callback");
        return;
    }
    jstring s = toJava(env, output);
    if (raised(env, fe)) return;
    env->CallVoidMethod(fe->callBackObject, fe->textCallBackID, fe->userData, value, s);
    drop(env, s);
    raised(env, fe);
}

void ErrorCallBack(void *data, int64_t offset, const char *msg) {
    CallBackFrontEnd *fe = record(data);
    JNIEnv *env = javaEnv(fe);
    if (env == nullptr) return;
    jstring s = toJava(env, msg);
    if (raised(env, fe)) return;
    // An exception thrown here stays pending: it reaches the Java caller of
    // the call that caused the error, instead of becoming a kernel error.
    env->CallVoidMethod(fe->callBackObject, fe->errorCallBackID, fe->userData, static_cast<jint>(offset), s);
    drop(env, s);
}

void StatusCallBack(void *data, int64_t kilobytesUsed, int64_t kilobytesAlloc, double cpuTime) {
    CallBackFrontEnd *fe = record(data);
    JNIEnv *env = javaEnv(fe);
    if (env == nullptr) return;
    env->CallVoidMethod(fe->callBackObject, fe->statusCallBackID, fe->userData, static_cast<jlong>(kilobytesUsed),
                        static_cast<jlong>(kilobytesAlloc), cpuTime);
    raised(env, fe);
}

char *ReadLineCallBack(void *data, int debug) {
    CallBackFrontEnd *fe = record(data);
    JNIEnv *env = javaEnv(fe);
    if (env == nullptr) return kEmptyText;
    auto line = static_cast<jstring>(env->CallObjectMethod(fe->callBackObject, fe->readLineCallBackID, fe->userData,
                                                           static_cast<jboolean>(debug != 0)));
    return answerText(env, fe, line);
}

int RedirectCallBack(void *data, const char *name, const char *mode) {
    CallBackFrontEnd *fe = record(data);
    JNIEnv *env = javaEnv(fe);
    if (env == nullptr) return 0;
    jstring s = nullptr;
    bool append = false;
    if (name != nullptr) {
        s = toJava(env, name);
        if (raised(env, fe)) return 0;
        append = mode != nullptr && mode[0] == 'a';
    }
    jboolean r = env->CallBooleanMethod(fe->callBackObject, fe->redirectCallBackID, fe->userData, s,
                                        static_cast<jboolean>(append));
    drop(env, s);
    if (raised(env, fe)) return 0;
    return r ? 1 : 0;
}

// The stream's arguments as a String[] (null for none), or null with an
// exception pending.
jobjectArray streamArgs(JNIEnv *env, int64_t count, char **args) {
    if (count <= 0) return nullptr;
    if (count > INT_MAX) {
        ambrix::throwOutOfMemory(env, "too many stream arguments");
        return nullptr;
    }
    jclass stringClass = ambrix::lookups.boxes[ambrix::kString];
    jstring first = toJava(env, args[0]);
    jobjectArray array =
        first == nullptr ? nullptr : env->NewObjectArray(static_cast<jsize>(count), stringClass, first);
    drop(env, first);
    for (jsize i = 1; array != nullptr && i < count; i++) {
        jstring s = toJava(env, args[i]);
        if (s != nullptr) env->SetObjectArrayElement(array, i, s);
        drop(env, s);
        if (env->ExceptionCheck()) {
            drop(env, array);
            return nullptr;
        }
    }
    return array;
}

char *StreamCallBack(void *data, const char *name, int64_t nargs, char **args) {
    CallBackFrontEnd *fe = record(data);
    JNIEnv *env = javaEnv(fe);
    if (env == nullptr) return kEmptyText;
    jstring s = toJava(env, name);
    jobjectArray array = s == nullptr ? nullptr : streamArgs(env, nargs, args);
    if (env->ExceptionCheck()) {
        drop(env, s);
        raised(env, fe);
        return kEmptyText;
    }
    auto answer = static_cast<jstring>(
        env->CallObjectMethod(fe->callBackObject, fe->streamCallBackID, fe->userData, s, array));
    drop(env, s, array);
    return answerText(env, fe, answer);
}

int QueryInterrupt(void *data) {
    CallBackFrontEnd *fe = record(data);
    // The engine's own request comes first and needs no Java call.
    if (ambrix::interruptRequested(fe)) return 1;
    JNIEnv *env = javaEnv(fe);
    if (env == nullptr) return 0;
    jboolean r = env->CallBooleanMethod(fe->callBackObject, fe->queryInterruptID, fe->userData);
    if (raised(env, fe)) return 0;
    return r == JNI_TRUE ? 1 : 0;
}

char *CallBackCallBack(void *data, const char *output) {
    CallBackFrontEnd *fe = record(data);
    JNIEnv *env = javaEnv(fe);
    if (env == nullptr) return kEmptyText;
    jstring s = toJava(env, output);
    if (raised(env, fe)) return kEmptyText;
    auto answer =
        static_cast<jstring>(env->CallObjectMethod(fe->callBackObject, fe->callBackCallBackID, fe->userData, s));
    drop(env, s);
    return answerText(env, fe, answer);
}

}  // namespace

extern "C" {

CallBackVector *NewVCallBackVector(JNIEnv *env) {
    auto *vector = static_cast<CallBackVector *>(malloc(sizeof(CallBackVector)));
    if (vector == nullptr) {
        ambrix::throwOutOfMemory(env, "Failed to allocate CallBackVector");
        return nullptr;
    }
    vector->textCallBack = TextCallBack;
    vector->errorCallBack = ErrorCallBack;
    vector->statusCallBack = StatusCallBack;
    vector->readLineCallBack = ReadLineCallBack;
    vector->redirectCallBack = RedirectCallBack;
    vector->streamCallBack = StreamCallBack;
    vector->queryInterrupt = QueryInterrupt;
    vector->callBackCallBack = CallBackCallBack;
    return vector;
}

}  // extern "C"
