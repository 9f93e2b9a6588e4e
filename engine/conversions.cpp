// The natives of Conversions, behind Engine.toKernel, Algebraic.toJava and
// Engine.call: the values no Engine factory makes (NULL, true and false),
// lists of numbers made in one call, and the numbers of a list or sequence
// read back as one Java array.
#include <climits>

#include "arrays.h"
#include "bulk.h"

using ambrix::Call;
using ambrix::JavaArray;
using ambrix::kBulkChunk;

namespace {

// Runs `make(call)` under the lock and wraps its value as the class its
// kind selects before the lock is released.
template <typename Make>
jobject made(JNIEnv *env, jobject engine, Make &&make) {
    return ambrix::engineMethod<jobject>(
        env, engine, [&](Call &call) { return call.inLock([&] { return call.wrap(make(call)); }); });
}

// A new list of the elements of a Java array of numbers, made and filled in
// one pass; `make(kv, x)` makes the kernel number for one entry. The array
// is read in chunks on the stack.
template <typename J, typename Make>
jobject numberList(JNIEnv *env, jobject engine, typename JavaArray<J>::Array values, Make &&make) {
    return ambrix::engineMethod<jobject>(env, engine, [&](Call &call) -> jobject {
        if (values == nullptr) return ambrix::fail(env, "Array is NULL"), nullptr;
        jsize length = env->GetArrayLength(values);
        return call.inLock([&] {
            J chunk[kBulkChunk];
            return ambrix::newListOf(call, length, [&](jsize i) {
                jsize k = i % kBulkChunk;
                if (k == 0) JavaArray<J>::get(env, values, i, length - i < kBulkChunk ? length - i : kBulkChunk, chunk);
                return make(call.kv(), chunk[k]);
            });
        });
    });
}

// The elements of a list or sequence as a new Java array when `fits` holds
// for each, with `read` giving each entry; null without an exception when
// one does not fit.
template <typename J, typename Fits, typename Read>
jobject numbersOf(Call &call, ALGEB (*select)(KernelVector, ALGEB, int64_t), jsize length, Fits &&fits,
                  Read &&read) {
    JNIEnv *env = call.env;
    KernelVector kv = call.kv();
    typename JavaArray<J>::Array array = JavaArray<J>::make(env, length);
    if (array == nullptr) return nullptr;
    J chunk[kBulkChunk];
    for (jsize at = 0; at < length; at += kBulkChunk) {
        jsize n = length - at < kBulkChunk ? length - at : kBulkChunk;
        for (jsize k = 0; k < n; k++) {
            ALGEB element = select(kv, call.self, int64_t(at) + k + 1);
            bool fit = !call.kernelFailed() && fits(kv, element);
            if (fit) chunk[k] = read(kv, element);
            if (!fit || call.kernelFailed()) {
                env->DeleteLocalRef(array);
                return nullptr;
            }
        }
        JavaArray<J>::set(env, array, at, n, chunk);
    }
    return array;
}

int isLong(KernelVector kv, ALGEB a) { return IsVexelInteger64(kv, a); }

// A real number other than an integer: a rational or a float.
int isFraction(KernelVector kv, ALGEB a) { return IsVexelNumeric(kv, a) && !IsVexelInteger(kv, a); }

}  // namespace

extern "C" {

JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Conversions_newNull(JNIEnv *env, jclass, jobject engine) {
    return made(env, engine, [](Call &call) { return ToVexelNULL(call.kv()); });
}

JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Conversions_newBoolean(JNIEnv *env, jclass, jobject engine,
                                                                         jboolean value) {
    return made(env, engine, [=](Call &call) { return ToVexelBoolean(call.kv(), value ? 1 : 0); });
}

JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Conversions_newIntegerList(JNIEnv *env, jclass, jobject engine,
                                                                             jlongArray values) {
    return numberList<jlong>(env, engine, values, ToVexelInteger64);
}

JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Conversions_newFloatList(JNIEnv *env, jclass, jobject engine,
                                                                           jdoubleArray values) {
    return numberList<jdouble>(env, engine, values, ToVexelFloat);
}

JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Conversions_numbersOf(JNIEnv *env, jclass, jobject sequence) {
    constexpr ambrix::Messages kSequence{"Algebraic is NULL", "CallBackFrontEnd is NULL"};
    return ambrix::valueOp<jobject>(env, sequence, kSequence, {}, [&](Call &call) -> jobject {
        KernelVector kv = call.kv();
        int list = IsVexelList(kv, call.self);
        int64_t length = call.pending() ? 0 : VexelNumArgs(kv, call.self);
        if (call.pending() || length < 1 || length > INT_MAX) return nullptr;
        auto select = list ? VexelListSelect : VexelExpseqSelect;
        ALGEB first = select(kv, call.self, 1);
        if (call.pending()) return nullptr;
        auto n = static_cast<jsize>(length);
        if (isLong(kv, first)) return numbersOf<jlong>(call, select, n, isLong, VexelToInteger64);
        if (!call.pending() && isFraction(kv, first))
            return numbersOf<jdouble>(call, select, n, isFraction, VexelToFloat64);
        return nullptr;
    });
}

JNIEXPORT jint JNICALL Java_com_quorbit_ambrix_Conversions_truthOf(JNIEnv *env, jclass, jobject name) {
    constexpr ambrix::Messages kName{"Name is NULL", "Kernel Vector is NULL"};
    return ambrix::valueOp<jint>(env, name, kName, {}, [&](Call &call) -> jint {
        if (call.self == ToVexelBoolean(call.kv(), 1)) return 1;
        return call.self == ToVexelBoolean(call.kv(), 0) ? 0 : -1;
    });
}

}  // extern "C"
