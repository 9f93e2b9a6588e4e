// Java exception translation: a Java exception left by a callback becomes a
// kernel error. A VexelException gives its message as the error's format
// text and up to ten arguments converted to kernel values; any other
// exception gives its toString text.
//
// The raise unwinds out of this code (a real kernel does it by longjmp), so
// nothing here has a destructor: every local reference and every held string
// is given back before the raise.
#include <cstdlib>

#include "bridge.h"
#include "text.h"

namespace {

constexpr int kMaxArgs = 10;
constexpr int kMaxRefs = 8;

// What must be given back before a raise.
struct Held {
    JNIEnv *env;
    KernelVector kv;
    jobject refs[kMaxRefs];
    int count;
    jstring string;       // a string whose characters are held
    const jchar *chars;
};

void keep(Held &held, jobject ref) {
    if (ref != nullptr && held.count < kMaxRefs) held.refs[held.count++] = ref;
}

void giveBack(Held &held) {
    JNIEnv *env = held.env;
    if (held.chars != nullptr) env->ReleaseStringChars(held.string, held.chars);
    held.chars = nullptr;
    for (int i = 0; i < held.count; i++) env->DeleteLocalRef(held.refs[i]);
    held.count = 0;
}

// Raises a kernel error with no Java exception pending and nothing held.
// Yields 1 in case the raise ever comes back.
int raise(Held &held, const char *message, int nargs = 0, ALGEB arg1 = nullptr, ALGEB arg2 = nullptr) {
    if (held.env->ExceptionCheck()) held.env->ExceptionClear();
    giveBack(held);
    if (nargs == 1)
        VexelRaiseError1(held.kv, message, arg1);
    else if (nargs == 2)
        VexelRaiseError2(held.kv, message, arg1, arg2);
    else
        VexelRaiseError(held.kv, message);
    return 1;
}

// A guarded step failed when it left an exception or gave nothing.
bool failedStep(JNIEnv *env, const void *result) { return env->ExceptionCheck() || result == nullptr; }

// Copies a Java string into kernel text, each code unit cut to its low 8
// bits; null when the kernel gives no memory.
char *kernelCopy(JNIEnv *env, KernelVector kv, jstring s, const jchar *chars) {
    jsize n = env->GetStringLength(s);
    auto *text = static_cast<char *>(VexelAlloc(kv, static_cast<size_t>(n) + 1));
    if (text != nullptr) ambrix::narrowInto(text, chars, n);
    return text;
}

enum class Box { Boolean, Character, Double, Float, Integer, Long, String };

struct Conversion {
    const char *className;
    const char *method;
    const char *signature;
    const char *failure;
    Box box;
};

// Tried in this order; the first class the argument is an instance of decides.
const Conversion kConversions[] = {
    {"java/lang/Boolean", "booleanValue", "()Z", "Could not convert argument to Boolean", Box::Boolean},
    {"java/lang/Character", "charValue", "()C", "Could not convert to Character", Box::Character},
    {"java/lang/Double", "doubleValue", "()D", "Could not convert to C double", Box::Double},
    {"java/lang/Float", "floatValue", "()F", "Could not convert to C float", Box::Float},
    {"java/lang/Integer", "intValue", "()I", "Could not convert to C int", Box::Integer},
    {"java/lang/Long", "longValue", "()J", "Could not convert to C long", Box::Long},
    {"java/lang/String", nullptr, nullptr, nullptr, Box::String},
};

// Calls the value method of a boxed argument and makes the kernel value.
ALGEB unbox(JNIEnv *env, KernelVector kv, jobject arg, jmethodID method, Box box) {
    switch (box) {
        case Box::Boolean: {
            jboolean b = env->CallBooleanMethod(arg, method);
            return env->ExceptionCheck() ? nullptr : ToVexelBoolean(kv, b == 1 ? 1 : 0);
        }
        case Box::Character: {
            jchar c = env->CallCharMethod(arg, method);
            return env->ExceptionCheck() ? nullptr : ToVexelChar(kv, c & 0xFF);
        }
        case Box::Double: {
            jdouble d = env->CallDoubleMethod(arg, method);
            return env->ExceptionCheck() ? nullptr : ToVexelFloat(kv, d);
        }
        case Box::Float: {
            jfloat f = env->CallFloatMethod(arg, method);
            return env->ExceptionCheck() ? nullptr : ToVexelFloat(kv, static_cast<double>(f));
        }
        case Box::Integer: {
            jint i = env->CallIntMethod(arg, method);
            return env->ExceptionCheck() ? nullptr : ToVexelInteger(kv, static_cast<int64_t>(i));
        }
        case Box::Long: {
            jlong l = env->CallLongMethod(arg, method);
            return env->ExceptionCheck() ? nullptr : ToVexelInteger64(kv, l);
        }
        case Box::String:
            break;
    }
    return nullptr;
}

// Converts one argument into *slot; a class outside the table gives the
// null kernel value. Yields nonzero when it raised.
int convertArg(Held &held, jobject arg, ALGEB *slot) {
    JNIEnv *env = held.env;
    KernelVector kv = held.kv;
    *slot = nullptr;
    for (const Conversion &conversion : kConversions) {
        jclass cls = env->FindClass(conversion.className);
        if (env->ExceptionCheck())
            return raise(held, "error finding class %1", 1, ToVexelString(kv, conversion.className));
        if (cls == nullptr) return raise(held, "could not find class %1", 1, ToVexelString(kv, conversion.className));
        jboolean instance = env->IsInstanceOf(arg, cls);
        if (!instance) {
            env->DeleteLocalRef(cls);
            continue;
        }
        if (conversion.box == Box::String) {
            env->DeleteLocalRef(cls);
            jstring s = static_cast<jstring>(arg);
            const jchar *chars = env->GetStringChars(s, nullptr);
            char *text = chars == nullptr ? nullptr : kernelCopy(env, kv, s, chars);
            if (chars != nullptr) env->ReleaseStringChars(s, chars);
            *slot = ToVexelString(kv, text != nullptr ? text : "");
            return 0;
        }
        jmethodID method = env->GetMethodID(cls, conversion.method, conversion.signature);
        env->DeleteLocalRef(cls);
        if (env->ExceptionCheck() || method == nullptr) {
            const char *message = env->ExceptionCheck() ? "error getting method %1::%2" : "could not find method %1::%2";
            env->ExceptionClear();
            return raise(held, message, 2, ToVexelString(kv, conversion.className),
                         ToVexelString(kv, conversion.method));
        }
        *slot = unbox(env, kv, arg, method, conversion.box);
        if (env->ExceptionCheck()) return raise(held, conversion.failure);
        return 0;
    }
    return 0;
}

// The steps that read an exception's text, with their messages.
struct TextSteps {
    const char *noClass;
    const char *method;
    const char *noMethod;
    const char *noText;
    const char *noChars;
};

const TextSteps kVexelMessage{"Could not get VexelException's class", "getMessage",
                              "Error getting VexelException.getMessage", "Error calling VexelException.getMessage",
                              "Could not convert exception to string"};
const TextSteps kOtherText{"Could not get Exception's class", "toString", "Error getting Exception.toString",
                           "Error calling Exception.toString", "Could not convert to string"};

// Calls the exception's text method and holds the text's characters in
// `held` (given back by the raise). Yields nonzero when it raised.
int holdText(Held &held, jthrowable exc, const TextSteps &steps, jclass *cls) {
    JNIEnv *env = held.env;
    *cls = env->GetObjectClass(exc);
    if (failedStep(env, *cls)) return raise(held, steps.noClass);
    keep(held, *cls);
    jmethodID method = env->GetMethodID(*cls, steps.method, "()Ljava/lang/String;");
    if (failedStep(env, method)) return raise(held, steps.noMethod);
    auto text = static_cast<jstring>(env->CallObjectMethod(exc, method));
    if (failedStep(env, text)) return raise(held, steps.noText);
    keep(held, text);
    const jchar *chars = env->GetStringChars(text, nullptr);
    if (failedStep(env, chars)) return raise(held, steps.noChars);
    held.string = text;
    held.chars = chars;
    return 0;
}

int raiseVexelException(Held &held, jthrowable exc) {
    JNIEnv *env = held.env;
    jclass cls;
    if (int raised = holdText(held, exc, kVexelMessage, &cls)) return raised;
    jstring message = held.string;
    const jchar *chars = held.chars;
    jmethodID getArgCount = env->GetMethodID(cls, "getArgCount", "()I");
    if (failedStep(env, getArgCount)) return raise(held, "Error getting VexelException.getArgCount");
    jint n = env->CallIntMethod(exc, getArgCount);
    if (env->ExceptionCheck()) return raise(held, "Error calling VexelException.getArgCount");
    if (n > kMaxArgs) return raise(held, "too many arguments in VexelException");
    ALGEB slots[kMaxArgs] = {};
    if (n >= 1) {
        jmethodID getArg = env->GetMethodID(cls, "getArg", "(I)Ljava/lang/Object;");
        if (failedStep(env, getArg)) return raise(held, "Error getting VexelException.getArg");
        for (jint i = 0; i < n; i++) {
            jobject arg = env->CallObjectMethod(exc, getArg, i);
            if (failedStep(env, arg)) return raise(held, "Error calling VexelException.getArg");
            int raised = convertArg(held, arg, &slots[i]);
            env->DeleteLocalRef(arg);
            if (raised) return raised;
        }
    }
    jsize length = env->GetStringLength(message);
    auto *text = static_cast<char *>(VexelAlloc(held.kv, static_cast<size_t>(length) + 1));
    if (text == nullptr) return raise(held, "Could not convert exception to string");
    for (jsize k = 0; k < length; k++) {
        if (chars[k] > 0xFF) return raise(held, "character is out of range");
        text[k] = static_cast<char>(chars[k]);
    }
    text[length] = '\0';
    return raise(held, text, n == 1 || n == 2 ? n : 0, slots[0], slots[1]);
}

int raiseOtherException(Held &held, jthrowable exc) {
    jclass cls;
    if (int raised = holdText(held, exc, kOtherText, &cls)) return raised;
    char *text = kernelCopy(held.env, held.kv, held.string, held.chars);
    return raise(held, text != nullptr ? text : kOtherText.noChars);
}

}  // namespace

extern "C" {

int HandleException(JNIEnv *env, KernelVector kv) {
    jthrowable exc = env->ExceptionOccurred();
    if (exc == nullptr) return 0;
    env->ExceptionClear();
    Held held{env, kv, {}, 0, nullptr, nullptr};
    keep(held, exc);
    jclass vexelException = env->FindClass("com/quorbit/externalcall/VexelException");
    if (failedStep(env, vexelException)) return raise(held, "Could not find VexelException");
    keep(held, vexelException);
    jboolean isVexel = env->IsInstanceOf(exc, vexelException);
    if (env->ExceptionCheck()) return raise(held, "Error in IsInstanceOf");
    return isVexel ? raiseVexelException(held, exc) : raiseOtherException(held, exc);
}

}  // extern "C"
