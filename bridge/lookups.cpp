// The lookups made once per process. A step that fails stops the start: the
// VM's exception for a missing class or member stands, or the step's own
// message where it has one.
#include "lookups.h"

#include <dlfcn.h>

#include <atomic>

#include "frame.h"

namespace ambrix {

Lookups lookups;

namespace {

std::atomic<bool> ready{false};

const char *const kPeerNames[kPeerCount] = {
    "com/quorbit/ambrix/Algebraic",
    "com/quorbit/ambrix/Numeric",
    "com/quorbit/ambrix/ComplexNumeric",
    "com/quorbit/ambrix/Name",
    "com/quorbit/ambrix/Table",
    "com/quorbit/ambrix/List",
    "com/quorbit/ambrix/Procedure",
    "com/quorbit/ambrix/Expseq",
    "com/quorbit/ambrix/VString",
    "com/quorbit/ambrix/RTable",
    "com/quorbit/ambrix/AlgebraicRTable",
    "com/quorbit/ambrix/NumericRTable",
    "com/quorbit/ambrix/ComplexNumericRTable",
    "com/quorbit/ambrix/ByteRTable",
    "com/quorbit/ambrix/ShortRTable",
    "com/quorbit/ambrix/IntRTable",
    "com/quorbit/ambrix/LongRTable",
    "com/quorbit/ambrix/DoubleRTable",
    "com/quorbit/ambrix/ComplexDoubleRTable",
    "com/quorbit/ambrix/FloatRTable",
};

struct BoxClass {
    const char *name;
    const char *method;  // null for String
    const char *signature;
};

const BoxClass kBoxes[kBoxCount] = {
    {"java/lang/Boolean", "booleanValue", "()Z"}, {"java/lang/Character", "charValue", "()C"},
    {"java/lang/Double", "doubleValue", "()D"},   {"java/lang/Float", "floatValue", "()F"},
    {"java/lang/Integer", "intValue", "()I"},     {"java/lang/Long", "longValue", "()J"},
    {"java/lang/String", nullptr, nullptr},
};

const char *const kTextTagFields[kTextTagCount] = {
    "VEXEL_TEXT_OUTPUT", "VEXEL_TEXT_DIAG",   "VEXEL_TEXT_MISC",   "VEXEL_TEXT_HELP",
    "VEXEL_TEXT_QUIT",   "VEXEL_TEXT_WARNING", "VEXEL_TEXT_STATUS", "VEXEL_TEXT_DEBUG",
};

const char *const kHelpSectionFields[kHelpSectionCount] = {
    "VEXEL_HELP_ALL", "VEXEL_HELP_USAGE", "VEXEL_HELP_DESCRIPTION", "VEXEL_HELP_EXAMPLES", "VEXEL_HELP_SEEALSO",
};

// The steps of one start's lookups; each yields false with an exception
// pending once one has failed, so the chain stops at the first failure.
struct Steps {
    JNIEnv *env;

    bool ok() const { return !env->ExceptionCheck(); }

    // A class as a global reference; `message` is thrown when the VM gives
    // no class and left no exception of its own.
    bool globalClass(const char *name, jclass &slot, const char *message = nullptr) {
        if (!ok()) return false;
        jclass local = env->FindClass(name);
        if (local == nullptr) return message != nullptr && fail(env, message);
        slot = static_cast<jclass>(env->NewGlobalRef(local));
        env->DeleteLocalRef(local);
        return slot != nullptr;
    }

    bool method(jclass cls, const char *name, const char *signature, jmethodID &slot, const char *message = nullptr) {
        if (!ok()) return false;
        slot = env->GetMethodID(cls, name, signature);
        return slot != nullptr || (message != nullptr && fail(env, message));
    }

    bool staticMethod(jclass cls, const char *name, const char *signature, jmethodID &slot) {
        if (!ok()) return false;
        slot = env->GetStaticMethodID(cls, name, signature);
        return slot != nullptr;
    }

    bool field(jclass cls, const char *name, jfieldID &slot, const char *signature = "J") {
        if (!ok()) return false;
        slot = env->GetFieldID(cls, name, signature);
        return slot != nullptr;
    }

    // The values of static int fields of the object's class.
    bool staticIntsOf(jobject object, const char *const *names, jint *values, int count) {
        if (!ok()) return false;
        jclass cls = env->GetObjectClass(object);
        for (int i = 0; i < count && ok(); i++) {
            jfieldID id = env->GetStaticFieldID(cls, names[i], "I");
            if (id != nullptr) values[i] = env->GetStaticIntField(cls, id);
        }
        env->DeleteLocalRef(cls);
        return ok();
    }
};

// The kernel's optional operation, looked up in the library that defines
// StartVexel, the kernel this library is bound to.
VexelRTableDataFunction findRTableData() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void *>(&StartVexel), &info) == 0 || info.dli_fname == nullptr) return nullptr;
    void *kernel = dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
    if (kernel == nullptr) return nullptr;
    auto function = reinterpret_cast<VexelRTableDataFunction>(dlsym(kernel, "VexelRTableData"));
    dlclose(kernel);
    return function;
}

}  // namespace

