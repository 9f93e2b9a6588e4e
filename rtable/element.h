// The frames of the rectangular-table natives, built on bridge/frame.h:
// element access by a Java int[] index, and the copies that make a new
// table from a table's settings.
#ifndef AMBRIX_ELEMENT_H
#define AMBRIX_ELEMENT_H

#include <initializer_list>
#include <type_traits>

#include "frame.h"

namespace ambrix {

// The table's own messages: "KernelVector is NULL" where an element or a
// size is read, "CallBackFrontEnd is NULL" where a new table is made.
constexpr Messages kTableQuery{"Table is NULL", "KernelVector is NULL"};
constexpr Messages kTableCopy{"Table is NULL", "CallBackFrontEnd is NULL"};

// The kernel's index: one signed 64-bit entry per Java entry, widened with
// its sign, neither shifted nor range-checked. The block is kernel memory,
// made for this call and left to the kernel.
struct KernelIndex {
    int64_t *entries = nullptr;
    jsize count = 0;
};

// The Java index as a kernel index: the block is allocated in a lock pass
// of its own, and the Java array is read outside the lock, in place and
// without copy-back. False with an exception pending.
inline bool readIndex(Call &call, jintArray index, KernelIndex &kernelIndex) {
    JNIEnv *env = call.env;
    jsize n = index == nullptr ? 0 : env->GetArrayLength(index);
    if (n <= 0) return fail(env, "At least one index expected");
    int64_t *entries = nullptr;
    if (!call.locked([&] { entries = static_cast<int64_t *>(VexelAlloc(call.kv(), sizeof(int64_t) * n)); }))
        return false;
    if (entries == nullptr) return fail(env, "Out of Memory");
    jint *elements = env->GetIntArrayElements(index, nullptr);
    if (elements == nullptr) return false;
    for (jsize i = 0; i < n; i++) entries[i] = elements[i];
    env->ReleaseIntArrayElements(index, elements, JNI_ABORT);
    kernelIndex = {entries, n};
    return true;
}

// The element-access frame: the table's handle, the value's handle (the
// natives whose value is a Java object give it as `value`, with its
// message), the engine, the index, then `step(call, entries)` in a second
// lock pass. That pass first checks the index count against the table's
// dimensions, so the kernel never reads past the block. Whatever `step`
// makes is dropped if an exception is pending at the end.
template <typename R, typename Step>
R elementAccess(JNIEnv *env, jobject table, std::initializer_list<Arg> value, jintArray index, Step &&step) {
    return valueMethod<R>(env, table, kTableQuery, value, [&](Call &call) -> R {
        KernelIndex kernelIndex;
        if (!readIndex(call, index, kernelIndex)) return zeroResult<R>();
        std::conditional_t<std::is_void_v<R>, int, R> result{};
        call.locked([&] {
            int64_t dimensions = RTableNumDimensions(call.kv(), call.self);
            if (call.env->ExceptionCheck()) return;
            if (dimensions != kernelIndex.count) {
                fail(call.env, "Index count does not match the table's dimensions");
            } else if constexpr (std::is_void_v<R>) {
                step(call, kernelIndex.entries);
            } else {
                result = step(call, kernelIndex.entries);
            }
        });
        if constexpr (!std::is_void_v<R>) return result;
    });
}

// Writes one element: `make(call)` builds the element record in the second
// lock pass (it may ask the kernel), then RTableAssign stores it.
template <typename Make>
void assignElement(JNIEnv *env, jobject table, std::initializer_list<Arg> value, jintArray index, Make &&make) {
    elementAccess<void>(env, table, value, index, [&](Call &call, int64_t *entries) {
        RTableElement element = make(call);
        if (!call.env->ExceptionCheck()) RTableAssign(call.kv(), call.self, entries, element);
    });
}

// Reads one element: `take(call, element)` turns the selected record into
// the result in the second lock pass (it may ask the kernel, so that a
// fresh value is wrapped before the lock is released).
template <typename R, typename Take>
R selectElement(JNIEnv *env, jobject table, jintArray index, Take &&take) {
    return elementAccess<R>(env, table, {}, index, [&](Call &call, int64_t *entries) -> R {
        RTableElement element = RTableSelect(call.kv(), call.self, entries);
        if (call.env->ExceptionCheck()) return R{};
        return take(call, element);
    });
}

// The element record of the natives whose value is a Java object: the
// value's handle itself.
inline RTableElement handleElement(Call &call) {
    RTableElement element{};
    element.dag = call.args[0];
    return element;
}

// A kernel operation that makes a new table from a table and its settings.
using TableCopy = ALGEB (*)(KernelVector, RTableSettings *, ALGEB);

// The copies: one lock pass reads the table's settings, hands them to
// `copy` unchanged and wraps the new table, as an object of `className`
// when one is given, else of the class its kind selects.
inline jobject copyTable(JNIEnv *env, jobject table, TableCopy copy, const char *className) {
    return valueOp<jobject>(env, table, kTableCopy, {}, [&](Call &call) -> jobject {
        RTableSettings settings{};
        RTableGetSettings(call.kv(), &settings, call.self);
        if (call.env->ExceptionCheck()) return nullptr;
        ALGEB made = copy(call.kv(), &settings, call.self);
        return className != nullptr ? call.peer(made, className) : call.wrap(made);
    });
}

}  // namespace ambrix

#endif
