// The Java classes, fields and methods the library uses, looked up once per
// process when the first engine starts and shared by every call after it.
// Classes are held as global references, so they stay loaded.
#ifndef AMBRIX_LOOKUPS_H
#define AMBRIX_LOOKUPS_H

#include <jni.h>

#include "vexelc.h"

namespace ambrix {

// The classes a kernel value is wrapped in.
enum Peer : int {
    kAlgebraic,
    kNumeric,
    kComplexNumeric,
    kName,
    kTable,
    kList,
    kProcedure,
    kExpseq,
    kVString,
    kRTable,
    kAlgebraicRTable,
    kNumericRTable,
    kComplexNumericRTable,
    kByteRTable,
    kShortRTable,
    kIntRTable,
    kLongRTable,
    kDoubleRTable,
    kComplexDoubleRTable,
    kFloatRTable,
    kPeerCount
};

// The boxed classes whose values a VexelException's arguments may hold.
enum Box : int { kBoolean, kCharacter, kDouble, kFloat, kInteger, kLong, kString, kBoxCount };

// The kernel's text tags, in the order of kTextTagFields.
constexpr int kTextTagCount = 8;
// The help sections, in the order of kHelpSectionFields.
constexpr int kHelpSectionCount = 5;

struct Lookups {
    jclass peers[kPeerCount];
    jmethodID peerInit[kPeerCount];  // "(JJ)V"
    jfieldID dag;                    // Algebraic.dag
    jfieldID valueKernelID;          // Algebraic.kernelID
    jfieldID engineKernelID;         // Engine.kernelID
    jfieldID dimensionCount;         // RTable.dimensionCount (int)

    jclass vexelException;
    jmethodID vexelArgCount, vexelArg;  // getArgCount(), getArg(int)
    jmethodID getMessage;               // Throwable.getMessage()
    jmethodID toString;                 // Object.toString()
    jclass outOfMemoryError;
    jclass boxes[kBoxCount];
    jmethodID boxValue[kBoxCount];  // booleanValue() and so on; none for String

    jclass weakHashMap;
    jmethodID storeInit;
    jclass liveStore;                     // the Java side of the collector's passes
    jmethodID liveAttach, liveMark, disposeStore;  // static
    jmethodID liveRegister, liveWithdraw;          // static

    jint textTags[kTextTagCount];          // the callbacks class's VEXEL_TEXT_* values
    jint helpSections[kHelpSectionCount];  // Engine's VEXEL_HELP_* values
    jmethodID helpWriteChar, helpWriteAttrib;  // of the HelpCallBacks interface

    VexelRTableDataFunction rtableData;  // the kernel's optional VexelRTableData, or null
};

extern Lookups lookups;

// True once makeLookups has succeeded; before that every helper looks up
// what it needs on each call.
bool lookupsReady();

// Throws a new exception of the class with the message, unless one is
// pending (a pending exception stands): the class from the lookups once they
// are made (cached), before that found by its JNI name.
void throwNew(JNIEnv *env, jclass cached, const char *name, const char *message);

// Makes the lookups, once per process; false with an exception pending
// (the step's own message, or the VM's exception for a missing class).
bool makeLookups(JNIEnv *env, jobject engine, jobject callBacks);

// The class names of the peers, as JNI spells them.
const char *peerClassName(Peer peer);

// The kernel tags of the text callback, in the order of lookups.textTags;
// and the keywords of the help sections, in the order of lookups.helpSections.
extern const int kTextTags[kTextTagCount];
extern const char *const kHelpSectionKeywords[kHelpSectionCount];

}  // namespace ambrix

#endif
