// The natives of Expseq: assign(int, Algebraic), select(int) and length().
// Elements are numbered from 1, as the kernel numbers them.
#include "values.h"

AMBRIX_SEQUENCE_NATIVES(Expseq, "Algebraic is NULL", VexelExpseqAssign, VexelExpseqSelect)