const int kTextTags[kTextTagCount] = {VEXEL_TEXT_OUTPUT, VEXEL_TEXT_DIAG,  VEXEL_TEXT_MISC,   VEXEL_TEXT_HELP,
                                      VEXEL_TEXT_QUIT,   VEXEL_TEXT_WARNING, VEXEL_TEXT_STATUS, VEXEL_TEXT_DEBUG};
const char *const kHelpSectionKeywords[kHelpSectionCount] = {"", "usage", "info", "examples", "seealso"};

bool lookupsReady() { return ready.load(std::memory_order_acquire); }

const char *peerClassName(Peer peer) { return kPeerNames[peer]; }

void throwNew(JNIEnv *env, jclass cached, const char *name, const char *message) {
    if (env->ExceptionCheck()) return;
    if (lookupsReady()) {
        env->ThrowNew(cached, message);
        return;
    }
    jclass cls = env->FindClass(name);
    if (cls == nullptr) return;
    env->ThrowNew(cls, message);
    env->DeleteLocalRef(cls);
}

bool makeLookups(JNIEnv *env, jobject engine, jobject callBacks) {
    if (lookupsReady()) return true;
    Lookups &l = lookups;
    Steps s{env};
    s.globalClass("java/util/WeakHashMap", l.weakHashMap, "could not find java.util.WeakHashMap");
    s.method(l.weakHashMap, "<init>", "()V", l.storeInit);
    s.globalClass(kPeerNames[kAlgebraic], l.peers[kAlgebraic], "could not find com.quorbit.ambrix.Algebraic");
    for (int p = 0; p < kPeerCount; p++) {
        if (p != kAlgebraic) s.globalClass(kPeerNames[p], l.peers[p]);
        s.method(l.peers[p], "<init>", "(JJ)V", l.peerInit[p]);
    }
    s.field(l.peers[kAlgebraic], "dag", l.dag);
    s.field(l.peers[kAlgebraic], "kernelID", l.valueKernelID);
    s.field(l.peers[kRTable], "dimensionCount", l.dimensionCount, "I");
    jclass engineClass = env->GetObjectClass(engine);
    s.field(engineClass, "kernelID", l.engineKernelID);
    env->DeleteLocalRef(engineClass);
    s.globalClass("com/quorbit/ambrix/LiveStore", l.liveStore);
    s.staticMethod(l.liveStore, "attach", "(Ljava/util/WeakHashMap;J)V", l.liveAttach);
    s.staticMethod(l.liveStore, "mark", "(Ljava/util/WeakHashMap;)Ljava/nio/LongBuffer;", l.liveMark);
    s.staticMethod(l.liveStore, "register", "(Lcom/quorbit/ambrix/Algebraic;)I", l.liveRegister);
    s.staticMethod(l.liveStore, "withdraw", "(Lcom/quorbit/ambrix/Algebraic;)Z", l.liveWithdraw);
    s.staticMethod(l.liveStore, "dispose", "(Ljava/util/WeakHashMap;)V", l.disposeStore);
    s.globalClass("com/quorbit/externalcall/VexelException", l.vexelException);
    s.method(l.vexelException, "getArgCount", "()I", l.vexelArgCount);
    s.method(l.vexelException, "getArg", "(I)Ljava/lang/Object;", l.vexelArg);
    s.method(l.vexelException, "getMessage", "()Ljava/lang/String;", l.getMessage);
    s.globalClass("java/lang/OutOfMemoryError", l.outOfMemoryError);
    jclass object = nullptr;
    s.globalClass("java/lang/Object", object);
    s.method(object, "toString", "()Ljava/lang/String;", l.toString);
    for (int b = 0; b < kBoxCount; b++) {
        s.globalClass(kBoxes[b].name, l.boxes[b]);
        if (kBoxes[b].method != nullptr) s.method(l.boxes[b], kBoxes[b].method, kBoxes[b].signature, l.boxValue[b]);
    }
    s.staticIntsOf(callBacks, kTextTagFields, l.textTags, kTextTagCount);
    s.staticIntsOf(engine, kHelpSectionFields, l.helpSections, kHelpSectionCount);
    jclass help = nullptr;
    s.globalClass("com/quorbit/ambrix/HelpCallBacks", help);
    s.method(help, "writeChar", "(Ljava/lang/Object;I)Z", l.helpWriteChar);
    s.method(help, "writeAttrib", "(Ljava/lang/Object;I)Z", l.helpWriteAttrib);

    if (!s.ok()) return false;
    l.rtableData = findRTableData();
    ready.store(true, std::memory_order_release);
    return true;
}

}  // namespace ambrix
