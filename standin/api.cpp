// The exported C interface. Every operation runs inside a trap: an error
// raised while it runs unwinds to the outermost operation in progress, which
// reports it through the error callback and returns its zero result.
#include "core.hpp"
#include "rtable.hpp"

#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <atomic>
#include <mutex>
#include <thread>

#include <sched.h>
#include <time.h>
#include <optional>

using namespace vx;

namespace {

// Every kernel ever started; stopped ones stay, so that their vectors stay
// recognisable. Never destroyed: the embedder may still call in while the
// process exits.
std::vector<std::unique_ptr<Kernel>> &g_kernels = *new std::vector<std::unique_ptr<Kernel>>;

// The lock of every operation. Callbacks call in again on the thread that
// holds it, so it is recursive. The library serialises its kernel calls
// itself, so the lock is all but never contended: taking it is one atomic
// exchange and releasing it one store, and a thread that finds it taken
// spins, then yields, then sleeps until it is free.
class KernelLock {
public:
    void lock() {
        std::thread::id self = std::this_thread::get_id();
        if (owner_.load(std::memory_order_relaxed) == self) {
            ++depth_;
            return;
        }
        for (unsigned tries = 0; held_.exchange(true, std::memory_order_acquire); ++tries) {
            while (held_.load(std::memory_order_relaxed)) wait(tries++);
        }
        owner_.store(self, std::memory_order_relaxed);
        depth_ = 1;
    }
    void unlock() {
        if (--depth_ > 0) return;
        owner_.store(std::thread::id(), std::memory_order_relaxed);
        held_.store(false, std::memory_order_release);
    }

private:
    static void wait(unsigned tries) {
        if (tries < 100) {
#if defined(__x86_64__) || defined(__i386__)
            __builtin_ia32_pause();
#endif
        } else if (tries < 1000) {
            sched_yield();
        } else {
            struct timespec pause = {0, 50000};
            nanosleep(&pause, nullptr);
        }
    }

