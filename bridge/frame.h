// The frames every native method follows, written once. A native states
// only its own steps and messages.
//
// The engine frame (engineMethod), for Engine's natives:
//   1. without the lock: the engine's record from its `kernelID`; none gives
//      "Engine is null, it may have been stopped.";
//   2. the native's own steps, each kernel step in a lock pass (below).
// The value frame (valueMethod, valueOp; element access in rtable/):
//   1. without the lock: the receiver's `dag`, then each argument's `dag`,
//      then the receiver's `kernelID`, each failing with the method's own
//      message (a zero handle: "this Algebraic has been disposed");
//   2. the native's own steps, each kernel step in a lock pass.
// A lock pass (Call::locked, inLock, lastPass):
//   1. takes the kernel lock;
//   2. with the lock held: if any wrapper lost its handle since step 1 of the
//      frame (a restart, a stop, or a mark pass that disposed withdrawn
//      wrappers), reads every handle of step 1 again, with the same messages;
//      so the kernel is never handed a handle read before the lock that the
//      lock would have shown gone;
//   3. with the lock held: the step's kernel calls, and the wrapping of every
//      value that goes back to Java;
//   4. releases the lock, keeping a pending exception.
// Whatever a native makes is dropped when an exception is pending at its end.
// Handles in Java arrays are read inside the pass that uses them.
//
// Natives are never unwound by the kernel (its errors stop at the kernel
// operation), so the frames may use lambdas freely.
#ifndef AMBRIX_FRAME_H
#define AMBRIX_FRAME_H

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <type_traits>

#include "bridge.h"
#include "lookups.h"

