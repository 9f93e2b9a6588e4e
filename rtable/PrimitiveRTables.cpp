// The natives of the tables of Java primitives: DoubleRTable, FloatRTable,
// LongRTable, IntRTable, ShortRTable and ByteRTable. Each class carries its
// value in one member of the element record, bit for bit at its own width:
// no conversion, rounding or range check.
#include "bulk.h"

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

template <typename J, int32_t Code>
using Layout = ambrix::PrimitiveLayout<J, Code, 1>;

template <auto Member, typename J, int32_t Code>
typename ambrix::JavaArray<J>::Array primitivesOf(JNIEnv *env, jobject table) {
    return ambrix::primitiveToArray<Layout<J, Code>>(
        env, table, [](const RTableElement &element, J *out) { *out = element.*Member; });
}

template <auto Member, typename J, int32_t Code>
void assignPrimitives(JNIEnv *env, jobject table, typename ambrix::JavaArray<J>::Array values) {
    ambrix::primitiveAssignAll<Layout<J, Code>>(env, table, values, [](const J *in) {
        RTableElement element{};
        element.*Member = *in;
        return element;
    });
}

}  // namespace

// assign(int[], JType), select(int[]), toArray() and assignAll(JType[]) of
// com.quorbit.ambrix.<Class>, whose tables have the data type `code`.
#define AMBRIX_PRIMITIVE_RTABLE(Class, JType, member, code)                                                        \
    extern "C" JNIEXPORT void JNICALL Java_com_quorbit_ambrix_##Class##_assign(JNIEnv *env, jobject self,          \
                                                                               jintArray index, JType value) {     \
        assignPrimitive<&RTableElement::member>(env, self, index, value);                                          \
    }                                                                                                              \
    extern "C" JNIEXPORT JType JNICALL Java_com_quorbit_ambrix_##Class##_select(JNIEnv *env, jobject self,         \
                                                                                jintArray index) {                 \
        return selectPrimitive<&RTableElement::member, JType>(env, self, index);                                   \
    }                                                                                                              \
    extern "C" JNIEXPORT JType##Array JNICALL Java_com_quorbit_ambrix_##Class##_toArray(JNIEnv *env, jobject self) { \
        return primitivesOf<&RTableElement::member, JType, code>(env, self);                                       \
    }                                                                                                              \
    extern "C" JNIEXPORT void JNICALL Java_com_quorbit_ambrix_##Class##_assignAll(JNIEnv *env, jobject self,       \
                                                                                  JType##Array values) {           \
        assignPrimitives<&RTableElement::member, JType, code>(env, self, values);                                  \
    }

AMBRIX_PRIMITIVE_RTABLE(DoubleRTable, jdouble, float64, RTABLE_FLOAT64)
AMBRIX_PRIMITIVE_RTABLE(FloatRTable, jfloat, float32, RTABLE_FLOAT32)
AMBRIX_PRIMITIVE_RTABLE(LongRTable, jlong, int64, RTABLE_INTEGER64)
AMBRIX_PRIMITIVE_RTABLE(IntRTable, jint, int32, RTABLE_INTEGER32)
AMBRIX_PRIMITIVE_RTABLE(ShortRTable, jshort, int16, RTABLE_INTEGER16)
AMBRIX_PRIMITIVE_RTABLE(ByteRTable, jbyte, int8, RTABLE_INTEGER8)