    std::atomic<bool> held_{false};
    std::atomic<std::thread::id> owner_{};
    unsigned depth_ = 0;
};
KernelLock &g_lock = *new KernelLock;
Kernel *g_starting = nullptr;                     // the kernel inside StartVexel
Kernel *g_running = nullptr;

constexpr const char *kStopped = "the kernel has been stopped";

// Looks a kernel vector up without dereferencing it. While a kernel is being
// started, a null vector stands for it: the embedder's callbacks run before it
// has been told the vector.
inline Kernel *find_kernel(KernelVector kv) {
    if (!kv) return g_starting;
    if (kv == reinterpret_cast<KernelVector>(g_running)) return g_running;  // the common case
    auto addr = reinterpret_cast<uintptr_t>(kv);
    for (auto &k : g_kernels)
        if (reinterpret_cast<uintptr_t>(k.get()) == addr) return k.get();
    return nullptr;
}

struct Scope {
    Kernel *saved;
    Kernel *k;
    explicit Scope(Kernel *kk) : saved(K), k(kk) {
        K = kk;
        ++kk->depth;
    }
    ~Scope() {
        --k->depth;
        K = saved;
    }
    Scope(const Scope &) = delete;
    Scope &operator=(const Scope &) = delete;
};

void report(Kernel &k, int64_t offset, const std::string &msg) {
    if (k.reporting) {
        std::fprintf(stderr, "vexelc: error while reporting an error: %s\n", msg.c_str());
        return;
    }
    if (k.state == Kernel::State::Stopped) {
        for (void *p : k.report_blocks) std::free(p);
        k.report_blocks.clear();
    }
    if (!k.cb.errorCallBack) return;
    Scope scope(&k);
    if (k.depth == 1) set_stack_limit();
    k.reporting = true;
    try {
        k.cb.errorCallBack(k.data, offset, msg.c_str());
    } catch (VexelError &e) {
        std::fprintf(stderr, "vexelc: error raised by the error callback: %s\n", e.msg.c_str());
    } catch (...) {
        std::fprintf(stderr, "vexelc: exception thrown by the error callback\n");
    }
    k.reporting = false;
}

void unknown(const char *fn, KernelVector kv) {
    std::fprintf(stderr, "vexelc: %s: unknown kernel vector %p\n", fn, static_cast<void *>(kv));
}

template <class R, class F>
R guarded(const char *fn, KernelVector kv, R zero, F &&body) {
    std::lock_guard<KernelLock> lock(g_lock);
    Kernel *k = find_kernel(kv);
    if (!k) {
        unknown(fn, kv);
        return zero;
    }
    if (k->state == Kernel::State::Stopped) {
        if (!k->reporting) report(*k, -1, kStopped);
        return zero;
    }
    Scope scope(k);
    if (k->depth > 1) return body();  // nested: an error unwinds to the outer operation
    k->op_roots.clear();
    k->inuse_begin = k->serial;
    set_stack_limit();
    try {
        return body();
    } catch (VexelError &e) {
        report(*k, e.offset, e.msg);
    } catch (std::bad_alloc &) {
        report(*k, -1, "out of memory");
    } catch (std::exception &e) {
        report(*k, -1, std::string("internal error: ") + e.what());
    } catch (abi::__forced_unwind &) {
        throw;
    } catch (...) {
        report(*k, -1, "internal error: unknown exception");
    }
    return zero;
}

H need(ALGEB a) {
    H h = from_algeb(a);
    check(h);
    return h;
}

H need_kind(ALGEB a, Kind k, const char *what) {
    H h = need(a);
    if (kind_of(h) != k) fail(std::string("expected ") + what + ", got " + print_safe(h));
    return h;
}

template <class P>
int test(const char *fn, KernelVector kv, ALGEB a, P pred) {
    return guarded<int>(fn, kv, 0, [&] { return pred(need(a)) ? 1 : 0; });
}

// Whether h is an integer that fits in the given number of bits; its value
// goes to *out when it is.
bool in_width(H h, int bits, int64_t *out) {
    int64_t v;
    if (is_imm(h) && imm_valid(h)) v = imm_val(h);
    else if (!is_int(h) || !int_fits64(h, &v)) return false;
    if (bits < 64) {
        int64_t lim = int64_t(1) << (bits - 1);
        if (v < -lim || v >= lim) return false;
    }
    *out = v;
    return true;
}

int64_t to_width(H h, int bits) {
    int64_t v;
    if (in_width(h, bits, &v)) return v;
    if (!is_int(h)) fail("expected an integer, got " + print_safe(h));
    fail("integer " + print_safe(h) + " does not fit in " + std::to_string(bits) + " bits");
}

H seq_item(H seq, int64_t i, Kind k, const char *what) {
    (void)k;
    auto &items = obj<SeqObj>(seq).items;
    if (i < 1 || i > int64_t(items.size()))
        fail(std::string("index ") + std::to_string(i) + " out of bounds 1.." + std::to_string(items.size()) + " of " +
             what);
    return items[size_t(i - 1)];
}

void raise_impl(KernelVector kv, const char *msg, std::initializer_list<ALGEB> args) {
    std::lock_guard<KernelLock> lock(g_lock);
    Kernel *k = find_kernel(kv);
    if (!k) {
        unknown("VexelRaiseError", kv);
        return;
    }
    if (k->state == Kernel::State::Stopped) {
        if (!k->reporting) report(*k, -1, kStopped);
        return;
    }
    if (k->depth == 0) {
        report(*k, -1, "VexelRaiseError called outside a kernel operation");
        return;
    }
    std::vector<H> hs;
    for (ALGEB a : args) hs.push_back(from_algeb(a));
    Kernel *saved = K;
    K = k;
    std::string text = format_message(msg ? msg : "", hs);
    K = saved;
    throw VexelError{std::move(text), -1};
}

void set_errbuf(char *errbuf, const std::string &m) {
    if (!errbuf) return;
    size_t n = std::min(m.size(), size_t(2047));
    std::memcpy(errbuf, m.data(), n);
    errbuf[n] = 0;
}

}  // namespace

namespace vx {
Kernel::~Kernel() {
    Kernel *saved = K;
    K = this;
    slots.clear();
    for (auto &b : blocks) std::free(b.p);
    for (auto &c : chunks) std::free(c.base);
    for (void *p : report_blocks) std::free(p);
    K = saved;
}
}  // namespace vx

