// The declarations javac generates for every native method of the Java
// half. Each native's source sees them, so a definition whose signature
// drifts from its Java declaration does not compile.
#ifndef AMBRIX_NATIVES_H
#define AMBRIX_NATIVES_H

#include "com_quorbit_ambrix_Algebraic.h"
#include "com_quorbit_ambrix_AlgebraicRTable.h"
#include "com_quorbit_ambrix_ByteRTable.h"
#include "com_quorbit_ambrix_ComplexDoubleRTable.h"
#include "com_quorbit_ambrix_ComplexNumeric.h"
#include "com_quorbit_ambrix_ComplexNumericRTable.h"
#include "com_quorbit_ambrix_Conversions.h"
#include "com_quorbit_ambrix_DoubleRTable.h"
#include "com_quorbit_ambrix_Engine.h"
#include "com_quorbit_ambrix_Expseq.h"
#include "com_quorbit_ambrix_FloatRTable.h"
#include "com_quorbit_ambrix_IntRTable.h"
#include "com_quorbit_ambrix_List.h"
#include "com_quorbit_ambrix_LongRTable.h"
#include "com_quorbit_ambrix_Name.h"
#include "com_quorbit_ambrix_Numeric.h"
#include "com_quorbit_ambrix_NumericRTable.h"
#include "com_quorbit_ambrix_Procedure.h"
#include "com_quorbit_ambrix_RTable.h"
#include "com_quorbit_ambrix_ShortRTable.h"
#include "com_quorbit_ambrix_Table.h"
#include "com_quorbit_ambrix_VString.h"

#endif
