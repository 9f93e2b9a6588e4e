// The natives of ComplexNumeric: its parts, each wrapped as the Java class
// that fits its kind.
#include "values.h"

namespace {

constexpr ambrix::Messages kComplex{"Algebraic is NULL", "CallBackFrontEnd is NULL"};

}  // namespace

AMBRIX_RECEIVER_NATIVE(ComplexNumeric, realPart, jobject, kComplex, VexelSelectRealPart)
AMBRIX_RECEIVER_NATIVE(ComplexNumeric, imaginaryPart, jobject, kComplex, VexelSelectImaginaryPart)
