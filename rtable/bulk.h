// The bulk frame of the rectangular-table natives: a whole table to or from
// a Java array in one native call and one lock pass. Elements go in
// column-major order, the first index varying fastest, whatever the bounds.
//
// Tables of hardware data types are copied straight from or into the
// kernel's own storage when the kernel lays it out (its optional
// VexelRTableData); otherwise, and for tables of kernel values, the pass
// walks every index with RTableSelect or RTableAssign. Java arrays are read
// and written in chunks on the stack, so memory use does not grow with the
// table.
#ifndef AMBRIX_BULK_H
#define AMBRIX_BULK_H

#include <climits>

#include "arrays.h"
#include "element.h"

namespace ambrix {

// Elements moved between a Java array and the kernel per chunk.
constexpr jsize kBulkChunk = 256;

// Every index of a table, column-major, in a kernel index block made in the
// pass that uses it (as element access makes its own).
struct IndexWalk {
    int64_t dimensions;
    int64_t lower[RTABLE_MAX_DIMENSIONS];
    int64_t upper[RTABLE_MAX_DIMENSIONS];
    int64_t *index;

    // Sets the walk on the table's first index; false with an exception pending.
    bool start(Call &call) {
        dimensions = RTableNumDimensions(call.kv(), call.self);
        if (call.pending()) return false;
        if (dimensions < 1 || dimensions > RTABLE_MAX_DIMENSIONS)
            return fail(call.env, "Index count does not match the table's dimensions");
        for (int64_t d = 0; d < dimensions; d++) {
            lower[d] = RTableLowerBound(call.kv(), call.self, d + 1);
            upper[d] = RTableUpperBound(call.kv(), call.self, d + 1);
        }
        if (call.pending()) return false;
        index = static_cast<int64_t *>(VexelAlloc(call.kv(), sizeof(int64_t) * static_cast<size_t>(dimensions)));
        if (call.pending()) return false;
        if (index == nullptr) return fail(call.env, "Out of Memory");
        for (int64_t d = 0; d < dimensions; d++) index[d] = lower[d];
        return true;
    }