extern "C" {

// ---- lifecycle ----

KernelVector StartVexel(int argc, char *argv[], VexelCallBacks *callbacks, void *user_data, void *reserved,
                        char *errbuf) {
    (void)reserved;
    std::lock_guard<KernelLock> lock(g_lock);
    if (g_running || g_starting) {
        set_errbuf(errbuf, "a kernel is already running in this process");
        return nullptr;
    }
    if (argc < 0 || (argc > 0 && !argv)) {
        set_errbuf(errbuf, "invalid argument vector");
        return nullptr;
    }
    auto k = std::make_unique<Kernel>();
    if (callbacks) k->cb = *callbacks;
    k->data = user_data;
    for (int i = 0; i < argc; ++i) {
        if (!argv[i]) {
            set_errbuf(errbuf, "null argument " + std::to_string(i));
            return nullptr;
        }
        std::string a = argv[i];
        if (a == "-q") {
            k->quiet = true;
        } else if (a == "--test-hooks") {
            k->test_hooks = true;
        } else if (a.rfind("--gcthreshold=", 0) == 0) {
            std::string v = a.substr(14);
            char *end = nullptr;
            unsigned long long n = std::strtoull(v.c_str(), &end, 10);
            if (v.empty() || *end || n == 0 || v[0] == '-') {
                set_errbuf(errbuf, "invalid value in " + a);
                return nullptr;
            }
            k->gc_threshold = n;
        } else if (!a.empty() && a[0] == '-') {
            set_errbuf(errbuf, "unknown option " + a);
            return nullptr;
        } else {
            k->args.push_back(a);
        }
    }
    Kernel *kp = k.get();
    g_kernels.push_back(std::move(k));
    g_starting = kp;
    std::string err;
    {
        Scope scope(kp);
        set_stack_limit();
        try {
            make_permanent_values();
            if (!kp->quiet) text_out(VEXEL_TEXT_OUTPUT, "Vexel stand-in kernel 1.0 (a test double with a small language)");
        } catch (VexelError &e) {
            err = e.msg.empty() ? "error during start" : e.msg;
        } catch (std::exception &e) {
            err = std::string("internal error: ") + e.what();
        }
        if (!err.empty()) discard_all(false);
    }
    g_starting = nullptr;
    if (!err.empty()) {
        kp->state = Kernel::State::Stopped;
        set_errbuf(errbuf, err);
        return nullptr;
    }
    kp->state = Kernel::State::Running;
    g_running = kp;
    if (errbuf) errbuf[0] = 0;
    return reinterpret_cast<KernelVector>(kp);
}

void StopVexel(KernelVector kv) {
    guarded<int>("StopVexel", kv, 0, [&] {
        if (K->depth > 1) fail("StopVexel called during a kernel operation");
        Kernel *k = K;
        std::optional<VexelError> err;
        try {
            discard_all(true);
        } catch (VexelError &e) {
            err = e;
        }
        k->slots.clear();
        k->slots.shrink_to_fit();
        k->free_slots.clear();
        k->state = Kernel::State::Stopped;
        if (g_running == k) g_running = nullptr;
        if (err) throw *err;
        return 0;
    });
}

void RegisterRestartCallBack(KernelVector kv, VexelRestartFunc f) {
    guarded<int>("RegisterRestartCallBack", kv, 0, [&] {
        K->restart_cb = f;
        return 0;
    });
}

// ---- statements and help ----

ALGEB EvalVexelStatement(KernelVector kv, const char *statement) {
    return guarded<ALGEB>("EvalVexelStatement", kv, nullptr, [&] {
        if (!statement) fail("null statement");
        std::string text(statement);
        return to_algeb(eval_statements(text));
    });
}

char *VexelHelp(KernelVector kv, const char *topic, const char *section, VexelWriteCharFunc writeChar,
                VexelWriteAttribFunc writeAttrib, int width, void *data) {
    return guarded<char *>("VexelHelp", kv, nullptr, [&] {
        return const_cast<char *>(help(topic, section, writeChar, writeAttrib, width, data));
    });
}

// ---- memory and errors ----

void *VexelAlloc(KernelVector kv, size_t nbytes) {
    {
        std::lock_guard<KernelLock> lock(g_lock);
        Kernel *k = find_kernel(kv);
        if (k && k->state == Kernel::State::Stopped && k->reporting) {
            // The embedder's error callback converts the report's text in
            // kernel memory: give it a block that lives until the next report.
            void *p = std::malloc(nbytes ? nbytes : 1);
            if (p) k->report_blocks.push_back(p);
            return p;
        }
    }
    return guarded<void *>("VexelAlloc", kv, nullptr, [&] { return block_alloc(nbytes); });
}

void VexelRaiseError(KernelVector kv, const char *msg) { raise_impl(kv, msg, {}); }
void VexelRaiseError1(KernelVector kv, const char *msg, ALGEB arg1) { raise_impl(kv, msg, {arg1}); }
void VexelRaiseError2(KernelVector kv, const char *msg, ALGEB arg1, ALGEB arg2) {
    raise_impl(kv, msg, {arg1, arg2});
}

// ---- collection and pointer values ----

void VexelGcProtect(KernelVector kv, ALGEB a) {
    guarded<int>("VexelGcProtect", kv, 0, [&] {
        gc_protect(need(a));
        return 0;
    });
}

void VexelGcMark(KernelVector kv, ALGEB a) {
    guarded<int>("VexelGcMark", kv, 0, [&] {
        gc_mark(from_algeb(a));
        return 0;
    });
}

ALGEB ToVexelPointer(KernelVector kv, void *pointer, uintptr_t type_tag) {
    return guarded<ALGEB>("ToVexelPointer", kv, nullptr, [&] { return to_algeb(mk_pointer(pointer, type_tag)); });
}

void *VexelToPointer(KernelVector kv, ALGEB a) {
    return guarded<void *>("VexelToPointer", kv, nullptr,
                           [&] { return obj<PointerObj>(need_kind(a, Kind::Pointer, "a pointer value")).p; });
}

void VexelPointerSetMarkFunction(KernelVector kv, ALGEB a, VexelPointerFunc f) {
    guarded<int>("VexelPointerSetMarkFunction", kv, 0, [&] {
        obj<PointerObj>(need_kind(a, Kind::Pointer, "a pointer value")).mark = f;
        return 0;
    });
}

void VexelPointerSetDisposeFunction(KernelVector kv, ALGEB a, VexelPointerFunc f) {
    guarded<int>("VexelPointerSetDisposeFunction", kv, 0, [&] {
        obj<PointerObj>(need_kind(a, Kind::Pointer, "a pointer value")).dispose = f;
        return 0;
    });
}

// ---- kind tests ----

int IsVexelNumeric(KernelVector kv, ALGEB a) { return test(__func__, kv, a, is_real); }
int IsVexelComplexNumeric(KernelVector kv, ALGEB a) {
    return test(__func__, kv, a, [](H h) { return kind_of(h) == Kind::Complex; });
}
int IsVexelName(KernelVector kv, ALGEB a) { return test(__func__, kv, a, is_name); }
int IsVexelTable(KernelVector kv, ALGEB a) {
    return test(__func__, kv, a, [](H h) { return kind_of(h) == Kind::Table; });
}
int IsVexelList(KernelVector kv, ALGEB a) {
    return test(__func__, kv, a, [](H h) { return kind_of(h) == Kind::List; });
}
int IsVexelProcedure(KernelVector kv, ALGEB a) {
    return test(__func__, kv, a, [](H h) { return kind_of(h) == Kind::Proc; });
}
int IsVexelExpressionSequence(KernelVector kv, ALGEB a) {
    return test(__func__, kv, a, [](H h) { return kind_of(h) == Kind::Seq && !is_null(h); });
}
int IsVexelString(KernelVector kv, ALGEB a) { return test(__func__, kv, a, is_string); }
int IsVexelRTable(KernelVector kv, ALGEB a) {
    return test(__func__, kv, a, [](H h) { return kind_of(h) == Kind::RTable; });
}
int IsVexelNULL(KernelVector kv, ALGEB a) { return test(__func__, kv, a, is_null); }
int IsVexelPointer(KernelVector kv, ALGEB a) {
    return test(__func__, kv, a, [](H h) { return kind_of(h) == Kind::Pointer && obj<PointerObj>(h).p != nullptr; });
}
int IsVexelPointerNULL(KernelVector kv, ALGEB a) {
    return test(__func__, kv, a, [](H h) { return kind_of(h) == Kind::Pointer && obj<PointerObj>(h).p == nullptr; });
}
int IsVexelSet(KernelVector kv, ALGEB a) {
    return test(__func__, kv, a, [](H h) { return kind_of(h) == Kind::Set; });
}
int IsVexelStop(KernelVector kv, ALGEB a) {
    return test(__func__, kv, a, [](H h) { return kind_of(h) == Kind::Stop; });
}
int IsVexelInteger(KernelVector kv, ALGEB a) { return test(__func__, kv, a, is_int); }
int IsVexelInteger8(KernelVector kv, ALGEB a) {
    return test(__func__, kv, a, [](H h) { int64_t v; return in_width(h, 8, &v); });
}
int IsVexelInteger16(KernelVector kv, ALGEB a) {
    return test(__func__, kv, a, [](H h) { int64_t v; return in_width(h, 16, &v); });
}
int IsVexelInteger32(KernelVector kv, ALGEB a) {
    return test(__func__, kv, a, [](H h) { int64_t v; return in_width(h, 32, &v); });
}
int IsVexelInteger64(KernelVector kv, ALGEB a) {
    return test(__func__, kv, a, [](H h) { int64_t v; return in_width(h, 64, &v); });
}
int IsVexelUnnamedZero(KernelVector kv, ALGEB a) {
    return test(__func__, kv, a, [](H h) { return is_imm(h) && imm_val(h) == 0; });
}
int IsVexelAssignedName(KernelVector kv, ALGEB a) {
    return test(__func__, kv, a, [](H h) { return is_name(h) && obj<NameObj>(h).value != 0; });
}

// ---- construction ----

ALGEB ToVexelName(KernelVector kv, const char *name, int is_global) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] {
        if (!name) fail("null name");
        return to_algeb(is_global ? global_name(name) : local_name(name));
    });
}

