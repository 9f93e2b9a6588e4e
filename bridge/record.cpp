// The engine record and its interrupt state. The state's two counters are
// reached atomically, since Engine.interrupt() runs on any thread and never
// takes the kernel lock.
#include "record.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <type_traits>

namespace {

struct InterruptState {
    uint64_t call;     // the serial of the latest kernel call; 0 before the first
    uint64_t request;  // the serial of the call asked to end; 0 for none
};

struct EngineRecord {
    CallBackFrontEnd frontEnd;
    InterruptState interrupt;
};

static_assert(std::is_standard_layout_v<EngineRecord> && offsetof(EngineRecord, frontEnd) == 0,
              "the record's address is the front end's");

std::atomic_ref<uint64_t> counter(CallBackFrontEnd *frontEnd, uint64_t InterruptState::*field) {
    return std::atomic_ref<uint64_t>(reinterpret_cast<EngineRecord *>(frontEnd)->interrupt.*field);
}

}  // namespace

namespace ambrix {

CallBackFrontEnd *allocateFrontEnd() {
    auto *record = static_cast<EngineRecord *>(calloc(1, sizeof(EngineRecord)));
    return record == nullptr ? nullptr : &record->frontEnd;
}

void beginKernelCall(CallBackFrontEnd *frontEnd) {
    // Only the thread that holds the lock writes it: no read-modify-write needed.
    auto call = counter(frontEnd, &InterruptState::call);
    call.store(call.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

bool interruptRequested(CallBackFrontEnd *frontEnd) {
    uint64_t request = counter(frontEnd, &InterruptState::request).load(std::memory_order_acquire);
    return request != 0 && request == counter(frontEnd, &InterruptState::call).load(std::memory_order_acquire);
}

// Aims a request at the call in progress; with none in progress, it names a
// call that has ended and is dropped. Of two requests racing, the later
// call's stands.
void requestInterrupt(CallBackFrontEnd *frontEnd) {
    uint64_t current = counter(frontEnd, &InterruptState::call).load(std::memory_order_acquire);
    auto request = counter(frontEnd, &InterruptState::request);
    uint64_t seen = request.load(std::memory_order_relaxed);
    while (seen < current && !request.compare_exchange_weak(seen, current, std::memory_order_acq_rel)) {
    }
}

}  // namespace ambrix
