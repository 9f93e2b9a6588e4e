// The Java-side contract: the handle fields `dag` and `kernelID`, and the
// one exception class through which every failure reaches Java.
#include "bridge.h"

namespace {

// Looks up a long field on the object's run-time class; 0 with the JVM's
// exception pending when the class has no such field.
jfieldID longField(JNIEnv *env, jobject object, const char *name) {
    jclass cls = env->GetObjectClass(object);
    if (cls == nullptr) return nullptr;
    jfieldID field = env->GetFieldID(cls, name, "J");
    env->DeleteLocalRef(cls);
    return env->ExceptionCheck() ? nullptr : field;
}

}  // namespace

extern "C" {

ALGEB getDag(JNIEnv *env, jobject object) {
    if (object == nullptr) return nullptr;
    jfieldID field = longField(env, object, "dag");
    if (field == nullptr) return nullptr;
    jlong dag = env->GetLongField(object, field);
    if (dag == 0) ThrowVexelException(env, "this Algebraic has been disposed");
    return reinterpret_cast<ALGEB>(dag);
}

CallBackFrontEnd *getCallBackFrontEnd(JNIEnv *env, jobject object) {
    if (object == nullptr) return nullptr;
    jfieldID field = longField(env, object, "kernelID");
    if (field == nullptr) return nullptr;
    jlong id = env->GetLongField(object, field);
    if (env->ExceptionCheck()) return nullptr;
    return reinterpret_cast<CallBackFrontEnd *>(id);
}

void zeroCallBackFrontEnd(JNIEnv *env, jobject object) {
    jfieldID field = longField(env, object, "kernelID");
    if (field == nullptr) return;
    env->SetLongField(object, field, 0);
}

void ThrowVexelException(JNIEnv *env, const char *message) {
    // A pending exception stands: it is what Java sees.
    if (env->ExceptionCheck()) return;
    jclass cls = env->FindClass("com/quorbit/externalcall/VexelException");
    if (cls == nullptr) return;
    env->ThrowNew(cls, message);
    env->DeleteLocalRef(cls);
}

}  // extern "C"
