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

// The element-access frame: the table's handle, the value's handle (the
// natives whose value is a Java object give it as `value`, with its
// message), the engine, the index, then one lock pass that makes the
// kernel's index and runs `step(call, entries)`. The kernel's index has one
// signed 64-bit entry per Java entry, widened with its sign, neither shifted
// nor range-checked; its block is kernel memory, made in the same pass that
// uses it, so that no collection run by another thread can reclaim it in
// between. The pass first checks the index count against the table's
// dimensions, so the kernel never reads past the block (and no block is
// made for an index that cannot fit); the count is asked of the kernel once
// per wrapper and kept in its `dimensionCount`, since a table's never changes. The Java array is read before the
// lock, onto the stack (an index longer than any table's dimension count is
// not read at all: it cannot match). Whatever `step` makes is dropped if an
// exception is pending at the end.
template <typename R, typename Step>
R elementAccess(JNIEnv *env, jobject table, std::initializer_list<Arg> value, jintArray index, Step &&step) {
    Call call{env};
    if (!prepareValue(call, table, kTableQuery, value)) return zeroResult<R>();
    jsize n = index == nullptr ? 0 : env->GetArrayLength(index);
    if (n <= 0) return fail(env, "At least one index expected"), zeroResult<R>();
    jint javaIndex[RTABLE_MAX_DIMENSIONS];
    if (n <= RTABLE_MAX_DIMENSIONS) env->GetIntArrayRegion(index, 0, n, javaIndex);
    jint known = lookupsReady() ? env->GetIntField(table, lookups.dimensionCount) : 0;
    return lastPass<R>(call, [&](Call &call) -> R {
        int64_t dimensions = known;
        if (dimensions == 0) {
            dimensions = RTableNumDimensions(call.kv(), call.self);
            if (call.kernelFailed()) return zeroResult<R>();
            if (dimensions > 0 && dimensions <= RTABLE_MAX_DIMENSIONS && lookupsReady())
                env->SetIntField(table, lookups.dimensionCount, static_cast<jint>(dimensions));
        }
        if (dimensions != n)
            return fail(call.env, "Index count does not match the table's dimensions"), zeroResult<R>();
        auto *entries = static_cast<int64_t *>(VexelAlloc(call.kv(), sizeof(int64_t) * static_cast<size_t>(n)));
        if (call.kernelFailed()) return zeroResult<R>();
        if (entries == nullptr) return fail(call.env, "Out of Memory"), zeroResult<R>();
        for (jsize i = 0; i < n; i++) entries[i] = javaIndex[i];
        return step(call, entries);
    });
}

// Writes one element: `make(call)` builds the element record in the second
// lock pass (it may ask the kernel), then RTableAssign stores it.
template <typename Make>
void assignElement(JNIEnv *env, jobject table, std::initializer_list<Arg> value, jintArray index, Make &&make) {
    elementAccess<void>(env, table, value, index, [&](Call &call, int64_t *entries) {
        RTableElement element = make(call);
        if (!call.kernelFailed()) RTableAssign(call.kv(), call.self, entries, element);
    });
}

// Reads one element: `take(call, element)` turns the selected record into
// the result in the second lock pass (it may ask the kernel, so that a
// fresh value is wrapped before the lock is released).
template <typename R, typename Take>
R selectElement(JNIEnv *env, jobject table, jintArray index, Take &&take) {
    return elementAccess<R>(env, table, {}, index, [&](Call &call, int64_t *entries) -> R {
        RTableElement element = RTableSelect(call.kv(), call.self, entries);
        if (call.kernelFailed()) return R{};
        return take(call, element);
    });
}

// The element record of the natives whose value is a Java object: the
// value's handle itself.
inline RTableElement handleElementOf(Call &, ALGEB value) {
    RTableElement element{};
    element.dag = value;
    return element;
}

inline RTableElement handleElement(Call &call) { return handleElementOf(call, call.args[0]); }

// A kernel operation that makes a new table from a table and its settings.
using TableCopy = ALGEB (*)(KernelVector, RTableSettings *, ALGEB);

// The copies: one lock pass reads the table's settings, hands them to
// `copy` unchanged and wraps the new table, as an object of `peer` when it
// is not Algebraic, else of the class its kind selects.
inline jobject copyTable(JNIEnv *env, jobject table, TableCopy copy, Peer peer = kAlgebraic) {
    return valueOp<jobject>(env, table, kTableCopy, {}, [&](Call &call) -> jobject {
        RTableSettings settings{};
        RTableGetSettings(call.kv(), &settings, call.self);
        if (call.pending()) return nullptr;
        ALGEB made = copy(call.kv(), &settings, call.self);
        return peer != kAlgebraic ? call.peer(made, peer) : call.wrap(made);
    });
}

}  // namespace ambrix

#endif