ALGEB ToVexelString(KernelVector kv, const char *s) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] {
        if (!s) fail("null string");
        return to_algeb(mk_string(s));
    });
}

ALGEB ToVexelBoolean(KernelVector kv, int b) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] { return to_algeb(mk_bool(b != 0)); });
}

ALGEB ToVexelChar(KernelVector kv, int c) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] {
        if (c < 0 || c > 255) fail("character code " + std::to_string(c) + " out of range 0..255");
        return to_algeb(mk_string(std::string(1, char(c))));
    });
}

ALGEB ToVexelFloat(KernelVector kv, double f) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] { return to_algeb(mk_float(f)); });
}

ALGEB ToVexelInteger(KernelVector kv, int64_t i) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] { return to_algeb(mk_int(i)); });
}

ALGEB ToVexelInteger64(KernelVector kv, int64_t i) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] { return to_algeb(mk_int(i)); });
}

ALGEB ToVexelNULL(KernelVector kv) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] { return to_algeb(K->null_val); });
}

ALGEB ToVexelUneval(KernelVector kv, ALGEB a) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] { return to_algeb(mk_expr(Op::Uneval, {need(a)})); });
}

ALGEB ToVexelComplexFloat(KernelVector kv, ALGEB re, ALGEB im) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] {
        H r = need(re), i = need(im);
        if (!is_real(r) || !is_real(i))
            fail("complex parts must be real numbers, got " + print_safe(r) + " and " + print_safe(i));
        return to_algeb(mk_complex(r, i));
    });
}

