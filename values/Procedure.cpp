// The natives of Procedure: calling a kernel procedure on an expression
// sequence, on an array of values, or numerically on an array of doubles.
// The procedure's handle and the engine come first; the arguments after.
#include <cstdlib>

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

}  // namespace

extern "C" {

// A null sequence calls the procedure with no arguments.
JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Procedure_execute__Lcom_quorbit_ambrix_Expseq_2(JNIEnv *env,
                                                                                                  jobject self,
                                                                                                  jobject args) {
    return ambrix::valueMethod<jobject>(env, self, kProcedure, {}, [&](Call &call) -> jobject {
        return callProcedure(call, [&](KernelVector kv) -> ALGEB {
            ALGEB sequence = nullptr;
            if (args == nullptr) return ToVexelNULL(kv);
            return ambrix::readDag(env, args, "Args is NULL", sequence) ? sequence : nullptr;
        });
    });
}

// Java element i is kernel element i + 1. The handles are read, and the
// sequence built and used, in one bracket, so no collection or restart can
// come between.
JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Procedure_execute___3Lcom_quorbit_ambrix_Algebraic_2(
    JNIEnv *env, jobject self, jobjectArray args) {
    return ambrix::valueMethod<jobject>(env, self, kProcedure, {}, [&](Call &call) -> jobject {
        ambrix::Handles values;
        return callProcedure(call, [&](KernelVector kv) -> ALGEB {
            if (!values.read(env, args, true)) return nullptr;
            if (values.length == 0) return ToVexelNULL(kv);
            ALGEB sequence = NewVexelExpressionSequence(kv, values.length);
            for (jsize i = 0; i < values.length && !call.pending(); i++)
                VexelExpseqAssign(kv, sequence, static_cast<int64_t>(i) + 1, values.handles[i]);
            return sequence;
        });
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
        // The doubles were only read: nothing goes back into the Java array.
        if (elements != nullptr) env->ReleaseDoubleArrayElements(args, elements, JNI_ABORT);
        return result;
    });
}

}  // extern "C"
