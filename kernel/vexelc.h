/*
 * The Vexel kernel's C interface, as the ambrix library calls it.
 *
 * The kernel (libvexelc) owns every value; a value is handed out as an ALGEB,
 * an opaque 64-bit handle, 0 meaning "no value". Every operation takes the
 * running kernel's KernelVector first. An operation that fails reports the
 * error through the error callback and returns its zero result (0, null, 0.0).
 */
#ifndef VEXELC_H
#define VEXELC_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define VEXELC_API __attribute__((visibility("default")))
#else
#define VEXELC_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The running kernel. */
typedef struct VexelKernelRec *KernelVector;

/* One kernel value. */
typedef struct VexelValueRec *ALGEB;

/*
 * The eight callbacks through which the kernel talks to its embedder, in the
 * kernel's slot order. Each receives the user-data pointer given to
 * StartVexel first. Text returned by readLine, stream and callBack stays the
 * embedder's: the kernel copies it and never frees or modifies it.
 */
typedef struct VexelCallBacks {
    void (*textCallBack)(void *data, int tag, const char *output);
    void (*errorCallBack)(void *data, int64_t offset, const char *msg);
    void (*statusCallBack)(void *data, int64_t kilobytesUsed, int64_t kilobytesAlloc, double cpuTime);
    char *(*readLineCallBack)(void *data, int debug);
    int (*redirectCallBack)(void *data, const char *name, const char *mode);
    char *(*streamCallBack)(void *data, const char *name, int64_t nargs, char **args);
    int (*queryInterrupt)(void *data);
    char *(*callBackCallBack)(void *data, const char *output);
} VexelCallBacks;

/* Text tags of textCallBack. */
enum {
    VEXEL_TEXT_DIAG = 1,
    VEXEL_TEXT_MISC = 2,
    VEXEL_TEXT_OUTPUT = 3,
    VEXEL_TEXT_QUIT = 4,
    VEXEL_TEXT_WARNING = 5,
    VEXEL_TEXT_STATUS = 7,
    VEXEL_TEXT_HELP = 9,
    VEXEL_TEXT_DEBUG = 10
};

/* Text attributes reported to the help attribute callback. */
enum {
    VEXEL_ATTRIB_NORMAL = 0,
    VEXEL_ATTRIB_ITAL = 1,
    VEXEL_ATTRIB_BOLD = 3,
    VEXEL_ATTRIB_UNDER = 4
};

/* Data-type codes of rectangular tables. */
enum {
    RTABLE_DAG = 0,          /* anything; sfloat when the element type is the name sfloat */
    RTABLE_CXDAG = 1,        /* complex(sfloat): pairs of values */
    RTABLE_INTEGER8 = 2,
    RTABLE_INTEGER16 = 3,
    RTABLE_INTEGER32 = 4,
    RTABLE_INTEGER64 = 5,
    RTABLE_FLOAT64 = 6,
    RTABLE_COMPLEX64 = 7,    /* pairs of doubles */
    RTABLE_FLOAT32 = 8,
    RTABLE_TRUEFALSE = 9
};

#define RTABLE_MAX_DIMENSIONS 16

/*
 * A rectangular table's settings. The first two fields are fixed by the
 * interface; the rest describe the table's layout.
 */
typedef struct RTableSettings {
    int32_t data_type;      /* one of the RTABLE_* codes */
    ALGEB element_type;     /* the element type's value (a name for code 0) */
    int32_t num_dimensions;
    int32_t order;          /* 0: column-major (the only order there is) */
    int64_t lower[RTABLE_MAX_DIMENSIONS];
    int64_t upper[RTABLE_MAX_DIMENSIONS];
} RTableSettings;

/* A pair of values: the real part, then the imaginary part. */
typedef struct VexelComplexDAG {
    ALGEB re;
    ALGEB im;
} VexelComplexDAG;

/* A pair of doubles: the real part, then the imaginary part. */
typedef struct VexelComplex64 {
    double re;
    double im;
} VexelComplex64;

/*
 * One element of a rectangular table, passed by value. Every member starts
 * at byte 0; the table's data-type code says which one is meant.
 */
typedef union RTableElement {
    ALGEB dag;              /* 0 */
    VexelComplexDAG cxdag;  /* 1 */
    int8_t int8;            /* 2 */
    int16_t int16;          /* 3 */
    int32_t int32;          /* 4 */
    int64_t int64;          /* 5 */
    double float64;         /* 6 */
    VexelComplex64 complex64; /* 7 */
    float float32;          /* 8 */
    int32_t truefalse;      /* 9 */
} RTableElement;

typedef int (*VexelWriteCharFunc)(void *data, int c);
typedef int (*VexelWriteAttribFunc)(void *data, int attrib);
typedef void (*VexelRestartFunc)(void *data);
typedef void (*VexelPointerFunc)(ALGEB pointer);

