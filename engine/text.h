// Text crossing between Java and the kernel. The kernel's text is 8-bit:
// Java to kernel, each UTF-16 code unit becomes its low 8 bits; kernel to
// Java, each byte becomes the code unit of the same value (0 to 255).
#ifndef AMBRIX_TEXT_H
#define AMBRIX_TEXT_H

#include <jni.h>

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
    jclass cls = env->FindClass("java/lang/OutOfMemoryError");
    if (cls == nullptr) return;
    env->ThrowNew(cls, message);
    env->DeleteLocalRef(cls);
}

}  // namespace ambrix

#endif
