// The floors the benchmark sets the library's figures against: what the JVM's
// native interface costs by itself, with no kernel behind it. Built as
// libambrixfloor.so for the benchmark only; it is no part of libambrix.
#include <jni.h>

namespace {

// Looked up once, when the benchmark starts.
jfieldID g_dag = nullptr;
jfieldID g_kernel = nullptr;
jobject g_monitor = nullptr;

}  // namespace

extern "C" {

JNIEXPORT void JNICALL Java_com_quorbit_ambrix_bench_Floor_init(JNIEnv *env, jclass cls, jobject monitor) {
    g_dag = env->GetFieldID(cls, "dag", "J");
    if (!g_dag) return;
    g_kernel = env->GetFieldID(cls, "kernelID", "J");
    if (!g_kernel) return;
    g_monitor = env->NewGlobalRef(monitor);
}

// The cheapest native call there is.
JNIEXPORT void JNICALL Java_com_quorbit_ambrix_bench_Floor_empty(JNIEnv *, jclass) {}

// What every value native does before and after its kernel call: read the
// receiver's two long fields, then enter and leave the engine's monitor.
JNIEXPORT jlong JNICALL Java_com_quorbit_ambrix_bench_Floor_fieldsInMonitor(JNIEnv *env, jobject self) {
    jlong dag = env->GetLongField(self, g_dag);
    jlong kernel = env->GetLongField(self, g_kernel);
    if (env->MonitorEnter(g_monitor) != JNI_OK) return 0;
    jlong sum = dag + kernel;
    env->MonitorExit(g_monitor);
    return env->ExceptionCheck() ? 0 : sum;
}

// What a text callback costs the JVM: n calls of textCallBack(null, 3, "12345")
// on the callbacks object, each with a new string.
JNIEXPORT void JNICALL Java_com_quorbit_ambrix_bench_Floor_upcalls(JNIEnv *env, jclass, jobject callbacks, jint n) {
    jclass cls = env->GetObjectClass(callbacks);
    jmethodID text = env->GetMethodID(cls, "textCallBack", "(Ljava/lang/Object;ILjava/lang/String;)V");
    env->DeleteLocalRef(cls);
    if (!text) return;
    static const jchar kLine[] = {'1', '2', '3', '4', '5'};
    for (jint i = 0; i < n; ++i) {
        jstring line = env->NewString(kLine, 5);
        if (!line) return;
        env->CallVoidMethod(callbacks, text, nullptr, jint(3), line);
        env->DeleteLocalRef(line);
        if (env->ExceptionCheck()) return;
    }
}

}  // extern "C"
