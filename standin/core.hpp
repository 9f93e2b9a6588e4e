// Internals of the stand-in kernel: handles, cells, the kernel record and the
// functions the parts of the stand-in share. Nothing here is exported.
#pragma once

#include "vexelc.h"

#include <gmpxx.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace vx {

using H = uint64_t;  // the bits of an ALGEB

// An error raised inside an operation. It unwinds to the outermost trap.
struct VexelError {
    std::string msg;
    int64_t offset = -1;
};
[[noreturn]] void fail(std::string msg);
[[noreturn]] void fail_at(std::string msg, int64_t offset);

enum class Kind : uint8_t {
    Dead,
    Int,  // immediates report this kind too
    BigInt,
    Rational,
    Float,
    Complex,
    Name,
    String,
    List,
    Set,
    Seq,
    Table,
    Proc,
    RTable,
    Pointer,
    Stop,
    Expr
};

// Operators of unevaluated expressions (the generic kind).
enum class Op : uint8_t { Sum, Prod, Power, Eq, Neq, Lt, Le, Range, Call, Index, Uneval, And, Or, Not };

// ---- handles ----
// A cell handle is (generation << 32) | (index << 1) with generation >= 1; an
// integer of 62 bits is an immediate: (value << 1) | 1.
constexpr int64_t kImmMin = -(int64_t(1) << 61);
constexpr int64_t kImmMax = (int64_t(1) << 61) - 1;
inline bool is_imm(H h) { return h & 1; }
inline int64_t imm_val(H h) { return int64_t(h) >> 1; }
inline H imm(int64_t v) { return (uint64_t(v) << 1) | 1; }
inline bool imm_valid(H h) {
    int64_t v = imm_val(h);
    return v >= kImmMin && v <= kImmMax;
}
inline ALGEB to_algeb(H h) { return reinterpret_cast<ALGEB>(static_cast<uintptr_t>(h)); }
inline H from_algeb(ALGEB a) { return static_cast<H>(reinterpret_cast<uintptr_t>(a)); }

// ---- cells ----
struct Obj {
    virtual ~Obj() = default;
};
struct BigIntObj final : Obj {
    mpz_class v;
};
struct RatObj final : Obj {
    mpq_class v;
};
struct FloatObj final : Obj {
    double v = 0;
};
struct ComplexObj final : Obj {
    H re = 0, im = 0;
};
struct NameObj final : Obj {
    std::string name;
    bool global = false;
    H value = 0;  // 0: unassigned
};
struct StringObj final : Obj {
    std::string s;
};
struct SeqObj final : Obj {  // lists, sets and expression sequences; 0 is an unfilled slot
    std::vector<H> items;
};
struct HandleLess {
    bool operator()(H a, H b) const;
};
struct TableObj final : Obj {
    std::map<H, H, HandleLess> entries;
};
struct ProcDef;
struct ProcObj final : Obj {
    std::shared_ptr<const ProcDef> def;
};
struct PointerObj final : Obj {
    void *p = nullptr;
    uintptr_t tag = 0;
    VexelPointerFunc mark = nullptr;
    VexelPointerFunc dispose = nullptr;
};
struct StopObj final : Obj {};
struct ExprObj final : Obj {
    Op op = Op::Sum;
    std::vector<H> ops;
};
struct RTableObj;

struct Slot {
    std::unique_ptr<Obj> obj;
    uint64_t birth = 0;
    uint32_t gen = 1;
    Kind kind = Kind::Dead;
    bool mark = false;
};

struct Block {
    void *p;
    size_t n;
    uint64_t birth;
};

// Small VexelAlloc blocks are cut from chunks by bumping a pointer: an
// embedder may ask for a few bytes on every call. A chunk goes at the
// collection that would reclaim its newest block.
struct Chunk {
    uint8_t *base;
    size_t used;      // bytes handed out, alignment included
    size_t bytes;     // bytes asked for, as kernelopts(bytesalloc) counts them
    uint64_t newest;  // the birth of its newest block
};

