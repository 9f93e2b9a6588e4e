// The object bridge: how Java objects carry kernel handles, the per-engine
// record, the kernel lock, wrapping kernel values as Java objects, and the
// live store that keeps Java-reachable values alive in the kernel.
//
// These are the library's exported helpers, under C linkage and exactly
// these names; everything else in the library is hidden.
#ifndef AMBRIX_BRIDGE_H
#define AMBRIX_BRIDGE_H

#include <jni.h>

#include "vexelc.h"

#define AMBRIX_EXPORT __attribute__((visibility("default")))

extern "C" {

// One running engine: its address is the Java `kernelID` and the kernel's
// callback user data. Thirteen pointer-sized fields, in this order.
struct CallBackFrontEnd {
    JNIEnv *env;                 // the thread inside the kernel; null between calls
    KernelVector kernelVector;   // null until the kernel has started
    jobject callBackObject;      // global reference
    jobject userData;            // global reference (may be null)
    jmethodID textCallBackID;
    jmethodID errorCallBackID;
    jmethodID statusCallBackID;
    jmethodID readLineCallBackID;
    jmethodID redirectCallBackID;
    jmethodID callBackCallBackID;
    jmethodID queryInterruptID;
    jmethodID streamCallBackID;
    jobject liveAlgebStore;      // global reference; also the kernel lock's monitor
};

// The kernel's callback vector as the library builds it.
typedef VexelCallBacks CallBackVector;

// Handles and errors.
AMBRIX_EXPORT ALGEB getDag(JNIEnv *env, jobject object);
AMBRIX_EXPORT CallBackFrontEnd *getCallBackFrontEnd(JNIEnv *env, jobject object);
AMBRIX_EXPORT void zeroCallBackFrontEnd(JNIEnv *env, jobject object);
AMBRIX_EXPORT void ThrowVexelException(JNIEnv *env, const char *message);

// The kernel lock.
AMBRIX_EXPORT void EnterKernel(JNIEnv *env, CallBackFrontEnd *frontEnd);
AMBRIX_EXPORT void LeaveKernel(CallBackFrontEnd *frontEnd);

// Wrapping kernel values.
AMBRIX_EXPORT jobject newAlgebraic(JNIEnv *env, ALGEB handle, CallBackFrontEnd *frontEnd);
AMBRIX_EXPORT jobject newPeerObject(JNIEnv *env, ALGEB handle, CallBackFrontEnd *frontEnd,
                                    const char *className);

// The live store.
AMBRIX_EXPORT jobject createLiveAlgebStore(JNIEnv *env);
AMBRIX_EXPORT void addToLiveAlgebStore(JNIEnv *env, jobject wrapper);
AMBRIX_EXPORT void removeFromLiveAlgebStore(JNIEnv *env, jobject wrapper);
AMBRIX_EXPORT void makeVexelPointer(CallBackFrontEnd *frontEnd);

// The engine (engine/).
AMBRIX_EXPORT int HandleException(JNIEnv *env, KernelVector kv);
AMBRIX_EXPORT CallBackFrontEnd *NewCallBackFrontEnd(JNIEnv *env, jobject callBackObject, jobject userData);
AMBRIX_EXPORT void DeleteCallBackFrontEnd(CallBackFrontEnd *record);
AMBRIX_EXPORT CallBackVector *NewVCallBackVector(JNIEnv *env);
AMBRIX_EXPORT void restartCallBack(void *data);
}

#endif
