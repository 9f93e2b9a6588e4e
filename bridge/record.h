// The engine record: the CallBackFrontEnd, whose layout is fixed, followed
// in the same block by the state the kernel lock keeps for interrupt
// requests. Engine.interrupt() asks, from any thread and without the lock,
// that the kernel call in progress end; the kernel learns of it at its next
// interrupt query, before the callbacks object is asked.
//
// Each kernel call takes a new serial as it enters the lock, and a request
// names the serial of the call it was made during: a request that arrives
// while no call runs, or after its call has ended, touches no later call.
#ifndef AMBRIX_RECORD_H
#define AMBRIX_RECORD_H

#include "bridge.h"

namespace ambrix {

// A zeroed engine record followed by its interrupt state, in one block that
// free() releases; null when there is no memory.
CallBackFrontEnd *allocateFrontEnd();

// With the kernel lock just taken: a new kernel call begins.
void beginKernelCall(CallBackFrontEnd *frontEnd);

// Inside a kernel call: whether Engine.interrupt() asked during this call.
bool interruptRequested(CallBackFrontEnd *frontEnd);

// From any thread: asks the kernel call in progress, if any, to end.
void requestInterrupt(CallBackFrontEnd *frontEnd);

}  // namespace ambrix

#endif