// ---- conversion ----

VexelComplexDAG VexelToComplexFloatDAG(KernelVector kv, ALGEB a) {
    return guarded<VexelComplexDAG>(__func__, kv, VexelComplexDAG{nullptr, nullptr}, [&] {
        H h = need(a);
        if (!is_numeric(h)) fail("expected a number, got " + print_safe(h));
        return VexelComplexDAG{to_algeb(real_part(h)), to_algeb(imag_part(h))};
    });
}

char *VexelToString(KernelVector kv, ALGEB a) {
    return guarded<char *>(__func__, kv, nullptr,
                           [&] { return obj<StringObj>(need_kind(a, Kind::String, "a string")).s.data(); });
}

int8_t VexelToInteger8(KernelVector kv, ALGEB a) {
    return guarded<int8_t>(__func__, kv, 0, [&] { return int8_t(to_width(need(a), 8)); });
}
int16_t VexelToInteger16(KernelVector kv, ALGEB a) {
    return guarded<int16_t>(__func__, kv, 0, [&] { return int16_t(to_width(need(a), 16)); });
}
int32_t VexelToInteger32(KernelVector kv, ALGEB a) {
    return guarded<int32_t>(__func__, kv, 0, [&] { return int32_t(to_width(need(a), 32)); });
}
int64_t VexelToInteger64(KernelVector kv, ALGEB a) {
    return guarded<int64_t>(__func__, kv, 0, [&] { return to_width(need(a), 64); });
}

