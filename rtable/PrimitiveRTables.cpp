// The natives of the tables of Java primitives: DoubleRTable, FloatRTable,
// LongRTable, IntRTable, ShortRTable and ByteRTable. Each class carries its
// value in one member of the element record, bit for bit at its own width:
// no conversion, rounding or range check.
#include "element.h"

namespace {

template <auto Member, typename J>
void assignPrimitive(JNIEnv *env, jobject table, jintArray index, J value) {
    ambrix::assignElement(env, table, {}, index, [=](ambrix::Call &) {
        RTableElement element{};
        element.*Member = value;
        return element;
    });
}

template <auto Member, typename J>
J selectPrimitive(JNIEnv *env, jobject table, jintArray index) {
    return ambrix::selectElement<J>(env, table, index,
                                    [](ambrix::Call &, RTableElement element) { return J(element.*Member); });
}

}  // namespace

// assign(int[], JType) and select(int[]) of com.quorbit.ambrix.<Class>.
#define AMBRIX_PRIMITIVE_RTABLE(Class, JType, member)                                                          \
    extern "C" JNIEXPORT void JNICALL Java_com_quorbit_ambrix_##Class##_assign(JNIEnv *env, jobject self,      \
                                                                               jintArray index, JType value) { \
        assignPrimitive<&RTableElement::member>(env, self, index, value);                                      \
    }                                                                                                          \
    extern "C" JNIEXPORT JType JNICALL Java_com_quorbit_ambrix_##Class##_select(JNIEnv *env, jobject self,     \
                                                                                jintArray index) {             \
        return selectPrimitive<&RTableElement::member, JType>(env, self, index);                               \
    }

AMBRIX_PRIMITIVE_RTABLE(DoubleRTable, jdouble, float64)
AMBRIX_PRIMITIVE_RTABLE(FloatRTable, jfloat, float32)
AMBRIX_PRIMITIVE_RTABLE(LongRTable, jlong, int64)
AMBRIX_PRIMITIVE_RTABLE(IntRTable, jint, int32)
AMBRIX_PRIMITIVE_RTABLE(ShortRTable, jshort, int16)
AMBRIX_PRIMITIVE_RTABLE(ByteRTable, jbyte, int8)
