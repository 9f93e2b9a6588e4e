// Shared by the Engine natives.
#ifndef AMBRIX_ENGINE_H
#define AMBRIX_ENGINE_H

#include "frame.h"

namespace ambrix {

// A Java string's code units, held from before the lock is taken until the
// kernel call that uses their copy has returned. The copy is made in that
// call's own lock pass: kernel memory handed out in one pass could be
// reclaimed by collections that other threads run before the next.
struct JavaChars {
    jstring string;
    const jchar *units;
    jsize length;
};

// False with an exception pending; a null string fails with `nullMessage`,
// and text that cannot cross to the kernel exactly is refused (text.h).
bool holdChars(JNIEnv *env, jstring s, const char *nullMessage, JavaChars &chars);
void releaseChars(JNIEnv *env, JavaChars &chars);

// Under the lock: the held text as 8-bit kernel text; null with an
// OutOfMemoryError pending when the kernel gives no memory.
char *kernelCopy(Call &call, const JavaChars &chars);

}  // namespace ambrix

#endif