// One procedure activation of the interpreter.
struct Frame {
    std::shared_ptr<const ProcDef> def;
    std::vector<std::pair<std::string, H>> vars;  // parameters and locals; 0: missing argument
    std::vector<H> args;
};

struct Kernel {
    enum class State { Starting, Running, Stopped };

    VexelCallBacks cb{};
    void *data = nullptr;
    State state = State::Starting;
    std::vector<std::string> args;
    bool quiet = false;
    bool test_hooks = false;  // --test-hooks: crashkernel(), spin(), hogmemory()
    uint64_t gc_threshold = 10000;
    VexelRestartFunc restart_cb = nullptr;

    int depth = 0;           // operations in progress (nested ones included)
    bool reporting = false;  // inside the error callback
    bool collecting = false;
    bool marking = false;

    std::vector<Slot> slots;
    std::vector<uint32_t> free_slots;
    size_t live_cells = 0;
    uint64_t serial = 1;         // allocation counter (cells and blocks)
    uint64_t last_gc_begin = 0;  // serial when the previous collection began
    uint64_t inuse_begin = 0;    // serial when the current statement / operation began
    uint64_t allocs_since_gc = 0;
    uint64_t collections = 0;
    std::vector<H> worklist;
    std::unordered_set<H> protected_vals;
    std::vector<H> op_roots;
    std::unordered_map<std::string, H> globals;
    std::vector<Block> blocks;
    std::vector<Chunk> chunks;
    size_t block_bytes = 0;
    int64_t failalloc = 0;
    std::vector<Frame *> frames;
    std::unordered_multimap<uint64_t, H> unique_by_hash;
    std::unordered_map<H, uint64_t> unique_hash_of;
    std::vector<void *> report_blocks;  // VexelAlloc during a stopped kernel's report

    // Permanent values, made anew after each restart.
    H null_val = 0, stop_val = 0, true_name = 0, false_name = 0;
    H dtype_vals[10] = {};  // element types by data-type code (0: anything)
    H sfloat_name = 0;

    std::string help_msg;
    uintptr_t stack_base = 0;   // the frame where the outermost operation began
    uintptr_t stack_limit = 0;  // it fails below this stack address; 0 until the first check
    std::string start_error;
    ~Kernel();
};

extern Kernel *K;  // the kernel of the operation in progress

// ---- heap (heap.cpp) ----
// Every interface operation looks its arguments up here, so these are inline.
inline Slot *slot_of(H h) {  // null for anything that is not a live cell
    if (h == 0 || is_imm(h)) return nullptr;
    uint32_t gen = uint32_t(h >> 32);
    uint64_t idx = (h & 0xffffffffu) >> 1;
    if (gen == 0 || idx >= K->slots.size()) return nullptr;
    Slot &s = K->slots[idx];
    if (s.kind == Kind::Dead || s.gen != gen) return nullptr;
    return &s;
}
inline Kind kind_or_dead(H h) {
    if (is_imm(h)) return imm_valid(h) ? Kind::Int : Kind::Dead;
    Slot *s = slot_of(h);
    return s ? s->kind : Kind::Dead;
}
[[noreturn]] void fail_invalid();  // raises "invalid or reclaimed value"
inline Kind kind_of(H h) {  // raises for an invalid handle
    Kind k = kind_or_dead(h);
    if (k == Kind::Dead) fail_invalid();
    return k;
}
inline void check(H h) { (void)kind_of(h); }  // raises "invalid or reclaimed value" unless h is a value
H alloc(Kind k, std::unique_ptr<Obj> o);
template <class T>
T &obj(H h) {
    return *static_cast<T *>(slot_of(h)->obj.get());
}
void collect();
void maybe_collect();
void discard_all(bool run_dispose);
void make_permanent_values();
void *block_alloc(size_t n);
void gc_mark(H h);
void gc_protect(H h);
void unique_forget_all();
// Raises "too many levels of recursion" once the operation in progress uses
// too much stack: deeply nested values and statements must not crash the host.
void stack_check();
// Notes where an outermost operation begins; the limit is worked out from
// there on the first check, so that an operation that never recurses does not
// pay for it.
inline void set_stack_limit() {
    K->stack_base = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    K->stack_limit = 0;
}

