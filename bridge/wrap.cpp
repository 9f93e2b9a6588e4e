// Wrapping kernel values as Java objects of the class that fits their kind.
#include <cstring>

#include "frame.h"

using ambrix::Peer;

namespace {

struct KindClass {
    int (*test)(KernelVector, ALGEB);
    Peer peer;
};

// In the order the tests are made: the first that holds decides.
const KindClass kKinds[] = {
    {IsVexelNumeric, ambrix::kNumeric},
    {IsVexelComplexNumeric, ambrix::kComplexNumeric},
    {IsVexelName, ambrix::kName},
    {IsVexelTable, ambrix::kTable},
    {IsVexelList, ambrix::kList},
    {IsVexelProcedure, ambrix::kProcedure},
    {IsVexelExpressionSequence, ambrix::kExpseq},
    {IsVexelString, ambrix::kVString},
};

// Table classes by data-type code; code 0 is decided by the element type.
const Peer kRTableClasses[] = {
    ambrix::kAlgebraicRTable, ambrix::kComplexNumericRTable, ambrix::kByteRTable,
    ambrix::kShortRTable,     ambrix::kIntRTable,            ambrix::kLongRTable,
    ambrix::kDoubleRTable,    ambrix::kComplexDoubleRTable,  ambrix::kFloatRTable,
};

// The class for a rectangular table; false with an exception pending.
bool rtableClass(JNIEnv *env, KernelVector kv, ALGEB handle, Peer &peer) {
    RTableSettings settings{};
    RTableGetSettings(kv, &settings, handle);
    if (env->ExceptionCheck()) return false;
    int32_t code = settings.data_type;
    if (code == RTABLE_DAG) {
        ALGEB sfloat = ToVexelName(kv, "sfloat", 1);
        if (env->ExceptionCheck()) return false;
        peer = settings.element_type == sfloat ? ambrix::kNumericRTable : ambrix::kAlgebraicRTable;
    } else {
        peer = code > 0 && code <= RTABLE_FLOAT32 ? kRTableClasses[code] : ambrix::kRTable;
    }
    return true;
}

// Before the first start there are no lookups: the class is found by name.
jobject newByName(JNIEnv *env, ALGEB handle, CallBackFrontEnd *frontEnd, const char *className) {
    jclass cls = env->FindClass(className);
    if (cls == nullptr) return nullptr;
    jobject object = nullptr;
    jmethodID init = env->GetMethodID(cls, "<init>", "(JJ)V");
    if (init != nullptr)
        object = env->NewObject(cls, init, reinterpret_cast<jlong>(handle), reinterpret_cast<jlong>(frontEnd));
    env->DeleteLocalRef(cls);
    return object;
}

}  // namespace

namespace ambrix {

jobject newPeer(JNIEnv *env, ALGEB handle, CallBackFrontEnd *frontEnd, Peer peer, bool checked) {
    if (handle == nullptr || (!checked && env->ExceptionCheck())) return nullptr;
    if (!lookupsReady()) return newByName(env, handle, frontEnd, peerClassName(peer));
    return env->NewObject(lookups.peers[peer], lookups.peerInit[peer], reinterpret_cast<jlong>(handle),
                          reinterpret_cast<jlong>(frontEnd));
}

}  // namespace ambrix

extern "C" {

jobject newAlgebraic(JNIEnv *env, ALGEB handle, CallBackFrontEnd *frontEnd) {
    return ambrix::wrapValue(env, handle, frontEnd, false);
}

jobject newPeerObject(JNIEnv *env, ALGEB handle, CallBackFrontEnd *frontEnd, const char *className) {
    if (handle == nullptr || env->ExceptionCheck()) return nullptr;
    for (int p = 0; p < ambrix::kPeerCount; p++)
        if (strcmp(className, ambrix::peerClassName(Peer(p))) == 0)
            return ambrix::newPeer(env, handle, frontEnd, Peer(p));
    return newByName(env, handle, frontEnd, className);
}

}  // extern "C"

namespace ambrix {

jobject wrapValue(JNIEnv *env, ALGEB handle, CallBackFrontEnd *frontEnd, bool checked) {
    if (handle == nullptr || (!checked && env->ExceptionCheck())) return nullptr;
    KernelVector kv = frontEnd->kernelVector;
    // A kind test reports a failure only through a callback into Java: the
    // VM is asked only when one was entered.
    uint64_t entries = ambrix::javaEntries.load(std::memory_order_relaxed);
    auto failed = [&] {
        return ambrix::javaEntries.load(std::memory_order_relaxed) != entries && env->ExceptionCheck();
    };
    for (const KindClass &kind : kKinds) {
        int holds = kind.test(kv, handle);
        if (failed()) return nullptr;
        if (holds) return ambrix::newPeer(env, handle, frontEnd, kind.peer, true);
    }
    int isRTable = IsVexelRTable(kv, handle);
    if (failed()) return nullptr;
    Peer peer = ambrix::kAlgebraic;
    if (isRTable && !rtableClass(env, kv, handle, peer)) return nullptr;
    return ambrix::newPeer(env, handle, frontEnd, peer, true);
}

}  // namespace ambrix