    void next() {
        for (int64_t d = 0; d < dimensions; d++) {
            if (++index[d] <= upper[d]) return;
            index[d] = lower[d];
        }
    }
};

// The number of Java array entries the table takes, `scale` per element;
// false with an exception pending when the kernel fails or the table does
// not fit a Java array.
inline bool bulkLength(Call &call, int scale, jsize &length) {
    int64_t count = RTableNumElements(call.kv(), call.self);
    if (call.pending()) return false;
    if (count < 0 || count > INT_MAX / scale) return fail(call.env, "Table too large for a Java array");
    length = static_cast<jsize>(count * scale);
    return true;
}

// The Java array given to assignAll: its length must be the table's.
inline bool matchingLength(Call &call, jarray values, int scale, jsize &length) {
    int64_t count = RTableNumElements(call.kv(), call.self);
    if (call.pending()) return false;
    length = call.env->GetArrayLength(values);
    if (count < 0 || count > INT_MAX || length != count * scale)
        return fail(call.env, "Array length does not match the table's size");
    return true;
}

// The kernel's storage of a table of data type `code`; null when the kernel
// has no VexelRTableData, gives none, or the table is of another type (the
// element walk then serves). Check call.pending() after it.
inline void *tableStorage(Call &call, int32_t code) {
    if (lookups.rtableData == nullptr) return nullptr;
    RTableSettings settings{};
    RTableGetSettings(call.kv(), &settings, call.self);
    if (call.pending() || settings.data_type != code) return nullptr;
    return lookups.rtableData(call.kv(), call.self);
}

// The JNI calls of each primitive array type.
template <typename J>
struct JavaArray;

#define AMBRIX_JAVA_ARRAY(J, Name)                                                                                \
    template <>                                                                                                   \
    struct JavaArray<J> {                                                                                         \
        using Array = J##Array;                                                                                   \
        static Array make(JNIEnv *env, jsize n) { return env->New##Name##Array(n); }                              \
        static void get(JNIEnv *env, Array a, jsize at, jsize n, J *to) { env->Get##Name##ArrayRegion(a, at, n, to); } \
        static void set(JNIEnv *env, Array a, jsize at, jsize n, const J *from) {                                 \
            env->Set##Name##ArrayRegion(a, at, n, from);                                                          \
        }                                                                                                         \
    };

AMBRIX_JAVA_ARRAY(jdouble, Double)
AMBRIX_JAVA_ARRAY(jfloat, Float)
AMBRIX_JAVA_ARRAY(jlong, Long)
AMBRIX_JAVA_ARRAY(jint, Int)
AMBRIX_JAVA_ARRAY(jshort, Short)
AMBRIX_JAVA_ARRAY(jbyte, Byte)
#undef AMBRIX_JAVA_ARRAY

// How a table of Java primitives stores its elements: the kernel data type,
// the Java entries per element, and the element record's parts.
template <typename J, int32_t Code, int Scale>
struct PrimitiveLayout {
    using Element = J;
    static constexpr int32_t code = Code;
    static constexpr int scale = Scale;
};

// A whole table of primitives as a new Java array. `read(element, out)`
// writes the Scale entries of one element.
template <typename Layout, typename Read>
typename JavaArray<typename Layout::Element>::Array primitiveToArray(JNIEnv *env, jobject table, Read &&read) {
    using J = typename Layout::Element;
    using A = JavaArray<J>;
    return valueOp<typename A::Array>(env, table, kTableQuery, {}, [&](Call &call) -> typename A::Array {
        jsize length = 0;
        if (!bulkLength(call, Layout::scale, length)) return nullptr;
        typename A::Array array = A::make(env, length);
        if (array == nullptr) return nullptr;
        void *storage = tableStorage(call, Layout::code);
        if (call.pending()) return nullptr;
        if (storage != nullptr) {
            A::set(env, array, 0, length, static_cast<const J *>(storage));
            return array;
        }
        IndexWalk walk;
        if (length > 0 && !walk.start(call)) return nullptr;
        J chunk[kBulkChunk * Layout::scale];
        for (jsize at = 0; at < length;) {
            jsize n = 0;
            for (; n < kBulkChunk * Layout::scale && at + n < length; n += Layout::scale, walk.next()) {
                RTableElement element = RTableSelect(call.kv(), call.self, walk.index);
                if (call.kernelFailed()) return nullptr;
                read(element, chunk + n);
            }
            A::set(env, array, at, n, chunk);
            at += n;
        }
        return array;
    });
}

// A whole table of primitives from a Java array, in one pass; nothing is
// written when the array is null or its length is not the table's.
// `make(in)` builds one element from its Scale entries.
template <typename Layout, typename Make>
void primitiveAssignAll(JNIEnv *env, jobject table, typename JavaArray<typename Layout::Element>::Array values,
                        Make &&make) {
    using J = typename Layout::Element;
    using A = JavaArray<J>;
    valueOp<void>(env, table, kTableQuery, {}, [&](Call &call) {
        if (values == nullptr) return (void)fail(env, "Array is NULL");
        jsize length = 0;
        if (!matchingLength(call, values, Layout::scale, length)) return;
        void *storage = tableStorage(call, Layout::code);
        if (call.pending()) return;
        if (storage != nullptr) return A::get(env, values, 0, length, static_cast<J *>(storage));
        IndexWalk walk;
        if (length > 0 && !walk.start(call)) return;
        J chunk[kBulkChunk * Layout::scale];
        for (jsize at = 0; at < length;) {
            jsize n = length - at < kBulkChunk * Layout::scale ? length - at : kBulkChunk * Layout::scale;
            A::get(env, values, at, n, chunk);
            for (jsize k = 0; k < n; k += Layout::scale, walk.next()) {
                RTableAssign(call.kv(), call.self, walk.index, make(chunk + k));
                if (call.kernelFailed()) return;
            }
            at += n;
        }
    });
}

// A whole table of kernel values as a new Algebraic[]: `take(call, element)`
// turns each element into the value to wrap, `wrap` wraps it.
template <typename Take, typename Wrap>
jobjectArray valuesToArray(JNIEnv *env, jobject table, Take &&take, Wrap &&wrap) {
    return valueOp<jobjectArray>(env, table, kTableQuery, {}, [&](Call &call) -> jobjectArray {
        jsize length = 0;
        if (!bulkLength(call, 1, length)) return nullptr;
        IndexWalk walk;
        if (length > 0 && !walk.start(call)) return nullptr;
        return wrappedArray(
            call, length,
            [&](jsize i) {
                if (i > 0) walk.next();
                RTableElement element = RTableSelect(call.kv(), call.self, walk.index);
                return call.kernelFailed() ? nullptr : take(call, element);
            },
            [&](ALGEB value) { return wrap(call, value); });
    });
}

// A whole table of kernel values from an Algebraic[]: in one pass the
// handles are read, then `make(call, handle)` builds every element, so that
// a value the kernel refuses stops the call before anything is written, then
// the elements are assigned in order.
template <typename Make>
void valuesAssignAll(JNIEnv *env, jobject table, jobjectArray values, Make &&make) {
    valueMethod<void>(env, table, kTableQuery, {}, [&](Call &call) {
        Handles handles;
        RTableElement *elements = nullptr;
        call.locked([&] {
            if (!handles.read(env, values)) return;
            elements =
                static_cast<RTableElement *>(malloc(sizeof(RTableElement) * static_cast<size_t>(handles.length + 1)));
            if (elements == nullptr) return (void)fail(env, "Out of Memory");
            jsize length = 0;
            if (!matchingLength(call, values, 1, length)) return;
            for (jsize i = 0; i < length && !call.kernelFailed(); i++) elements[i] = make(call, handles.handles[i]);
            IndexWalk walk;
            if (call.pending() || (length > 0 && !walk.start(call))) return;
            for (jsize i = 0; i < length && !call.kernelFailed(); i++, walk.next())
                RTableAssign(call.kv(), call.self, walk.index, elements[i]);
        });
        free(elements);
    });
}

}  // namespace ambrix

#endif
