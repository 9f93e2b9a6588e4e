// The per-engine record: the callbacks object, the user data, the eight
// callback method IDs (looked up once), and the kernel lock's monitor.
#include <cstdlib>

#include "bridge.h"
#include "record.h"
#include "text.h"

namespace {

struct CallBackMethod {
    jmethodID CallBackFrontEnd::*field;
    const char *name;
    const char *signature;
};

// In lookup order, which is not the kernel's slot order.
const CallBackMethod kMethods[] = {
    {&CallBackFrontEnd::textCallBackID, "textCallBack", "(Ljava/lang/Object;ILjava/lang/String;)V"},
    {&CallBackFrontEnd::errorCallBackID, "errorCallBack", "(Ljava/lang/Object;ILjava/lang/String;)V"},
    {&CallBackFrontEnd::statusCallBackID, "statusCallBack", "(Ljava/lang/Object;JJD)V"},
    {&CallBackFrontEnd::readLineCallBackID, "readLineCallBack", "(Ljava/lang/Object;Z)Ljava/lang/String;"},
    {&CallBackFrontEnd::redirectCallBackID, "redirectCallBack", "(Ljava/lang/Object;Ljava/lang/String;Z)Z"},
    {&CallBackFrontEnd::callBackCallBackID, "callBackCallBack",
     "(Ljava/lang/Object;Ljava/lang/String;)Ljava/lang/String;"},
    {&CallBackFrontEnd::queryInterruptID, "queryInterrupt", "(Ljava/lang/Object;)Z"},
    {&CallBackFrontEnd::streamCallBackID, "streamCallBack",
     "(Ljava/lang/Object;Ljava/lang/String;[Ljava/lang/String;)Ljava/lang/String;"},
};

}  // namespace

extern "C" {

CallBackFrontEnd *NewCallBackFrontEnd(JNIEnv *env, jobject callBackObject, jobject userData) {
    if (callBackObject == nullptr) {
        ThrowVexelException(env, "CallBacks is NULL");
        return nullptr;
    }
    CallBackFrontEnd *record = ambrix::allocateFrontEnd();
    if (record == nullptr) {
        ambrix::throwOutOfMemory(env, "Failed to allocate CallBackFrontEnd");
        return nullptr;
    }
    record->env = env;
    record->callBackObject = env->NewGlobalRef(callBackObject);
    record->userData = userData == nullptr ? nullptr : env->NewGlobalRef(userData);
    jclass cls = env->GetObjectClass(callBackObject);
    for (const CallBackMethod &method : kMethods) {
        record->*method.field = env->GetMethodID(cls, method.name, method.signature);
        if (env->ExceptionCheck()) break;
    }
    env->DeleteLocalRef(cls);
    if (env->ExceptionCheck()) {
        DeleteCallBackFrontEnd(record);
        return nullptr;
    }
    return record;
}

void DeleteCallBackFrontEnd(CallBackFrontEnd *record) {
    JNIEnv *env = record->env;
    env->DeleteGlobalRef(record->callBackObject);
    if (record->userData != nullptr) env->DeleteGlobalRef(record->userData);
    free(record);
}

}  // extern "C"
