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
#include "lookups.h"
#include "text.h"

using ambrix::Lookups;
using ambrix::lookups;

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
    jstring extraString;  // an argument's string whose characters are held
    const jchar *extraChars;
};

void keep(Held &held, jobject ref) {
    if (ref != nullptr && held.count < kMaxRefs) held.refs[held.count++] = ref;
}

void giveBack(Held &held) {
    JNIEnv *env = held.env;
    if (held.chars != nullptr) env->ReleaseStringChars(held.string, held.chars);
    held.chars = nullptr;
    if (held.extraChars != nullptr) env->ReleaseStringChars(held.extraString, held.extraChars);
    held.extraChars = nullptr;
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

// Copies a Java string into kernel text; null when the kernel gives no
// memory. Text that cannot cross exactly raises "character is out of range".
char *kernelCopy(Held &held, jstring s, const jchar *chars) {
    jsize n = held.env->GetStringLength(s);
    if (ambrix::unsendable(chars, n) >= 0) {
        raise(held, ambrix::kOutOfRange);
        return nullptr;
    }
    return ambrix::kernelText(held.kv, chars, n);
}

// Tried in the order of ambrix::Box; the first class the argument is an
// instance of decides. What a failed value method reports:
const char *const kBoxFailures[ambrix::kBoxCount] = {
    "Could not convert argument to Boolean", "Could not convert to Character", "Could not convert to C double",
    "Could not convert to C float",          "Could not convert to C int",     "Could not convert to C long",
    nullptr,
};

// Calls the value method of a boxed argument and makes the kernel value.
ALGEB unbox(JNIEnv *env, KernelVector kv, jobject arg, jmethodID method, ambrix::Box box) {
    switch (box) {
        case ambrix::kBoolean: {
            jboolean b = env->CallBooleanMethod(arg, method);
            return env->ExceptionCheck() ? nullptr : ToVexelBoolean(kv, b == 1 ? 1 : 0);
        }
        case ambrix::kCharacter: {
            jchar c = env->CallCharMethod(arg, method);
            if (env->ExceptionCheck()) return nullptr;
            if (c == 0 || c > 0xFF) return nullptr;
            return ToVexelChar(kv, static_cast<int>(c));
        }
        case ambrix::kDouble: {
            jdouble d = env->CallDoubleMethod(arg, method);
            return env->ExceptionCheck() ? nullptr : ToVexelFloat(kv, d);
        }
        case ambrix::kFloat: {
            jfloat f = env->CallFloatMethod(arg, method);
            return env->ExceptionCheck() ? nullptr : ToVexelFloat(kv, static_cast<double>(f));
        }
        case ambrix::kInteger: {
            jint i = env->CallIntMethod(arg, method);
            return env->ExceptionCheck() ? nullptr : ToVexelInteger(kv, static_cast<int64_t>(i));
        }
        case ambrix::kLong: {
            jlong l = env->CallLongMethod(arg, method);
            return env->ExceptionCheck() ? nullptr : ToVexelInteger64(kv, l);
        }
        default:
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
    for (int b = 0; b < ambrix::kBoxCount; b++) {
        if (!env->IsInstanceOf(arg, lookups.boxes[b])) continue;
        if (b == ambrix::kString) {
            // The argument's characters are held until the copy, which may
            // raise: `held` gives them back first.
            jstring s = static_cast<jstring>(arg);
            const jchar *chars = env->GetStringChars(s, nullptr);
            if (chars == nullptr) return raise(held, kBoxFailures[ambrix::kCharacter]);
            held.extraString = s;
            held.extraChars = chars;
            char *text = kernelCopy(held, s, chars);
            env->ReleaseStringChars(s, chars);
            held.extraChars = nullptr;
            *slot = ToVexelString(kv, text != nullptr ? text : "");
            return 0;
        }
        *slot = unbox(env, kv, arg, lookups.boxValue[b], ambrix::Box(b));
        if (env->ExceptionCheck()) return raise(held, kBoxFailures[b]);
        // A character that cannot cross as one byte: unbox made nothing.
        if (b == ambrix::kCharacter && *slot == nullptr) return raise(held, ambrix::kOutOfRange);
        return 0;
    }
    return 0;
}

// The steps that read an exception's text, with their messages.
struct TextSteps {
    jmethodID Lookups::*method;
    const char *noText;
    const char *noChars;
};

const TextSteps kVexelMessage{&Lookups::getMessage, "Error calling VexelException.getMessage",
                              "Could not convert exception to string"};
const TextSteps kOtherText{&Lookups::toString, "Error calling Exception.toString", "Could not convert to string"};

// Calls the exception's text method and holds the text's characters in
// `held` (given back by the raise). Yields nonzero when it raised.
int holdText(Held &held, jthrowable exc, const TextSteps &steps) {
    JNIEnv *env = held.env;
    auto text = static_cast<jstring>(env->CallObjectMethod(exc, lookups.*steps.method));
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
    if (int raised = holdText(held, exc, kVexelMessage)) return raised;
    jstring message = held.string;
    const jchar *chars = held.chars;
    jint n = env->CallIntMethod(exc, lookups.vexelArgCount);
    if (env->ExceptionCheck()) return raise(held, "Error calling VexelException.getArgCount");
    if (n > kMaxArgs) return raise(held, "too many arguments in VexelException");
    ALGEB slots[kMaxArgs] = {};
    if (n >= 1) {
        for (jint i = 0; i < n; i++) {
            jobject arg = env->CallObjectMethod(exc, lookups.vexelArg, i);
            if (failedStep(env, arg)) return raise(held, "Error calling VexelException.getArg");
            int raised = convertArg(held, arg, &slots[i]);
            env->DeleteLocalRef(arg);
            if (raised) return raised;
        }
    }
    char *text = kernelCopy(held, message, chars);
    if (text == nullptr) return raise(held, "Could not convert exception to string");
    return raise(held, text, n == 1 || n == 2 ? n : 0, slots[0], slots[1]);
}

int raiseOtherException(Held &held, jthrowable exc) {
    if (int raised = holdText(held, exc, kOtherText)) return raised;
    char *text = kernelCopy(held, held.string, held.chars);
    return raise(held, text != nullptr ? text : kOtherText.noChars);
}

}  // namespace

extern "C" {

int HandleException(JNIEnv *env, KernelVector kv) {
    jthrowable exc = env->ExceptionOccurred();
    if (exc == nullptr) return 0;
    env->ExceptionClear();
    Held held{env, kv, {}, 0, nullptr, nullptr, nullptr, nullptr};
    keep(held, exc);
    jboolean isVexel = env->IsInstanceOf(exc, lookups.vexelException);
    if (env->ExceptionCheck()) return raise(held, "Error in IsInstanceOf");
    return isVexel ? raiseVexelException(held, exc) : raiseOtherException(held, exc);
}

}  // extern "C"