namespace ambrix {

// The engine record named by an Engine's (engine) or a value's `kernelID`;
// null for a null object.
CallBackFrontEnd *frontEndOf(JNIEnv *env, jobject object, bool engine);

// A new Java object of the peer class for a kernel value, registered in the
// live store; null for a null handle or with an exception pending (which
// the caller may have `checked` already).
jobject newPeer(JNIEnv *env, ALGEB handle, CallBackFrontEnd *frontEnd, Peer peer, bool checked = false);

// newAlgebraic, for a caller that has `checked` for a pending exception.
jobject wrapValue(JNIEnv *env, ALGEB handle, CallBackFrontEnd *frontEnd, bool checked);

// Counts the entries through which a kernel call reaches Java: the callback
// entry points, the help callbacks and the collector's passes. Only they can
// leave a Java exception pending while the kernel runs, so a step that saw
// the count unchanged across a kernel call knows that call reported nothing,
// without asking the VM. Written only by the thread that holds the lock.
extern std::atomic<uint64_t> javaEntries;

inline void noteJavaEntry() {
    javaEntries.store(javaEntries.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

// Counts the changes that take handles from wrappers: restarts, stops, and
// mark passes that dispose withdrawn wrappers. Changed only under the kernel
// lock; a frame notes it before reading handles and compares it after
// taking the lock.
extern std::atomic<uint64_t> handleGeneration;

inline uint64_t currentGeneration() { return handleGeneration.load(std::memory_order_acquire); }

// Under the lock, after wrappers lost their handles.
inline void handlesChanged() { handleGeneration.fetch_add(1, std::memory_order_release); }

// Takes the kernel lock; false with an exception pending when it was not
// taken (EnterKernel, with an answer).
bool enterKernel(JNIEnv *env, CallBackFrontEnd *frontEnd);

// Throws `message` unless an exception is pending; always yields false.
inline bool fail(JNIEnv *env, const char *message) {
    ThrowVexelException(env, message);
    return false;
}

// Reads an object's handle; a null reference or a zero handle fails with
// `message` unless getDag left an exception of its own (a null message: the
// method has none of its own).
inline bool readDag(JNIEnv *env, jobject object, const char *message, ALGEB &handle) {
    handle = getDag(env, object);
    return handle != nullptr || (message != nullptr && fail(env, message));
}

// An argument whose handle the frame reads, with its message.
struct Arg {
    jobject object;
    const char *message;
};

// The own-handle and missing-engine messages of a value method.
struct Messages {
    const char *self;
    const char *frontEnd;
};

// What a native's steps work with.
struct Call {
    JNIEnv *env;
    CallBackFrontEnd *frontEnd = nullptr;
    ALGEB self = nullptr;     // the receiver's handle (value methods)
    ALGEB args[3] = {};       // the handles of the Arg list, in order
    uint64_t entries = 0;     // javaEntries when last seen with nothing pending

    // What the frame read before the lock, to read again under it.
    uint64_t generation;      // handleGeneration before the first read
    jobject receiver = nullptr;
    bool engine = false;      // the receiver is an Engine, not a value
    Messages messages{};
    Arg argObjects[3] = {};
    int argCount = 0;

    explicit Call(JNIEnv *e) : env(e), generation(currentGeneration()) {}

    KernelVector kv() const { return frontEnd->kernelVector; }

    // A Java exception is pending: a kernel call reported an error, so the
    // pass makes no further kernel call.
    bool pending() const { return env->ExceptionCheck(); }

    // After a kernel call in a loop: whether the kernel left an exception
    // pending. The VM is asked only when Java was entered since the last ask.
    bool kernelFailed() {
        uint64_t now = javaEntries.load(std::memory_order_relaxed);
        if (now == entries) return false;
        if (env->ExceptionCheck()) return true;
        entries = now;
        return false;
    }

    // Reads the frame's handles again, under the lock; false with an
    // exception pending when one is gone.
    bool readAgain();

    // Takes the lock, makes sure the frame's handles are still the
    // wrappers' own, and starts counting the kernel's entries into Java.
    bool enter() {
        if (!enterKernel(env, frontEnd)) return false;
        if (currentGeneration() != generation && !readAgain()) {
            LeaveKernel(frontEnd);
            return false;
        }
        entries = javaEntries.load(std::memory_order_relaxed);
        return true;
    }

    // One pass through the kernel lock: `step` runs with the lock held.
    // False when the lock was not taken or an exception is pending after
    // the release.
    template <typename Step>
    bool locked(Step &&step) {
        if (!enter()) return false;
        step();
        LeaveKernel(frontEnd);
        return !env->ExceptionCheck();
    }

    // A lock pass that yields what `step` yields: its zero when the lock was
    // not taken (and the frame drops it when an exception is pending).
    template <typename Step>
    auto inLock(Step &&step) -> decltype(step()) {
        using T = decltype(step());
        if constexpr (std::is_void_v<T>) {
            locked(step);
        } else {
            T result{};
            locked([&] { result = step(); });
            return result;
        }
    }

    // The kernel's value as a Java object of the class its kind selects;
    // only under the lock, since it asks the kernel. Null when the kernel
    // call that made the value failed.
    jobject wrap(ALGEB value) {
        return kernelFailed() ? nullptr : wrapValue(env, value, frontEnd, true);
    }

    // A Java object of a fixed class; needs no lock.
    jobject peer(ALGEB value, Peer peerClass) {
        return kernelFailed() ? nullptr : newPeer(env, value, frontEnd, peerClass, true);
    }

    bool readFrontEnd(jobject object, bool engine, const char *message) {
        frontEnd = frontEndOf(env, object, engine);
        return frontEnd != nullptr || fail(env, message);
    }
};

template <typename R>
R zeroResult() {
    if constexpr (!std::is_void_v<R>) return R{};
}

// Runs a native's steps; whatever they make is dropped if an exception is
// pending at the end, so no meaningful value goes back with one.
template <typename R, typename Steps>
R finish(Call &call, Steps &&steps) {
    if constexpr (std::is_void_v<R>) {
        steps(call);
    } else {
        R result = steps(call);
        return call.env->ExceptionCheck() ? R{} : result;
    }
}

// The frame of an Engine method: the engine's record, then the steps.
constexpr const char *kNoEngine = "Engine is null, it may have been stopped.";

template <typename R, typename Steps>
R engineMethod(JNIEnv *env, jobject engine, Steps &&steps) {
    Call call{env};
    call.receiver = engine;
    call.engine = true;
    if (!call.readFrontEnd(engine, true, kNoEngine)) return zeroResult<R>();
    return finish<R>(call, steps);
}

// The value-method frame: the receiver's handle, each argument's handle,
// the engine's record, then the steps.
inline bool prepareValue(Call &call, jobject self, Messages messages, std::initializer_list<Arg> args) {
    call.receiver = self;
    call.messages = messages;
    if (!readDag(call.env, self, messages.self, call.self)) return false;
    for (const Arg &arg : args) {
        call.argObjects[call.argCount] = arg;
        if (!readDag(call.env, arg.object, arg.message, call.args[call.argCount++])) return false;
    }
    return call.readFrontEnd(self, false, messages.frontEnd);
}

template <typename R, typename Steps>
R valueMethod(JNIEnv *env, jobject self, Messages messages, std::initializer_list<Arg> args, Steps &&steps) {
    Call call{env};
    if (!prepareValue(call, self, messages, args)) return zeroResult<R>();
    return finish<R>(call, steps);
}

// One lock pass that is the native's last: `step(call)` runs with the lock
// held, and its result is dropped if an exception is pending afterwards,
// the one place where the frame asks.
template <typename R, typename Step>
R lastPass(Call &call, Step &&step) {
    if (!call.enter()) return zeroResult<R>();
    if constexpr (std::is_void_v<R>) {
        step(call);
        LeaveKernel(call.frontEnd);
    } else {
        R result = step(call);
        LeaveKernel(call.frontEnd);
        return call.env->ExceptionCheck() ? R{} : result;
    }
}

// A value method whose whole work is one kernel step in one lock bracket.
template <typename R, typename Step>
R valueOp(JNIEnv *env, jobject self, Messages messages, std::initializer_list<Arg> args, Step &&step) {
    Call call{env};
    if (!prepareValue(call, self, messages, args)) return zeroResult<R>();
    return lastPass<R>(call, step);
}

}  // namespace ambrix

#endif