/* Lifecycle. */
VEXELC_API KernelVector StartVexel(int argc, char *argv[], VexelCallBacks *callbacks, void *user_data,
                                   void *reserved, char *errbuf);
VEXELC_API void StopVexel(KernelVector kv);
VEXELC_API void RegisterRestartCallBack(KernelVector kv, VexelRestartFunc f);

/* Statements and help. VexelHelp returns null on success, else a message. */
VEXELC_API ALGEB EvalVexelStatement(KernelVector kv, const char *statement);
VEXELC_API char *VexelHelp(KernelVector kv, const char *topic, const char *section,
                           VexelWriteCharFunc writeChar, VexelWriteAttribFunc writeAttrib, int width,
                           void *data);

/* Memory and errors. A raise unwinds to the kernel operation in progress. */
VEXELC_API void *VexelAlloc(KernelVector kv, size_t nbytes);
VEXELC_API void VexelRaiseError(KernelVector kv, const char *msg);
VEXELC_API void VexelRaiseError1(KernelVector kv, const char *msg, ALGEB arg1);
VEXELC_API void VexelRaiseError2(KernelVector kv, const char *msg, ALGEB arg1, ALGEB arg2);

/* Garbage collection and pointer values. */
VEXELC_API void VexelGcProtect(KernelVector kv, ALGEB a);
VEXELC_API void VexelGcMark(KernelVector kv, ALGEB a);
VEXELC_API ALGEB ToVexelPointer(KernelVector kv, void *pointer, uintptr_t type_tag);
VEXELC_API void *VexelToPointer(KernelVector kv, ALGEB a);
VEXELC_API void VexelPointerSetMarkFunction(KernelVector kv, ALGEB a, VexelPointerFunc f);
VEXELC_API void VexelPointerSetDisposeFunction(KernelVector kv, ALGEB a, VexelPointerFunc f);

/* Kind tests: nonzero when the value is of that kind. */
VEXELC_API int IsVexelNumeric(KernelVector kv, ALGEB a);
VEXELC_API int IsVexelComplexNumeric(KernelVector kv, ALGEB a);
VEXELC_API int IsVexelName(KernelVector kv, ALGEB a);
VEXELC_API int IsVexelTable(KernelVector kv, ALGEB a);
VEXELC_API int IsVexelList(KernelVector kv, ALGEB a);
VEXELC_API int IsVexelProcedure(KernelVector kv, ALGEB a);
VEXELC_API int IsVexelExpressionSequence(KernelVector kv, ALGEB a);
VEXELC_API int IsVexelString(KernelVector kv, ALGEB a);
VEXELC_API int IsVexelRTable(KernelVector kv, ALGEB a);
VEXELC_API int IsVexelNULL(KernelVector kv, ALGEB a);
VEXELC_API int IsVexelPointer(KernelVector kv, ALGEB a);
VEXELC_API int IsVexelPointerNULL(KernelVector kv, ALGEB a);
VEXELC_API int IsVexelSet(KernelVector kv, ALGEB a);
VEXELC_API int IsVexelStop(KernelVector kv, ALGEB a);
VEXELC_API int IsVexelInteger(KernelVector kv, ALGEB a);
VEXELC_API int IsVexelInteger8(KernelVector kv, ALGEB a);
VEXELC_API int IsVexelInteger16(KernelVector kv, ALGEB a);
VEXELC_API int IsVexelInteger32(KernelVector kv, ALGEB a);
VEXELC_API int IsVexelInteger64(KernelVector kv, ALGEB a);
VEXELC_API int IsVexelUnnamedZero(KernelVector kv, ALGEB a);
VEXELC_API int IsVexelAssignedName(KernelVector kv, ALGEB a);

/* Construction. */
VEXELC_API ALGEB ToVexelName(KernelVector kv, const char *name, int is_global);
VEXELC_API ALGEB ToVexelString(KernelVector kv, const char *s);
VEXELC_API ALGEB ToVexelBoolean(KernelVector kv, int b);
VEXELC_API ALGEB ToVexelChar(KernelVector kv, int c);
VEXELC_API ALGEB ToVexelFloat(KernelVector kv, double f);
VEXELC_API ALGEB ToVexelInteger(KernelVector kv, int64_t i);
VEXELC_API ALGEB ToVexelInteger64(KernelVector kv, int64_t i);
VEXELC_API ALGEB ToVexelNULL(KernelVector kv);
VEXELC_API ALGEB ToVexelUneval(KernelVector kv, ALGEB a);
VEXELC_API ALGEB ToVexelComplexFloat(KernelVector kv, ALGEB re, ALGEB im);

