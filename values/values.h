// Shared by the value-class natives: kernel text as Java strings, and the
// shapes of value method that several classes have, built on the frame of
// bridge/frame.h. A native states its messages and its kernel operation.
#ifndef AMBRIX_VALUES_H
#define AMBRIX_VALUES_H

#include <climits>
#include <type_traits>

#include "arrays.h"

namespace ambrix {

// Kernel text as a Java string (NewString): each byte becomes the code unit
// of the same value, 0 to 255. The caller holds the kernel lock, so that the
// text cannot be reclaimed before it is copied; the 16-bit buffer is the
// library's own. Null for null text; null with an OutOfMemoryError pending
// when there is no memory for it.
jstring toJavaString(JNIEnv *env, const char *text);

// A value method whose whole work is one kernel operation on the receiver.
// The kernel's answer goes to Java as a boolean (any nonzero answer is
// true), as a wrapper made in the same bracket (a kernel value), or as a
// number of the Java type's width.
template <typename J, typename K>
J ofReceiver(JNIEnv *env, jobject self, Messages messages, K (*operation)(KernelVector, ALGEB)) {
    return valueOp<J>(env, self, messages, {}, [&](Call &call) -> J {
        K answer = operation(call.kv(), call.self);
        if constexpr (std::is_same_v<J, jboolean>)
            return answer != 0;
        else if constexpr (std::is_same_v<K, ALGEB>)
            return call.wrap(answer);
        else
            return static_cast<J>(answer);
    });
}

// Lists and expression sequences: the Java index goes to the kernel
// unchanged (the first element is 1), and is not checked here.
inline void assignAt(JNIEnv *env, jobject self, Messages messages, jint index, jobject value,
                     void (*assign)(KernelVector, ALGEB, int64_t, ALGEB)) {
    valueOp<void>(env, self, messages, {{value, "Value is NULL"}},
                  [&](Call &call) { assign(call.kv(), call.self, index, call.args[0]); });
}

inline jobject selectAt(JNIEnv *env, jobject self, Messages messages, jint index,
                        ALGEB (*select)(KernelVector, ALGEB, int64_t)) {
    return valueOp<jobject>(env, self, messages, {},
                            [&](Call &call) { return call.wrap(select(call.kv(), call.self, index)); });
}

// Every element in one pass, each wrapped as the class its kind selects.
inline jobjectArray allElements(JNIEnv *env, jobject self, Messages messages,
                                ALGEB (*select)(KernelVector, ALGEB, int64_t)) {
    return valueOp<jobjectArray>(env, self, messages, {}, [&](Call &call) -> jobjectArray {
        int64_t length = VexelNumArgs(call.kv(), call.self);
        if (call.pending()) return nullptr;
        if (length < 0 || length > INT_MAX) return fail(env, "Table too large for a Java array"), nullptr;
        return wrappedArray(
            call, static_cast<jsize>(length), [&](jsize i) { return select(call.kv(), call.self, i + 1); },
            [&](ALGEB value) { return call.wrap(value); });
    });
}

}  // namespace ambrix

// The natives that are nothing but ofReceiver: each line that uses this
// names the class, the method, its Java result, its messages and the
// kernel operation, and defines Java_com_quorbit_ambrix_<Class>_<method>.
#define AMBRIX_RECEIVER_NATIVE(Class, method, JType, messages, operation)                                      \
    extern "C" JNIEXPORT JType JNICALL Java_com_quorbit_ambrix_##Class##_##method(JNIEnv *env, jobject self) { \
        return ambrix::ofReceiver<JType>(env, self, messages, operation);                                      \
    }

// The four natives of List and of Expseq, which differ only in their
// messages and kernel operations: assign(int, Algebraic), select(int),
// length() and toArray(). The front end's message is "CallBackFrontEnd is NULL" where an
// element is read, "Kernel Vector is NULL" elsewhere.
#define AMBRIX_SEQUENCE_NATIVES(Class, selfMessage, assignOperation, selectOperation)                                 \
    extern "C" JNIEXPORT void JNICALL Java_com_quorbit_ambrix_##Class##_assign(JNIEnv *env, jobject self, jint index, \
                                                                               jobject value) {                       \
        ambrix::assignAt(env, self, {selfMessage, "Kernel Vector is NULL"}, index, value, assignOperation);           \
    }                                                                                                                 \
    extern "C" JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_##Class##_select(JNIEnv *env, jobject self,          \
                                                                                  jint index) {                       \
        return ambrix::selectAt(env, self, {selfMessage, "CallBackFrontEnd is NULL"}, index, selectOperation);        \
    }                                                                                                                 \
    extern "C" JNIEXPORT jobjectArray JNICALL Java_com_quorbit_ambrix_##Class##_toArray(JNIEnv *env, jobject self) { \
        return ambrix::allElements(env, self, {selfMessage, "CallBackFrontEnd is NULL"}, selectOperation);            \
    }                                                                                                                 \
    AMBRIX_RECEIVER_NATIVE(Class, length, jint, (ambrix::Messages{selfMessage, "Kernel Vector is NULL"}), VexelNumArgs)

#endif
