// The natives of Procedure: calling a kernel procedure on an expression
// sequence, on an array of values, or numerically on an array of doubles.
// The procedure's handle and the engine come first; the arguments after.
#include <cstdlib>

#include "text.h"
#include "values.h"

using ambrix::Call;

namespace {

constexpr ambrix::Messages kProcedure{"Procedure is NULL", "CallBackFrontEnd is NULL"};

// One bracket: `arguments` makes the argument sequence, the procedure runs
// on it, and its result is wrapped, all before the lock is released.
template <typename Arguments>
jobject callProcedure(Call &call, Arguments &&arguments) {
    return call.inLock([&]() -> jobject {
        ALGEB sequence = arguments(call.kv());
        return call.pending() ? nullptr : call.wrap(EvalVexelProcedure(call.kv(), call.self, sequence));
    });
}

// The handles of the array's elements, read before the lock is taken, in a
// block of the C heap that the caller frees. False with an exception
// pending; a null or empty array gives no elements and no block.
bool readHandles(JNIEnv *env, jobjectArray array, ALGEB **handles, jsize *count) {
    *handles = nullptr;
    *count = array == nullptr ? 0 : env->GetArrayLength(array);
    if (*count == 0) return true;
    *handles = static_cast<ALGEB *>(calloc(static_cast<size_t>(*count), sizeof(ALGEB)));
    if (*handles == nullptr) return ambrix::throwOutOfMemory(env, "Failed to allocate the arguments"), false;
    for (jsize i = 0; i < *count; i++) {
        jobject element = env->GetObjectArrayElement(array, i);
        if (env->ExceptionCheck()) return false;
        bool read = ambrix::readDag(env, element, "Argument is NULL", (*handles)[i]);
        env->DeleteLocalRef(element);
        if (!read) return false;
    }
    return true;
}

}  // namespace

extern "C" {

// A null sequence calls the procedure with no arguments.
JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Procedure_execute__Lcom_quorbit_ambrix_Expseq_2(JNIEnv *env,
                                                                                                  jobject self,
                                                                                                  jobject args) {
    return ambrix::valueMethod<jobject>(env, self, kProcedure, {}, [&](Call &call) -> jobject {
        ALGEB sequence = nullptr;
        if (args != nullptr && !ambrix::readDag(env, args, "Args is NULL", sequence)) return nullptr;
        return callProcedure(call, [&](KernelVector kv) { return args == nullptr ? ToVexelNULL(kv) : sequence; });
    });
}

// Java element i is kernel element i + 1. The sequence is built and used in
// one bracket, so no collection can take it half-built.
JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Procedure_execute___3Lcom_quorbit_ambrix_Algebraic_2(
    JNIEnv *env, jobject self, jobjectArray args) {
    return ambrix::valueMethod<jobject>(env, self, kProcedure, {}, [&](Call &call) -> jobject {
        ALGEB *handles;
        jsize n;
        jobject result = nullptr;
        if (readHandles(env, args, &handles, &n)) {
            result = callProcedure(call, [&](KernelVector kv) -> ALGEB {
                if (n == 0) return ToVexelNULL(kv);
                ALGEB sequence = NewVexelExpressionSequence(kv, n);
                for (jsize i = 0; i < n && !call.pending(); i++)
                    VexelExpseqAssign(kv, sequence, static_cast<int64_t>(i) + 1, handles[i]);
                return sequence;
            });
        }
        free(handles);
        return result;
    });
}

// The kernel reads the n arguments from slots 1 to n of a kernel buffer
// (slot 0 holds 0.0); no arguments means a count of 0 and no buffer. The
// Java doubles are read before the lock; the buffer lives in one bracket
// from its allocation to the evaluation.
JNIEXPORT jdouble JNICALL Java_com_quorbit_ambrix_Procedure_executehf(JNIEnv *env, jobject self, jdoubleArray args) {
    return ambrix::valueMethod<jdouble>(env, self, kProcedure, {}, [&](Call &call) -> jdouble {
        jsize n = args == nullptr ? 0 : env->GetArrayLength(args);
        jdouble *elements = nullptr;
        if (n > 0 && (elements = env->GetDoubleArrayElements(args, nullptr)) == nullptr) return 0.0;
        jdouble result = call.inLock([&]() -> jdouble {
            double *buffer = nullptr;
            if (n > 0) {
                buffer = static_cast<double *>(VexelAlloc(call.kv(), sizeof(double) * (static_cast<size_t>(n) + 1)));
                if (buffer == nullptr || call.pending()) return 0.0;
                buffer[0] = 0.0;
                for (jsize i = 0; i < n; i++) buffer[i + 1] = elements[i];
            }
            return EvalhfVexelProc(call.kv(), call.self, n, buffer);
        });
        if (elements != nullptr) env->ReleaseDoubleArrayElements(args, elements, 0);
        return result;
    });
}

}  // extern "C"
