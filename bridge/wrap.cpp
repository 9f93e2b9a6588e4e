// Wrapping kernel values as Java objects of the class that fits their kind.
#include "bridge.h"

namespace {

struct KindClass {
    int (*test)(KernelVector, ALGEB);
    const char *className;
};

// In the order the tests are made: the first that holds decides.
const KindClass kKinds[] = {
    {IsVexelNumeric, "com/quorbit/ambrix/Numeric"},
    {IsVexelComplexNumeric, "com/quorbit/ambrix/ComplexNumeric"},
    {IsVexelName, "com/quorbit/ambrix/Name"},
    {IsVexelTable, "com/quorbit/ambrix/Table"},
    {IsVexelList, "com/quorbit/ambrix/List"},
    {IsVexelProcedure, "com/quorbit/ambrix/Procedure"},
    {IsVexelExpressionSequence, "com/quorbit/ambrix/Expseq"},
    {IsVexelString, "com/quorbit/ambrix/VString"},
};

// Table classes by data-type code; code 0 is decided by the element type.
const char *const kRTableClasses[] = {
    nullptr,
    "com/quorbit/ambrix/ComplexNumericRTable",
    "com/quorbit/ambrix/ByteRTable",
    "com/quorbit/ambrix/ShortRTable",
    "com/quorbit/ambrix/IntRTable",
    "com/quorbit/ambrix/LongRTable",
    "com/quorbit/ambrix/DoubleRTable",
    "com/quorbit/ambrix/ComplexDoubleRTable",
    "com/quorbit/ambrix/FloatRTable",
};

// The class for a rectangular table, or null with an exception pending.
const char *rtableClass(JNIEnv *env, KernelVector kv, ALGEB handle) {
    RTableSettings settings{};
    RTableGetSettings(kv, &settings, handle);
    if (env->ExceptionCheck()) return nullptr;
    int32_t code = settings.data_type;
    if (code == RTABLE_DAG) {
        ALGEB sfloat = ToVexelName(kv, "sfloat", 1);
        if (env->ExceptionCheck()) return nullptr;
        return settings.element_type == sfloat ? "com/quorbit/ambrix/NumericRTable"
                                               : "com/quorbit/ambrix/AlgebraicRTable";
    }
    if (code > 0 && code <= RTABLE_FLOAT32) return kRTableClasses[code];
    return "com/quorbit/ambrix/RTable";
}

}  // namespace

extern "C" {

jobject newAlgebraic(JNIEnv *env, ALGEB handle, CallBackFrontEnd *frontEnd) {
    if (handle == nullptr || env->ExceptionCheck()) return nullptr;
    KernelVector kv = frontEnd->kernelVector;
    for (const KindClass &kind : kKinds) {
        int holds = kind.test(kv, handle);
        if (env->ExceptionCheck()) return nullptr;
        if (holds) return newPeerObject(env, handle, frontEnd, kind.className);
    }
    int isRTable = IsVexelRTable(kv, handle);
    if (env->ExceptionCheck()) return nullptr;
    const char *className = "com/quorbit/ambrix/Algebraic";
    if (isRTable) {
        className = rtableClass(env, kv, handle);
        if (className == nullptr) return nullptr;
    }
    return newPeerObject(env, handle, frontEnd, className);
}

jobject newPeerObject(JNIEnv *env, ALGEB handle, CallBackFrontEnd *frontEnd, const char *className) {
    if (handle == nullptr || env->ExceptionCheck()) return nullptr;
    jclass cls = env->FindClass(className);
    if (cls == nullptr) return nullptr;
    jobject object = nullptr;
    jmethodID init = env->GetMethodID(cls, "<init>", "(JJ)V");
    if (init != nullptr)
        object = env->NewObject(cls, init, reinterpret_cast<jlong>(handle), reinterpret_cast<jlong>(frontEnd));
    env->DeleteLocalRef(cls);
    return object;
}

}  // extern "C"
