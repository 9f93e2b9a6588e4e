// Text crossing between Java and the kernel. The kernel's text is 8-bit and
// ends at its first zero byte. Java to kernel, text crosses exactly or not at
// all: each code unit from U+0001 to U+00FF becomes the byte of the same
// value, and text holding any other unit (above U+00FF, or NUL, which would
// cut it) is refused before anything reaches the kernel. Kernel to Java,
// each byte becomes the code unit of the same value (0 to 255).
#ifndef AMBRIX_TEXT_H
#define AMBRIX_TEXT_H

#include <jni.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "lookups.h"

namespace ambrix {

// The kernel error for Java text that cannot cross, where the kernel asked
// for it (a callback's answer, an exception's message or arguments).
constexpr const char *kOutOfRange = "character is out of range";

// The position of the first code unit that cannot cross to the kernel, or -1.
inline jsize unsendable(const jchar *chars, jsize n) {
    for (jsize k = 0; k < n; k++)
        if (chars[k] == 0 || chars[k] > 0xFF) return k;
    return -1;
}

// Throws the VexelException that refuses text whose unit at `at` cannot
// cross, naming the unit and its position; always yields false.
bool refuseText(JNIEnv *env, const jchar *chars, jsize at);

// Writes each of the n code units as one byte, then a zero byte; every unit
// must have passed unsendable().
inline void narrowInto(char *dest, const jchar *chars, jsize n) {
    for (jsize k = 0; k < n; k++) dest[k] = static_cast<char>(chars[k] & 0xFF);
    dest[n] = '\0';
}

// The n code units as kernel text in the kernel's memory (VexelAlloc), which
// the kernel owns; null when it gives none. Every unit must have passed
// unsendable().
inline char *kernelText(KernelVector kv, const jchar *chars, jsize n) {
    auto *text = static_cast<char *>(VexelAlloc(kv, static_cast<size_t>(n) + 1));
    if (text != nullptr) narrowInto(text, chars, n);
    return text;
}

// Writes each of the n bytes as the code unit of the same value.
inline void widenInto(jchar *dest, const char *text, jsize n) {
    for (jsize k = 0; k < n; k++) dest[k] = static_cast<unsigned char>(text[k]);
}

// Throws java.lang.OutOfMemoryError unless an exception is pending.
inline void throwOutOfMemory(JNIEnv *env, const char *message) {
    throwNew(env, lookups.outOfMemoryError, "java/lang/OutOfMemoryError", message);
}

// Kernel text as a new Java string, widened in a buffer of the library's
// own: on the stack when short, else on the C heap. Null with an exception
// pending when there is no memory. Holds nothing when it returns, so kernel
// callbacks may use it.
inline jstring newJavaString(JNIEnv *env, const char *text) {
    constexpr size_t kShort = 256;
    size_t length = strlen(text);
    if (length > static_cast<size_t>(INT_MAX)) {
        throwOutOfMemory(env, "Kernel text too long for a Java string");
        return nullptr;
    }
    auto n = static_cast<jsize>(length);
    static const jchar kEmpty[1] = {0};
    if (n == 0) return env->NewString(kEmpty, 0);
    jchar shortBuffer[kShort];
    jchar *buffer = length <= kShort ? shortBuffer : static_cast<jchar *>(malloc(sizeof(jchar) * length));
    if (buffer == nullptr) {
        throwOutOfMemory(env, "Failed to allocate a Java string");
        return nullptr;
    }
    widenInto(buffer, text, n);
    jstring s = env->NewString(buffer, n);
    if (buffer != shortBuffer) free(buffer);
    return s;
}

}  // namespace ambrix

#endif
