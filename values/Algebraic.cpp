// The natives of Algebraic, the base class of every kernel value wrapper:
// printing, evaluation, the unique instance, the kind tests and the live
// store entry points. Also the kernel text to Java string conversion.
#include "text.h"
#include "values.h"

using ambrix::Call;
using ambrix::Messages;

namespace {

constexpr const char *kSelf = "Algebraic is NULL";
constexpr Messages kValue{kSelf, "CallBackFrontEnd is NULL"};
constexpr Messages kKind{kSelf, "KernelVector is NULL"};

}  // namespace

namespace ambrix {

jstring toJavaString(JNIEnv *env, const char *text) {
    if (text == nullptr || env->ExceptionCheck()) return nullptr;
    return newJavaString(env, text);
}

}  // namespace ambrix

extern "C" {

// One bracket from the printing to the Java string, so that no collection
// run by another thread can reclaim the text before it is copied.
JNIEXPORT jstring JNICALL Java_com_quorbit_ambrix_Algebraic_toString(JNIEnv *env, jobject self) {
    return ambrix::valueOp<jstring>(env, self, kValue, {}, [](Call &call) -> jstring {
        ALGEB printed = VexelALGEB_SPrintf1(call.kv(), "%a", call.self);
        if (call.pending()) return nullptr;
        const char *text = VexelToString(call.kv(), printed);
        if (call.pending()) return nullptr;
        return ambrix::toJavaString(call.env, text);
    });
}

// The receiver itself when it already is the unique instance; otherwise a
// new wrapper, made in the same bracket.
JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Algebraic_unique(JNIEnv *env, jobject self) {
    return ambrix::valueOp<jobject>(env, self, kValue, {}, [&](Call &call) {
        ALGEB unique = VexelUnique(call.kv(), call.self);
        return unique == call.self ? self : call.wrap(unique);
    });
}

// These two take no lock and read no handle: the live store does it all.
JNIEXPORT void JNICALL Java_com_quorbit_ambrix_Algebraic_addToLiveAlgebStore(JNIEnv *env, jobject self) {
    addToLiveAlgebStore(env, self);
}

JNIEXPORT void JNICALL Java_com_quorbit_ambrix_Algebraic_removeFromLiveAlgebStore(JNIEnv *env, jobject self) {
    removeFromLiveAlgebStore(env, self);
}

}  // extern "C"

// One kernel operation on the receiver each.
AMBRIX_RECEIVER_NATIVE(Algebraic, eval, jobject, kValue, VexelEval)
AMBRIX_RECEIVER_NATIVE(Algebraic, uneval, jobject, kValue, ToVexelUneval)
AMBRIX_RECEIVER_NATIVE(Algebraic, evalhf, jdouble, (Messages{kSelf, "Engine is NULL"}), VexelEvalhf)

AMBRIX_RECEIVER_NATIVE(Algebraic, isNULL, jboolean, kKind, IsVexelNULL)
AMBRIX_RECEIVER_NATIVE(Algebraic, isPointer, jboolean, kKind, IsVexelPointer)
AMBRIX_RECEIVER_NATIVE(Algebraic, isPointerNULL, jboolean, kKind, IsVexelPointerNULL)
AMBRIX_RECEIVER_NATIVE(Algebraic, isSet, jboolean, kKind, IsVexelSet)
AMBRIX_RECEIVER_NATIVE(Algebraic, isStop, jboolean, kKind, IsVexelStop)
