// Shared by the Engine natives.
#ifndef AMBRIX_ENGINE_H
#define AMBRIX_ENGINE_H

#include "frame.h"

namespace ambrix {

// A Java string's text in kernel memory (allocated under the lock), or null
// with an exception pending; a null string fails with `nullMessage`.
char *kernelText(Call &call, jstring s, const char *nullMessage);

}  // namespace ambrix

#endif