/* Conversion. */
VEXELC_API VexelComplexDAG VexelToComplexFloatDAG(KernelVector kv, ALGEB a);
VEXELC_API char *VexelToString(KernelVector kv, ALGEB a);
VEXELC_API int8_t VexelToInteger8(KernelVector kv, ALGEB a);
VEXELC_API int16_t VexelToInteger16(KernelVector kv, ALGEB a);
VEXELC_API int32_t VexelToInteger32(KernelVector kv, ALGEB a);
VEXELC_API int64_t VexelToInteger64(KernelVector kv, ALGEB a);
VEXELC_API float VexelToFloat32(KernelVector kv, ALGEB a);
VEXELC_API double VexelToFloat64(KernelVector kv, ALGEB a);
VEXELC_API ALGEB VexelSelectRealPart(KernelVector kv, ALGEB a);
VEXELC_API ALGEB VexelSelectImaginaryPart(KernelVector kv, ALGEB a);

/* Printing: format "%a" prints a value's standard form as a string value. */
VEXELC_API ALGEB VexelALGEB_SPrintf1(KernelVector kv, const char *format, ALGEB a);

/* Evaluation and names. */
VEXELC_API ALGEB VexelEval(KernelVector kv, ALGEB a);
VEXELC_API double VexelEvalhf(KernelVector kv, ALGEB a);
VEXELC_API ALGEB VexelUnique(KernelVector kv, ALGEB a);
VEXELC_API ALGEB VexelAssign(KernelVector kv, ALGEB name, ALGEB value);

/* Tables. VexelTableSelect returns 0 for a missing key, without an error. */
VEXELC_API ALGEB VexelTableAlloc(KernelVector kv);
VEXELC_API void VexelTableAssign(KernelVector kv, ALGEB table, ALGEB key, ALGEB value);
VEXELC_API ALGEB VexelTableSelect(KernelVector kv, ALGEB table, ALGEB key);
VEXELC_API void VexelTableDelete(KernelVector kv, ALGEB table, ALGEB key);
VEXELC_API int VexelTableHasEntry(KernelVector kv, ALGEB table, ALGEB key);

/* Lists and expression sequences; elements are numbered from 1. */
VEXELC_API ALGEB VexelListAlloc(KernelVector kv, int64_t n);
VEXELC_API void VexelListAssign(KernelVector kv, ALGEB list, int64_t i, ALGEB value);
VEXELC_API ALGEB VexelListSelect(KernelVector kv, ALGEB list, int64_t i);
VEXELC_API ALGEB NewVexelExpressionSequence(KernelVector kv, int n);
VEXELC_API void VexelExpseqAssign(KernelVector kv, ALGEB seq, int64_t i, ALGEB value);
VEXELC_API ALGEB VexelExpseqSelect(KernelVector kv, ALGEB seq, int64_t i);
VEXELC_API int64_t VexelNumArgs(KernelVector kv, ALGEB a);

/* Procedures. EvalhfVexelProc reads its arguments from args[1] to args[nargs]. */
VEXELC_API ALGEB EvalVexelProcedure(KernelVector kv, ALGEB proc, ALGEB args);
VEXELC_API double EvalhfVexelProc(KernelVector kv, ALGEB proc, int nargs, double *args);

/* Rectangular tables. An index array holds one index per dimension. */
VEXELC_API void RTableGetSettings(KernelVector kv, RTableSettings *s, ALGEB rt);
VEXELC_API RTableElement RTableSelect(KernelVector kv, ALGEB rt, int64_t *index);
VEXELC_API RTableElement RTableAssign(KernelVector kv, ALGEB rt, int64_t *index, RTableElement value);
VEXELC_API ALGEB RTableCopy(KernelVector kv, RTableSettings *s, ALGEB rt);
VEXELC_API ALGEB RTableCopyRealPart(KernelVector kv, RTableSettings *s, ALGEB rt);
VEXELC_API ALGEB RTableCopyImPart(KernelVector kv, RTableSettings *s, ALGEB rt);
VEXELC_API int64_t RTableNumElements(KernelVector kv, ALGEB rt);
VEXELC_API int64_t RTableNumDimensions(KernelVector kv, ALGEB rt);
VEXELC_API int64_t RTableLowerBound(KernelVector kv, ALGEB rt, int64_t dim);
VEXELC_API int64_t RTableUpperBound(KernelVector kv, ALGEB rt, int64_t dim);

/*
 * Optional: a kernel need not define it, so the library finds it at start by
 * name (dlsym) and never links against it. It returns the address of the
 * table's contiguous, column-major storage when the data type is a hardware
 * one (integer[1], integer[2], integer[4], integer[8], float[4], float[8],
 * complex[8]: real then imaginary part of each element), and null for every
 * other data type. The address stays valid until the next kernel call that
 * may collect or change the table. A table too large to lay out in memory
 * gets the kernel's out-of-memory error.
 */
VEXELC_API void *VexelRTableData(KernelVector kv, ALGEB rt);
typedef void *(*VexelRTableDataFunction)(KernelVector kv, ALGEB rt);

#ifdef __cplusplus
}
#endif

#endif
