// The natives of ComplexDoubleRTable: elements that are pairs of doubles,
// real part first, read whole or one part at a time.
#include "bulk.h"

using ambrix::Call;

namespace {

VexelComplex64 pairOf(Call &, RTableElement element) { return element.complex64; }

// Each element is two doubles in the Java array, the real part first: the
// layout the kernel stores complex[8] in.
using Pairs = ambrix::PrimitiveLayout<jdouble, RTABLE_COMPLEX64, 2>;

}  // namespace

extern "C" {

JNIEXPORT void JNICALL Java_com_quorbit_ambrix_ComplexDoubleRTable_assign(JNIEnv *env, jobject self, jintArray index,
                                                                          jdouble re, jdouble im) {
    ambrix::assignElement(env, self, {}, index, [=](Call &) {
        RTableElement element{};
        element.complex64 = {re, im};
        return element;
    });
}

// A new double[2] on each call, made after the lock is released.
JNIEXPORT jdoubleArray JNICALL Java_com_quorbit_ambrix_ComplexDoubleRTable_select(JNIEnv *env, jobject self,
                                                                                  jintArray index) {
    VexelComplex64 pair = ambrix::selectElement<VexelComplex64>(env, self, index, pairOf);
    if (env->ExceptionCheck()) return nullptr;
    jdoubleArray array = env->NewDoubleArray(2);
    if (array == nullptr) return nullptr;
    jdouble *elements = env->GetDoubleArrayElements(array, nullptr);
    if (elements == nullptr) return nullptr;
    elements[0] = pair.re;
    elements[1] = pair.im;
    env->ReleaseDoubleArrayElements(array, elements, 0);
    return env->ExceptionCheck() ? nullptr : array;
}

// The parts: 0.0 with the exception pending whenever the element is not read.
JNIEXPORT jdouble JNICALL Java_com_quorbit_ambrix_ComplexDoubleRTable_selectReal(JNIEnv *env, jobject self,
                                                                                 jintArray index) {
    return ambrix::selectElement<VexelComplex64>(env, self, index, pairOf).re;
}

JNIEXPORT jdouble JNICALL Java_com_quorbit_ambrix_ComplexDoubleRTable_selectImaginary(JNIEnv *env, jobject self,
                                                                                      jintArray index) {
    return ambrix::selectElement<VexelComplex64>(env, self, index, pairOf).im;
}

// The parts' tables are always ComplexDoubleRTable objects: the kernel is
// not asked for their kind.
JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_ComplexDoubleRTable_copyReal(JNIEnv *env, jobject self) {
    return ambrix::copyTable(env, self, RTableCopyRealPart, ambrix::kComplexDoubleRTable);
}

JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_ComplexDoubleRTable_copyImaginary(JNIEnv *env, jobject self) {
    return ambrix::copyTable(env, self, RTableCopyImPart, ambrix::kComplexDoubleRTable);
}

JNIEXPORT jdoubleArray JNICALL Java_com_quorbit_ambrix_ComplexDoubleRTable_toArray(JNIEnv *env, jobject self) {
    return ambrix::primitiveToArray<Pairs>(env, self, [](const RTableElement &element, jdouble *out) {
        out[0] = element.complex64.re;
        out[1] = element.complex64.im;
    });
}

JNIEXPORT void JNICALL Java_com_quorbit_ambrix_ComplexDoubleRTable_assignAll(JNIEnv *env, jobject self,
                                                                             jdoubleArray values) {
    ambrix::primitiveAssignAll<Pairs>(env, self, values, [](const jdouble *in) {
        RTableElement element{};
        element.complex64 = {in[0], in[1]};
        return element;
    });
}

}  // extern "C"
