// Arrays of values between Java and the kernel, for the natives that move
// many values in one call: the handles of an Algebraic[] read before the
// lock, and a new Algebraic[] of values wrapped under it.
#ifndef AMBRIX_ARRAYS_H
#define AMBRIX_ARRAYS_H

#include <cstdlib>

#include "frame.h"

namespace ambrix {

// The handles of a Java array of values, read inside the lock pass that hands
// them to the kernel: a null array gives "Array is NULL" (or no values at
// all, where null means none), a null element "Argument is NULL", a disposed
// one the usual message. The block is freed with the reader.
struct Handles {
    ALGEB *handles = nullptr;
    jsize length = 0;

    Handles() = default;
    Handles(const Handles &) = delete;
    Handles &operator=(const Handles &) = delete;
    ~Handles() { free(handles); }

    bool read(JNIEnv *env, jobjectArray values, bool nullIsEmpty = false) {
        if (values == nullptr) return nullIsEmpty || fail(env, "Array is NULL");
        length = env->GetArrayLength(values);
        handles = static_cast<ALGEB *>(malloc(sizeof(ALGEB) * (length > 0 ? static_cast<size_t>(length) : 1)));
        if (handles == nullptr) return fail(env, "Out of Memory");
        for (jsize i = 0; i < length; i++) {
            jobject value = env->GetObjectArrayElement(values, i);
            if (env->ExceptionCheck()) return false;
            bool ok = readDag(env, value, "Argument is NULL", handles[i]);
            env->DeleteLocalRef(value);
            if (!ok) return false;
        }
        return true;
    }
};

// A new Algebraic[] of `length` values, each made by `value(i)` under the
// lock and wrapped by `wrap` before the lock is released; null with an
// exception pending on failure.
template <typename Value, typename Wrap>
jobjectArray wrappedArray(Call &call, jsize length, Value &&value, Wrap &&wrap) {
    JNIEnv *env = call.env;
    jobjectArray array = env->NewObjectArray(length, lookups.peers[kAlgebraic], nullptr);
    if (array == nullptr) return nullptr;
    for (jsize i = 0; i < length; i++) {
        ALGEB made = value(i);
        if (call.kernelFailed()) return nullptr;
        jobject wrapper = wrap(made);
        if (wrapper == nullptr) return nullptr;
        env->SetObjectArrayElement(array, i, wrapper);
        env->DeleteLocalRef(wrapper);
    }
    return array;
}

// Under the lock: a new list of `length` elements, `element(i)` giving the
// value of element i (from 0), wrapped before the lock is released; null
// with an exception pending on failure.
template <typename Element>
jobject newListOf(Call &call, jsize length, Element &&element) {
    ALGEB list = VexelListAlloc(call.kv(), length);
    for (jsize i = 0; i < length && !call.kernelFailed(); i++)
        VexelListAssign(call.kv(), list, int64_t(i) + 1, element(i));
    return call.pending() ? nullptr : call.peer(list, kList);
}

}  // namespace ambrix

#endif