float VexelToFloat32(KernelVector kv, ALGEB a) {
    return guarded<float>(__func__, kv, 0.0f, [&] {
        H h = need(a);
        if (!is_real(h)) fail("expected a real number, got " + print_safe(h));
        return float(to_double(h));
    });
}

double VexelToFloat64(KernelVector kv, ALGEB a) {
    return guarded<double>(__func__, kv, 0.0, [&] {
        H h = need(a);
        if (!is_real(h)) fail("expected a real number, got " + print_safe(h));
        return to_double(h);
    });
}

ALGEB VexelSelectRealPart(KernelVector kv, ALGEB a) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] { return to_algeb(real_part(need(a))); });
}

ALGEB VexelSelectImaginaryPart(KernelVector kv, ALGEB a) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] { return to_algeb(imag_part(need(a))); });
}

ALGEB VexelALGEB_SPrintf1(KernelVector kv, const char *format, ALGEB a) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] {
        if (!format) fail("null format");
        H h = need(a);
        std::string out;
        for (const char *p = format; *p; ++p) {
            if (*p != '%') {
                out += *p;
                continue;
            }
            ++p;
            if (*p == 'a') out += print(h);
            else if (*p == '%') out += '%';
            else fail(std::string("unsupported format \"") + format + "\"");
        }
        return to_algeb(mk_string(out));
    });
}

// ---- evaluation and names ----

ALGEB VexelEval(KernelVector kv, ALGEB a) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] {
        H h = need(a);
        K->op_roots.push_back(h);
        return to_algeb(eval_value(h));
    });
}

double VexelEvalhf(KernelVector kv, ALGEB a) {
    return guarded<double>(__func__, kv, 0.0, [&] {
        H h = need(a);
        K->op_roots.push_back(h);
        H v = evalf(eval_value(h));
        if (!is_real(v)) fail("cannot evaluate with hardware floats: " + print_safe(h));
        return to_double(v);
    });
}

ALGEB VexelUnique(KernelVector kv, ALGEB a) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] {
        H h = need(a);
        if (is_imm(h)) return a;
        uint64_t hv = hash_of(h);
        auto range = K->unique_by_hash.equal_range(hv);
        for (auto i = range.first; i != range.second; ++i)
            if (i->second == h || equal(i->second, h)) return to_algeb(i->second);
        K->unique_by_hash.emplace(hv, h);
        K->unique_hash_of[h] = hv;
        return a;
    });
}

ALGEB VexelAssign(KernelVector kv, ALGEB name, ALGEB value) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] {
        H n = need_kind(name, Kind::Name, "a name");
        H v = need(value);
        obj<NameObj>(n).value = v == n ? 0 : v;
        return value;
    });
}

// ---- tables ----

ALGEB VexelTableAlloc(KernelVector kv) {
    return guarded<ALGEB>(__func__, kv, nullptr,
                          [&] { return to_algeb(alloc(Kind::Table, std::make_unique<TableObj>())); });
}

