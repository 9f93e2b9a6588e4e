// The frame every native method follows, written once: read the receiver's
// handles, check the arguments with the method's own messages, call the
// kernel inside lock brackets, and return the zero result whenever a Java
// exception is pending. A native states only its own steps and messages.
//
// Natives are never unwound by the kernel (its errors stop at the kernel
// operation), so the frame may use lambdas freely.
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
// live store; null for a null handle or with an exception pending.
jobject newPeer(JNIEnv *env, ALGEB handle, CallBackFrontEnd *frontEnd, Peer peer);

// Counts the entries through which a kernel call reaches Java: the callback
// entry points, the help callbacks and the collector's passes. Only they can
// leave a Java exception pending while the kernel runs, so a step that saw
// the count unchanged across a kernel call knows that call reported nothing,
// without asking the VM. Written only by the thread that holds the lock.
extern std::atomic<uint64_t> javaEntries;

inline void noteJavaEntry() {
    javaEntries.store(javaEntries.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

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

// What a native's steps work with.
struct Call {
    JNIEnv *env;
    CallBackFrontEnd *frontEnd = nullptr;
    ALGEB self = nullptr;     // the receiver's handle (value methods)
    ALGEB args[3] = {};       // the handles of the Arg list, in order
    uint64_t entries = 0;     // javaEntries when last seen with nothing pending

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

    // Takes the lock and starts counting the kernel's entries into Java.
    bool enter() {
        if (!enterKernel(env, frontEnd)) return false;
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
    // only under the lock, since it asks the kernel.
    jobject wrap(ALGEB value) const { return newAlgebraic(env, value, frontEnd); }

    // A Java object of a fixed class; needs no lock.
    jobject peer(ALGEB value, Peer peerClass) const { return newPeer(env, value, frontEnd, peerClass); }

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
template <typename R, typename Steps>
R engineMethod(JNIEnv *env, jobject engine, Steps &&steps) {
    Call call{env};
    if (!call.readFrontEnd(engine, true, "Engine is null, it may have been stopped.")) return zeroResult<R>();
    return finish<R>(call, steps);
}

// The own-handle and missing-engine messages of a value method.
struct Messages {
    const char *self;
    const char *frontEnd;
};

// The value-method frame: the receiver's handle, each argument's handle,
// the engine's record, then the steps.
inline bool prepareValue(Call &call, jobject self, Messages messages, std::initializer_list<Arg> args) {
    if (!readDag(call.env, self, messages.self, call.self)) return false;
    int i = 0;
    for (const Arg &arg : args)
        if (!readDag(call.env, arg.object, arg.message, call.args[i++])) return false;
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