// ---- values (values.cpp) ----
H mk_int(int64_t v);
H mk_int(const mpz_class &v);
H mk_rat(const mpq_class &v);
H mk_float(double v);
H mk_complex(H re, H im);  // collapses an exact zero imaginary part
H mk_string(std::string s);
H global_name(const std::string &s);
H local_name(const std::string &s);
H mk_list(std::vector<H> items);
H mk_set(std::vector<H> items);
H mk_seq(std::vector<H> items);
H mk_expr(Op op, std::vector<H> ops);
H mk_bool(bool b);
H mk_pointer(void *p, uintptr_t tag);

bool is_int(H h);
bool is_real(H h);     // integer, rational or float
bool is_numeric(H h);  // real or complex
bool is_name(H h);
bool is_string(H h);
bool is_seq_kind(H h, Kind k);
bool is_null(H h);
bool int_fits64(H h, int64_t *out);
mpz_class to_mpz(H h);
mpq_class to_mpq(H h);
double to_double(H h);
const std::string &string_of(H h);
const std::string &name_of(H h);
std::vector<H> items_of(H h);  // elements of a list, set or sequence (copy)
std::vector<H> flatten(const std::vector<H> &v);  // splices sequences in

int compare(H a, H b);
bool equal(H a, H b);
uint64_t hash_of(H h);

H add(H a, H b);
H sub(H a, H b);
H mul(H a, H b);
H divide(H a, H b);
H power(H a, H b);
H negate(H a);
H relation(Op op, H a, H b);  // < and <= of reals give true/false
H evalf(H h);
// The elementary function of one real argument of that name (sin, exp, ln, ...),
// which the kernel applies to a float and plot samples; null for any other name.
using RealFunction = double (*)(double);
RealFunction elementary(const std::string &name);
std::optional<bool> truth_maybe(H h);
bool truth(H h);
H eval_value(H h);  // full evaluation of a value
H real_part(H h);
H imag_part(H h);

std::string print(H h);
std::string format_float(double d);
std::string format_message(const std::string &fmt, const std::vector<H> &args);
std::string print_safe(H h);

// ---- interpreter (interp.cpp) ----
H eval_statements(const std::string &text);
H call_procedure(H proc, const std::vector<H> &args);
H call_function(H f, const std::vector<H> &args);
void mark_frames();
void text_out(int tag, const std::string &s);
void poll_interrupt();
std::string print_proc(H h);

// ---- rectangular tables (rtable.cpp) ----
H rtable_make(int32_t code, H eltype, int32_t ndim, const int64_t *lo, const int64_t *hi);
H rtable_from_call(const std::string &fn, const std::vector<H> &args);
H rtable_get(H rt, const std::vector<int64_t> &idx);
void rtable_set(H rt, const std::vector<int64_t> &idx, H value);
void rtable_mark(RTableObj &t);
std::string rtable_print(H rt);
int rtable_code(H rt);
RTableObj &rtable_of(H rt);
void rtable_settings(H rt, RTableSettings *s);
RTableElement rtable_select(H rt, const int64_t *index);
RTableElement rtable_assign(H rt, const int64_t *index, RTableElement e);
H rtable_copy(const RTableSettings *s, H rt, int part);  // part: 0 whole, 1 real, 2 imaginary
void *rtable_data(H rt);  // the contiguous storage of a hardware-type table; null for the others
int64_t rtable_num_elements(H rt);
int64_t rtable_num_dims(H rt);
int64_t rtable_bound(H rt, int64_t dim, bool upper);
uint64_t rtable_hash(H rt);

// ---- typeset output and plots (latex.cpp, plot.cpp) ----
std::string latex(H h);
H plot_builtin(const std::vector<H> &args);

// ---- help (help.cpp) ----
const char *help(const char *topic, const char *section, VexelWriteCharFunc wc, VexelWriteAttribFunc wa, int width,
                 void *data);

}  // namespace vx