void VexelTableAssign(KernelVector kv, ALGEB table, ALGEB key, ALGEB value) {
    guarded<int>(__func__, kv, 0, [&] {
        H t = need_kind(table, Kind::Table, "a table");
        H k = need(key), v = need(value);
        obj<TableObj>(t).entries[k] = v;
        return 0;
    });
}

ALGEB VexelTableSelect(KernelVector kv, ALGEB table, ALGEB key) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&]() -> ALGEB {
        H t = need_kind(table, Kind::Table, "a table");
        H k = need(key);
        auto &e = obj<TableObj>(t).entries;
        auto it = e.find(k);
        return it == e.end() ? nullptr : to_algeb(it->second);
    });
}

void VexelTableDelete(KernelVector kv, ALGEB table, ALGEB key) {
    guarded<int>(__func__, kv, 0, [&] {
        H t = need_kind(table, Kind::Table, "a table");
        H k = need(key);
        obj<TableObj>(t).entries.erase(k);
        return 0;
    });
}

int VexelTableHasEntry(KernelVector kv, ALGEB table, ALGEB key) {
    return guarded<int>(__func__, kv, 0, [&] {
        H t = need_kind(table, Kind::Table, "a table");
        H k = need(key);
        return obj<TableObj>(t).entries.count(k) ? 1 : 0;
    });
}

// ---- lists and sequences ----

// The most elements a list or sequence made through the interface may have:
// a bad size from the embedder is an error, not gigabytes of zeros.
constexpr int64_t kMaxElements = int64_t(1) << 26;

ALGEB VexelListAlloc(KernelVector kv, int64_t n) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] {
        if (n < 0 || n > kMaxElements) fail("invalid list size " + std::to_string(n));
        return to_algeb(mk_list(std::vector<H>(size_t(n), 0)));
    });
}

// Stores value at the 1-based index i of a list or sequence; a sequence
// cannot be an element of either.
static void store_item(ALGEB target, int64_t i, ALGEB value, Kind kind, const char *expected, const char *what,
                const char *nested) {
    H t = need_kind(target, kind, expected);
    H v = need(value);
    seq_item(t, i, kind, what);
    if (kind_of(v) == Kind::Seq) fail(nested);
    obj<SeqObj>(t).items[size_t(i - 1)] = v;
}

void VexelListAssign(KernelVector kv, ALGEB list, int64_t i, ALGEB value) {
    guarded<int>(__func__, kv, 0, [&] {
        store_item(list, i, value, Kind::List, "a list", "the list", "cannot store an expression sequence in a list");
        return 0;
    });
}

ALGEB VexelListSelect(KernelVector kv, ALGEB list, int64_t i) {
    return guarded<ALGEB>(__func__, kv, nullptr,
                          [&] { return to_algeb(seq_item(need_kind(list, Kind::List, "a list"), i, Kind::List, "the list")); });
}

ALGEB NewVexelExpressionSequence(KernelVector kv, int n) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] {
        if (n < 0 || n > kMaxElements) fail("invalid sequence size " + std::to_string(n));
        return to_algeb(mk_seq(std::vector<H>(size_t(n), 0)));
    });
}

void VexelExpseqAssign(KernelVector kv, ALGEB seq, int64_t i, ALGEB value) {
    guarded<int>(__func__, kv, 0, [&] {
        store_item(seq, i, value, Kind::Seq, "an expression sequence", "the sequence",
                   "cannot nest an expression sequence");
        return 0;
    });
}

ALGEB VexelExpseqSelect(KernelVector kv, ALGEB seq, int64_t i) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] {
        return to_algeb(seq_item(need_kind(seq, Kind::Seq, "an expression sequence"), i, Kind::Seq, "the sequence"));
    });
}

int64_t VexelNumArgs(KernelVector kv, ALGEB a) {
    return guarded<int64_t>(__func__, kv, 0, [&]() -> int64_t {
        H h = need(a);
        switch (kind_of(h)) {
            case Kind::List:
            case Kind::Set:
            case Kind::Seq:
                return int64_t(obj<SeqObj>(h).items.size());
            case Kind::Expr: {
                auto &e = obj<ExprObj>(h);
                return int64_t(e.op == Op::Call || e.op == Op::Index ? e.ops.size() - 1 : e.ops.size());
            }
            case Kind::Table:
                return int64_t(obj<TableObj>(h).entries.size());
            case Kind::Rational:
            case Kind::Complex:
                return 2;
            default:
                return 1;
        }
    });
}

