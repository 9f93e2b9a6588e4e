// Engine.getHelp: the kernel streams a topic's help text, character by
// character with attribute changes, to a Java help callbacks object.
//
// The two help callbacks run inside VexelHelp and may be unwound by a kernel
// error: they hold no object with a destructor.
#include "engine.h"

using ambrix::Call;

namespace {

// Lives on the stack of getHelp for the duration of its kernel call.
struct HelpCallBackData {
    CallBackFrontEnd *frontEnd;
    jobject helpCallBacks;
    jobject data;
};

const char *attributeField(int attribute) {
    switch (attribute) {
        case VEXEL_ATTRIB_NORMAL: return "VEXEL_ATTRIB_NORMAL";
        case VEXEL_ATTRIB_ITAL: return "VEXEL_ATTRIB_ITAL";
        case VEXEL_ATTRIB_BOLD: return "VEXEL_ATTRIB_BOLD";
        case VEXEL_ATTRIB_UNDER: return "VEXEL_ATTRIB_UNDER";
        default: return nullptr;
    }
}

// The record's env when Java may be called now; a pending exception (a
// callback threw) stops the output.
JNIEnv *javaEnv(const HelpCallBackData *help) {
    ambrix::noteJavaEntry();
    JNIEnv *env = help->frontEnd->env;
    return env == nullptr || env->ExceptionCheck() ? nullptr : env;
}

// 1 asks the kernel to stop the output.
int answer(JNIEnv *env, jboolean stop) { return env->ExceptionCheck() || stop ? 1 : 0; }

int WriteCharCallBack(void *data, int c) {
    auto *help = static_cast<HelpCallBackData *>(data);
    JNIEnv *env = javaEnv(help);
    if (env == nullptr) return 1;
    return answer(env, env->CallBooleanMethod(help->helpCallBacks, ambrix::lookups.helpWriteChar, help->data,
                                              static_cast<jint>(c)));
}

int WriteAttribCallBack(void *data, int attribute) {
    auto *help = static_cast<HelpCallBackData *>(data);
    KernelVector kv = help->frontEnd->kernelVector;
    const char *field = attributeField(attribute);
    if (field == nullptr) {
        VexelRaiseError1(kv, "illegal attribute option: %1", ToVexelInteger(kv, attribute));
        return 0;
    }
    JNIEnv *env = javaEnv(help);
    if (env == nullptr) return 1;
    // The value is the help object's own: found by name on its class, which
    // differs from call to call, so it is not among the lookups made once.
    jclass cls = env->GetObjectClass(help->helpCallBacks);
    jfieldID id = cls == nullptr ? nullptr : env->GetStaticFieldID(cls, field, "I");
    jint value = id == nullptr ? 0 : env->GetStaticIntField(cls, id);
    env->DeleteLocalRef(cls);
    if (env->ExceptionCheck()) return 1;
    return answer(env, env->CallBooleanMethod(help->helpCallBacks, ambrix::lookups.helpWriteAttrib, help->data, value));
}

// The kernel's keyword for a section, or null with an exception pending.
const char *sectionKeyword(JNIEnv *env, jint section) {
    for (int i = 0; i < ambrix::kHelpSectionCount; i++)
        if (ambrix::lookups.helpSections[i] == section) return ambrix::kHelpSectionKeywords[i];
    ambrix::fail(env, "invalid section specified");
    return nullptr;
}

}  // namespace

extern "C" JNIEXPORT void JNICALL Java_com_quorbit_ambrix_Engine_getHelp(JNIEnv *env, jobject self, jstring topic,
                                                                        jint section, jobject helpCallBacks,
                                                                        jint width, jobject data) {
    ambrix::engineMethod<void>(env, self, [&](Call &call) {
        ambrix::JavaChars chars;
        if (!ambrix::holdChars(env, topic, "Topic is NULL", chars)) return;
        HelpCallBackData help{call.frontEnd, helpCallBacks, data};
        const char *keyword = sectionKeyword(env, section);
        char *message = nullptr;
        if (keyword != nullptr && (helpCallBacks != nullptr || ambrix::fail(env, "HelpCallBacks is NULL"))) {
            message = call.inLock([&]() -> char * {
                char *topicText = ambrix::kernelCopy(call, chars);
                return topicText == nullptr ? nullptr
                                            : VexelHelp(call.kv(), topicText, keyword, WriteCharCallBack,
                                                        WriteAttribCallBack, width, &help);
            });
        }
        ambrix::releaseChars(env, chars);
        if (message != nullptr) ThrowVexelException(env, message);
    });
}
