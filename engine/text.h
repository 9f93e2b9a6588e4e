// Text crossing between Java and the kernel. The kernel's text is 8-bit:
// Java to kernel, each UTF-16 code unit becomes its low 8 bits; kernel to
// Java, each byte becomes the code unit of the same value (0 to 255).
#ifndef AMBRIX_TEXT_H
#define AMBRIX_TEXT_H

#include <jni.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "lookups.h"

namespace ambrix {

// Writes the low 8 bits of each of the n code units, then a zero byte.
inline void narrowInto(char *dest, const jchar *chars, jsize n) {
    for (jsize k = 0; k < n; k++) dest[k] = static_cast<char>(chars[k] & 0xFF);
    dest[n] = '\0';
}

// Writes each of the n bytes as the code unit of the same value.
inline void widenInto(jchar *dest, const char *text, jsize n) {
    for (jsize k = 0; k < n; k++) dest[k] = static_cast<unsigned char>(text[k]);
}

// Throws java.lang.OutOfMemoryError unless an exception is pending.
inline void throwOutOfMemory(JNIEnv *env, const char *message) {
    if (env->ExceptionCheck()) return;
    if (lookupsReady()) {
        env->ThrowNew(lookups.outOfMemoryError, message);
        return;
    }
    jclass cls = env->FindClass("java/lang/OutOfMemoryError");
    if (cls == nullptr) return;
    env->ThrowNew(cls, message);
    env->DeleteLocalRef(cls);
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