// ---- procedures ----

ALGEB EvalVexelProcedure(KernelVector kv, ALGEB proc, ALGEB args) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] {
        H p = need_kind(proc, Kind::Proc, "a procedure");
        H s = need_kind(args, Kind::Seq, "an expression sequence of arguments");
        K->op_roots.push_back(p);
        K->op_roots.push_back(s);
        std::vector<H> items = obj<SeqObj>(s).items;
        for (size_t i = 0; i < items.size(); ++i)
            if (!items[i]) fail("argument " + std::to_string(i + 1) + " of the sequence was never filled");
        return to_algeb(call_procedure(p, items));
    });
}

double EvalhfVexelProc(KernelVector kv, ALGEB proc, int nargs, double *args) {
    return guarded<double>(__func__, kv, 0.0, [&] {
        H p = need_kind(proc, Kind::Proc, "a procedure");
        if (nargs < 0) fail("invalid argument count " + std::to_string(nargs));
        if (nargs > 0 && !args) fail("null argument array");
        K->op_roots.push_back(p);
        std::vector<H> vals;
        for (int i = 1; i <= nargs; ++i) vals.push_back(mk_float(args[i]));
        H r = evalf(call_procedure(p, vals));
        if (!is_real(r)) fail("cannot evaluate with hardware floats: " + print_safe(r));
        return to_double(r);
    });
}

// ---- rectangular tables ----

void RTableGetSettings(KernelVector kv, RTableSettings *s, ALGEB rt) {
    guarded<int>(__func__, kv, 0, [&] {
        rtable_settings(need(rt), s);
        return 0;
    });
}

RTableElement RTableSelect(KernelVector kv, ALGEB rt, int64_t *index) {
    RTableElement zero;
    std::memset(&zero, 0, sizeof zero);
    return guarded<RTableElement>(__func__, kv, zero, [&] { return rtable_select(from_algeb(rt), index); });
}

RTableElement RTableAssign(KernelVector kv, ALGEB rt, int64_t *index, RTableElement value) {
    RTableElement zero;
    std::memset(&zero, 0, sizeof zero);
    return guarded<RTableElement>(__func__, kv, zero, [&] { return rtable_assign(from_algeb(rt), index, value); });
}

ALGEB RTableCopy(KernelVector kv, RTableSettings *s, ALGEB rt) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] { return to_algeb(rtable_copy(s, need(rt), 0)); });
}

ALGEB RTableCopyRealPart(KernelVector kv, RTableSettings *s, ALGEB rt) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] { return to_algeb(rtable_copy(s, need(rt), 1)); });
}

ALGEB RTableCopyImPart(KernelVector kv, RTableSettings *s, ALGEB rt) {
    return guarded<ALGEB>(__func__, kv, nullptr, [&] { return to_algeb(rtable_copy(s, need(rt), 2)); });
}

void *VexelRTableData(KernelVector kv, ALGEB rt) {
    return guarded<void *>(__func__, kv, nullptr, [&] { return rtable_data(need(rt)); });
}

int64_t RTableNumElements(KernelVector kv, ALGEB rt) {
    return guarded<int64_t>(__func__, kv, 0, [&] { return rtable_num_elements(need(rt)); });
}

int64_t RTableNumDimensions(KernelVector kv, ALGEB rt) {
    return guarded<int64_t>(__func__, kv, 0, [&] { return rtable_num_dims(need(rt)); });
}

int64_t RTableLowerBound(KernelVector kv, ALGEB rt, int64_t dim) {
    return guarded<int64_t>(__func__, kv, 0, [&] { return rtable_bound(need(rt), dim, false); });
}

int64_t RTableUpperBound(KernelVector kv, ALGEB rt, int64_t dim) {
    return guarded<int64_t>(__func__, kv, 0, [&] { return rtable_bound(need(rt), dim, true); });
}

}  // extern "C"
