// The natives of Numeric: what kind of number the kernel value is, and the
// value at each Java width. The kernel converts; nothing is checked here.
#include "values.h"

namespace {

constexpr ambrix::Messages kNumeric{"Numeric is NULL", "Kernel Vector is NULL"};

}  // namespace

AMBRIX_RECEIVER_NATIVE(Numeric, isInteger, jboolean, kNumeric, IsVexelInteger)
AMBRIX_RECEIVER_NATIVE(Numeric, isByte, jboolean, kNumeric, IsVexelInteger8)
AMBRIX_RECEIVER_NATIVE(Numeric, isShort, jboolean, kNumeric, IsVexelInteger16)
AMBRIX_RECEIVER_NATIVE(Numeric, isInt, jboolean, kNumeric, IsVexelInteger32)
AMBRIX_RECEIVER_NATIVE(Numeric, isLong, jboolean, kNumeric, IsVexelInteger64)
AMBRIX_RECEIVER_NATIVE(Numeric, isUnnamedZero, jboolean, kNumeric, IsVexelUnnamedZero)

AMBRIX_RECEIVER_NATIVE(Numeric, byteValue, jbyte, kNumeric, VexelToInteger8)
AMBRIX_RECEIVER_NATIVE(Numeric, shortValue, jshort, kNumeric, VexelToInteger16)
AMBRIX_RECEIVER_NATIVE(Numeric, intValue, jint, kNumeric, VexelToInteger32)
AMBRIX_RECEIVER_NATIVE(Numeric, longValue, jlong, kNumeric, VexelToInteger64)
AMBRIX_RECEIVER_NATIVE(Numeric, floatValue, jfloat, kNumeric, VexelToFloat32)
AMBRIX_RECEIVER_NATIVE(Numeric, doubleValue, jdouble, kNumeric, VexelToFloat64)
