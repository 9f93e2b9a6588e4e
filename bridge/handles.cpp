// The Java-side contract: the handle fields `dag` and `kernelID`, and the
// one exception class through which every failure reaches Java.
#include <cstdio>

#include "frame.h"
#include "lookups.h"
#include "text.h"

namespace {

using ambrix::lookups;

// Looks up a long field on the object's run-time class; 0 with the JVM's
// exception pending when the class has no such field. Serves only before
// the first start has made the lookups.
jfieldID longField(JNIEnv *env, jobject object, const char *name) {
    jclass cls = env->GetObjectClass(object);
    if (cls == nullptr) return nullptr;
    jfieldID field = env->GetFieldID(cls, name, "J");
    env->DeleteLocalRef(cls);
    return env->ExceptionCheck() ? nullptr : field;
}

// The `kernelID` field of the object's class: Algebraic's or Engine's.
jfieldID kernelIDField(JNIEnv *env, jobject object) {
    if (!ambrix::lookupsReady()) return longField(env, object, "kernelID");
    return env->IsInstanceOf(object, lookups.peers[ambrix::kAlgebraic]) ? lookups.valueKernelID
                                                                         : lookups.engineKernelID;
}

CallBackFrontEnd *readFrontEnd(JNIEnv *env, jobject object, jfieldID field) {
    if (field == nullptr) return nullptr;
    return reinterpret_cast<CallBackFrontEnd *>(env->GetLongField(object, field));
}

}  // namespace

namespace ambrix {

bool refuseText(JNIEnv *env, const jchar *chars, jsize at) {
    char message[128];
    snprintf(message, sizeof message,
             "text for the kernel holds U+%04X at position %d; only U+0001 to U+00FF can be sent",
             static_cast<unsigned>(chars[at]), static_cast<int>(at));
    return fail(env, message);
}

CallBackFrontEnd *frontEndOf(JNIEnv *env, jobject object, bool engine) {
    if (object == nullptr) return nullptr;
    if (!lookupsReady()) return getCallBackFrontEnd(env, object);
    return readFrontEnd(env, object, engine ? lookups.engineKernelID : lookups.valueKernelID);
}

}  // namespace ambrix

extern "C" {

ALGEB getDag(JNIEnv *env, jobject object) {
    if (object == nullptr) return nullptr;
    jfieldID field = ambrix::lookupsReady() ? lookups.dag : longField(env, object, "dag");
    if (field == nullptr) return nullptr;
    jlong dag = env->GetLongField(object, field);
    if (dag == 0) ThrowVexelException(env, "this Algebraic has been disposed");
    return reinterpret_cast<ALGEB>(dag);
}

CallBackFrontEnd *getCallBackFrontEnd(JNIEnv *env, jobject object) {
    if (object == nullptr) return nullptr;
    return readFrontEnd(env, object, kernelIDField(env, object));
}

void zeroCallBackFrontEnd(JNIEnv *env, jobject object) {
    jfieldID field = kernelIDField(env, object);
    if (field == nullptr) return;
    env->SetLongField(object, field, 0);
}

void ThrowVexelException(JNIEnv *env, const char *message) {
    // A pending exception stands: it is what Java sees.
    ambrix::throwNew(env, lookups.vexelException, "com/quorbit/externalcall/VexelException", message);
}

}  // extern "C"
