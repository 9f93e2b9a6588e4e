// The interpreter: statements, expressions, procedures and the builtins.
#include "ast.hpp"
#include "core.hpp"
#include "rtable.hpp"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <set>
#include <ctime>
#include <functional>

namespace vx {

namespace {

bool is_builtin_name(const std::string &s);
const std::unordered_map<std::string, const struct Builtin *> &process_hooks();

enum class Flow { Normal, Return, Break, Next, Quit };

struct Exec {
    H val = 0;  // value of the last expression statement
    H ret = 0;  // value given to return
};

H eval(const Node &n, bool quoted = false);
Flow exec(const Node &s, Exec &x);

// Where nested expression statements print: at the top level, outside any
// procedure, when the top-level statement ended with ';'.
size_t g_print_frames = size_t(-1);
bool g_restart_ok = false;

Frame *frame() { return K->frames.empty() ? nullptr : K->frames.back(); }

H *frame_var(const std::string &s) {
    Frame *f = frame();
    if (!f) return nullptr;
    for (auto &[name, v] : f->vars)
        if (name == s) return &v;
    return nullptr;
}

H follow(H v) {
    for (int i = 0; i < 100 && kind_of(v) == Kind::Name && obj<NameObj>(v).value; ++i) v = obj<NameObj>(v).value;
    return v;
}

H lookup(const std::string &s) {
    if (H *v = frame_var(s)) {
        if (!*v) fail("invalid input: the procedure uses a missing argument, " + s);
        return follow(*v);
    }
    if (Frame *f = frame()) {
        if (s == "nargs") return mk_int(int64_t(f->args.size()));
        if (s == "args") return f->args.size() == 1 ? f->args[0] : mk_seq(f->args);
    }
    if (s == "NULL") return K->null_val;
    if (s == "I") return mk_complex(imm(0), imm(1));
    return follow(global_name(s));
}

H name_cell(const std::string &s) {
    if (H *v = frame_var(s)) {
        if (*v && kind_of(*v) == Kind::Name && !obj<NameObj>(*v).global) return *v;
    }
    return global_name(s);
}

void set_var(const std::string &s, H value) {
    if (s == "NULL" || s == "I" || s == "true" || s == "false") fail("attempting to assign to `" + s + "` which is protected");
    if (H *v = frame_var(s)) {
        *v = value;
        return;
    }
    // Built-in names keep their meaning, as a real kernel's do: no program
    // can make Array, print or seq mean something else.
    if (is_builtin_name(s)) fail("attempting to assign to `" + s + "` which is protected");
    H n = global_name(s);
    obj<NameObj>(n).value = value == n ? 0 : value;
}

void no_seq(H h) {
    if (kind_of(h) == Kind::Seq) fail("invalid operand: an expression sequence " + print_safe(h));
}

// A rectangular table's subscripts as 64-bit indices.
std::vector<int64_t> rtable_index(const std::vector<H> &idx) {
    std::vector<int64_t> ix;
    for (H h : idx) {
        int64_t v;
        if (!is_int(h) || !int_fits64(h, &v)) fail("rectangular table index must be an integer, got " + print_safe(h));
        ix.push_back(v);
    }
    return ix;
}
H index_value(H base, const std::vector<H> &idx, H base_name) {
    Kind k = kind_of(base);
    if (k == Kind::List || k == Kind::Set || k == Kind::Seq) {
        if (idx.size() != 1 || !is_int(idx[0])) fail("invalid subscript " + print_safe(mk_seq(idx)));
        int64_t i;
        const auto &items = obj<SeqObj>(base).items;
        int64_t n = int64_t(items.size());
        if (!int_fits64(idx[0], &i) || i == 0 || i > n || i < -n)
            fail("index out of range: " + print_safe(idx[0]) + " in " + print_safe(base));
        H r = items[size_t(i > 0 ? i - 1 : n + i)];
        return r ? r : K->null_val;
    }
    if (k == Kind::Table) {
        H key = idx.size() == 1 ? idx[0] : mk_seq(idx);
        auto &t = obj<TableObj>(base).entries;
        auto it = t.find(key);
        if (it != t.end()) return it->second;
        std::vector<H> ops{base_name ? base_name : base};
        ops.insert(ops.end(), idx.begin(), idx.end());
        return mk_expr(Op::Index, ops);
    }
    if (k == Kind::RTable) {
        return rtable_get(base, rtable_index(idx));
    }
    if (k == Kind::Name || k == Kind::Expr) {
        std::vector<H> ops{base};
        ops.insert(ops.end(), idx.begin(), idx.end());
        return mk_expr(Op::Index, ops);
    }
    fail("cannot index into " + print_safe(base));
}

void index_assign(H base, const std::vector<H> &idx, H value) {
    Kind k = kind_of(base);
    if (k == Kind::Table) {
        H key = idx.size() == 1 ? idx[0] : mk_seq(idx);
        obj<TableObj>(base).entries[key] = value;
        return;
    }
    if (k == Kind::List || k == Kind::Seq) {
        int64_t i;
        if (idx.size() != 1 || !is_int(idx[0]) || !int_fits64(idx[0], &i)) fail("invalid subscript");
        auto &items = obj<SeqObj>(base).items;
        int64_t n = int64_t(items.size());
        if (i == 0 || i > n || i < -n) fail("index out of range: " + print_safe(idx[0]));
        if (kind_of(value) == Kind::Seq) fail("cannot store an expression sequence in a list");
        items[size_t(i > 0 ? i - 1 : n + i)] = value;
        return;
    }
    if (k == Kind::RTable) {
        rtable_set(base, rtable_index(idx), value);
        return;
    }
    fail("cannot assign to an index of " + print_safe(base));
}

void assign_to(const Node &target, H value) {
    if (target.t == NT::Name) {
        set_var(target.text, value);
        return;
    }
    if (target.t == NT::Index) {
        std::vector<H> idx;
        for (size_t i = 1; i < target.kids.size(); ++i) idx.push_back(eval(*target.kids[i]));
        idx = flatten(idx);
        const Node &b = *target.kids[0];
        H base;
        if (b.t == NT::Name) {
            base = lookup(b.text);
            if (kind_of(base) == Kind::Name) {  // an unassigned name becomes a table
                base = alloc(Kind::Table, std::make_unique<TableObj>());
                set_var(b.text, base);
            }
        } else {
            base = eval(b);
        }
        index_assign(base, idx, value);
        return;
    }
    fail_at("invalid left-hand side of an assignment", target.pos);
}

int64_t small_int(H h, const char *what) {
    int64_t v;
    if (!is_int(h) || !int_fits64(h, &v)) fail(std::string(what) + " must be an integer, got " + print_safe(h));
    return v;
}

// ---- builtins ----

// A builtin with the number of arguments it takes, checked before it runs.
struct Builtin {
    const char *name;
    size_t min_args;
    size_t max_args;
    std::function<H(const std::vector<H> &)> run;
};
constexpr size_t kAnyCount = SIZE_MAX;

void want_args(const std::vector<H> &a, size_t lo, size_t hi, const char *fn) {
    if (a.size() < lo || a.size() > hi) fail(std::string("invalid number of arguments to ") + fn);
}

std::string join_printed(const std::vector<H> &a) {
    std::string s;
    for (size_t i = 0; i < a.size(); ++i) {
        if (i) s += ", ";
        s += print(a[i]);
    }
    return s;
}

std::string answer(char *r) { return r ? std::string(r) : std::string(); }

H nops_of(H h) {
    switch (kind_of(h)) {
        case Kind::List:
        case Kind::Set:
        case Kind::Seq:
            return mk_int(int64_t(obj<SeqObj>(h).items.size()));
        case Kind::Expr: {
            auto &e = obj<ExprObj>(h);
            return mk_int(int64_t(e.op == Op::Call || e.op == Op::Index ? e.ops.size() - 1 : e.ops.size()));
        }
        case Kind::Table:
            return mk_int(int64_t(obj<TableObj>(h).entries.size()));
        case Kind::Rational:
        case Kind::Complex:
            return imm(2);
        default:
            return imm(1);
    }
}

std::vector<H> operands(H h) {
    switch (kind_of(h)) {
        case Kind::List:
        case Kind::Set:
        case Kind::Seq:
            return obj<SeqObj>(h).items;
        case Kind::Expr: {
            auto &e = obj<ExprObj>(h);
            if (e.op == Op::Call || e.op == Op::Index) return std::vector<H>(e.ops.begin() + 1, e.ops.end());
            return e.ops;
        }
        case Kind::Rational: {
            auto &q = obj<RatObj>(h).v;
            return {mk_int(mpz_class(q.get_num())), mk_int(mpz_class(q.get_den()))};
        }
        case Kind::Complex:
            return {obj<ComplexObj>(h).re, obj<ComplexObj>(h).im};
        case Kind::Table: {
            std::vector<H> v;
            for (auto &[k, x] : obj<TableObj>(h).entries) v.push_back(mk_expr(Op::Eq, {k, x}));
            return v;
        }
        default:
            return {h};
    }
}

H op_builtin(const std::vector<H> &a) {
    if (a.size() == 1) return mk_seq(operands(a[0]));
    H e = a[1];
    int64_t i = small_int(a[0], "op position");
    if (i == 0) {
        if (kind_of(e) == Kind::Expr) {
            auto &x = obj<ExprObj>(e);
            if (x.op == Op::Call || x.op == Op::Index) return x.ops[0];
        }
        fail("op(0, ...) is not defined for " + print_safe(e));
    }
    auto ops = operands(e);
    int64_t n = int64_t(ops.size());
    if (i > n || i < -n) fail("improper op: " + std::to_string(i) + " out of range for " + print_safe(e));
    H r = ops[size_t(i > 0 ? i - 1 : n + i)];
    return r ? r : K->null_val;
}

H table_builtin(const std::vector<H> &a) {
    H t = alloc(Kind::Table, std::make_unique<TableObj>());
    if (a.empty()) return t;
    auto items = items_of(a[0]);
    int64_t i = 0;
    for (H x : items) {
        ++i;
        if (!x) continue;
        if (kind_of(x) == Kind::Expr && obj<ExprObj>(x).op == Op::Eq) {
            H k = obj<ExprObj>(x).ops[0], v = obj<ExprObj>(x).ops[1];
            obj<TableObj>(t).entries[k] = v;
        } else {
            obj<TableObj>(t).entries[mk_int(i)] = x;
        }
    }
    return t;
}

H kernelopts_builtin(const std::vector<H> &a) {
    H x = a[0];
    if (kind_of(x) == Kind::Expr && obj<ExprObj>(x).op == Op::Eq) {
        H k = obj<ExprObj>(x).ops[0], v = obj<ExprObj>(x).ops[1];
        if (is_name(k) && name_of(k) == "gcthreshold") {
            int64_t n = small_int(v, "gcthreshold");
            if (n < 1) fail("gcthreshold must be positive");
            H old = mk_int(int64_t(K->gc_threshold));
            K->gc_threshold = uint64_t(n);
            return old;
        }
        fail("kernelopts: cannot set " + print_safe(k));
    }
    if (!is_name(x)) fail("kernelopts expects an option name, got " + print_safe(x));
    const std::string &s = name_of(x);
    if (s == "livevalues") return mk_int(int64_t(K->live_cells));
    if (s == "collections") return mk_int(int64_t(K->collections));
    if (s == "bytesalloc") return mk_int(int64_t(K->block_bytes));
    if (s == "gcthreshold") return mk_int(int64_t(K->gc_threshold));
    if (s == "version") return mk_string("Vexel stand-in kernel 1.0");
    fail("kernelopts: unknown option " + s);
}

H redirect(const std::vector<H> &a, const char *mode) {
    int r = 0;
    if (is_name(a[0]) && name_of(a[0]) == "terminal") {
        if (K->cb.redirectCallBack) r = K->cb.redirectCallBack(K->data, nullptr, mode);
    } else {
        std::string name = string_of(a[0]);
        if (K->cb.redirectCallBack) r = K->cb.redirectCallBack(K->data, name.c_str(), mode);
    }
    return mk_bool(r != 0);
}

H streamcall_builtin(const std::vector<H> &a) {
    std::string name = string_of(a[0]);
    std::vector<std::string> texts;
    for (size_t i = 1; i < a.size(); ++i) texts.push_back(string_of(a[i]));
    std::vector<char *> ptrs;
    for (auto &t : texts) ptrs.push_back(t.data());
    ptrs.push_back(nullptr);
    std::string r;
    if (K->cb.streamCallBack)
        r = answer(K->cb.streamCallBack(K->data, name.c_str(), int64_t(texts.size()), ptrs.data()));
    return mk_string(r);
}

H status_builtin(const std::vector<H> &) {
    int64_t used = int64_t((K->live_cells * sizeof(Slot) + K->block_bytes) / 1024);
    int64_t total = int64_t((K->slots.size() * sizeof(Slot) + K->block_bytes) / 1024);
    double cpu = double(std::clock()) / CLOCKS_PER_SEC;
    if (K->cb.statusCallBack) K->cb.statusCallBack(K->data, used, total, cpu);
    return K->null_val;
}

const std::unordered_map<std::string, const Builtin *> &builtins() {
    static const Builtin table[] = {
        {"print", 0, kAnyCount,
         [](const std::vector<H> &a) {
             text_out(VEXEL_TEXT_OUTPUT, join_printed(a));
             return K->null_val;
         }},
        {"lprint", 0, kAnyCount,
         [](const std::vector<H> &a) {
             text_out(VEXEL_TEXT_OUTPUT, join_printed(a));
             return K->null_val;
         }},
        {"WARNING", 1, kAnyCount,
         [](const std::vector<H> &a) {
             text_out(VEXEL_TEXT_WARNING, format_message(string_of(a[0]), std::vector<H>(a.begin() + 1, a.end())));
             return K->null_val;
         }},
        {"evalf", 1, 2,
         [](const std::vector<H> &a) {
             return evalf(a[0]);
         }},
        {"evalhf", 1, 1,
         [](const std::vector<H> &a) {
             H v = evalf(a[0]);
             if (!is_real(v)) fail("cannot evaluate with hardware floats: " + print_safe(a[0]));
             return mk_float(to_double(v));
         }},
        {"eval", 1, 1,
         [](const std::vector<H> &a) {
             return eval_value(a[0]);
         }},
        {"evalb", 1, 1,
         [](const std::vector<H> &a) {
             return mk_bool(truth(a[0]));
         }},
        {"nops", 1, 1,
         [](const std::vector<H> &a) {
             return nops_of(a[0]);
         }},
        {"op", 1, 2, op_builtin},
        {"table", 0, 1, table_builtin},
        {"Array", 0, kAnyCount, [](const std::vector<H> &a) { return rtable_from_call("Array", a); }},
        {"Vector", 0, kAnyCount, [](const std::vector<H> &a) { return rtable_from_call("Vector", a); }},
        {"Matrix", 0, kAnyCount, [](const std::vector<H> &a) { return rtable_from_call("Matrix", a); }},
        {"gc", 0, 0,
         [](const std::vector<H> &) {
             collect();
             return K->null_val;
         }},
        {"kernelopts", 1, 1, kernelopts_builtin},
        {"kernelargs", 0, 0,
         [](const std::vector<H> &) {
             std::vector<H> v;
             for (auto &s : K->args) v.push_back(mk_string(s));
             return mk_list(v);
         }},
        {"readline", 0, 1,
         [](const std::vector<H> &a) {
             int debug = a.empty() ? 0 : truth(a[0]) ? 1 : 0;
             std::string r;
             if (K->cb.readLineCallBack) r = answer(K->cb.readLineCallBack(K->data, debug));
             return mk_string(r);
         }},
        {"writeto", 1, 1, [](const std::vector<H> &a) { return redirect(a, "w"); }},
        {"appendto", 1, 1, [](const std::vector<H> &a) { return redirect(a, "a"); }},
        {"streamcall", 1, kAnyCount, streamcall_builtin},
        {"latex", 1, 1, [](const std::vector<H> &a) { return mk_string(latex(a[0])); }},
        {"plot", 2, 2, plot_builtin},
        {"callback", 1, 1,
         [](const std::vector<H> &a) {
             std::string s = string_of(a[0]);
             std::string r;
             if (K->cb.callBackCallBack) r = answer(K->cb.callBackCallBack(K->data, s.c_str()));
             return mk_string(r);
         }},
        {"interrupted", 0, 0,
         [](const std::vector<H> &) {
             int r = K->cb.queryInterrupt ? K->cb.queryInterrupt(K->data) : 0;
             return mk_bool(r != 0);
         }},
        {"status", 0, 0, status_builtin},
        {"textcallback", 2, 2,
         [](const std::vector<H> &a) {
             int64_t tag = small_int(a[0], "the tag");
             if (tag < INT32_MIN || tag > INT32_MAX) fail("the tag must fit in 32 bits");
             std::string s = string_of(a[1]);
             text_out(int(tag), s);
             return K->null_val;
         }},
        {"errorcallback", 2, 2,
         [](const std::vector<H> &a) {
             int64_t off = small_int(a[0], "the offset");
             std::string s = string_of(a[1]);
             if (K->cb.errorCallBack) K->cb.errorCallBack(K->data, off, s.c_str());
             return K->null_val;
         }},
        {"statuscallback", 3, 3,
         [](const std::vector<H> &a) {
             int64_t x = small_int(a[0], "the first argument");
             int64_t y = small_int(a[1], "the second argument");
             H c = evalf(a[2]);
             if (!is_real(c)) fail("the third argument must be a number");
             if (K->cb.statusCallBack) K->cb.statusCallBack(K->data, x, y, to_double(c));
             return K->null_val;
         }},
        {"pointer", 1, 1,
         [](const std::vector<H> &a) {
             if (!is_int(a[0])) fail("pointer expects an integer address");
             mpz_class v = to_mpz(a[0]);
             if (v < 0 || mpz_sizeinbase(v.get_mpz_t(), 2) > 64) fail("address out of range: " + print_safe(a[0]));
             uint64_t u = 0;
             mpz_export(&u, nullptr, -1, sizeof u, 0, 0, v.get_mpz_t());
             return mk_pointer(reinterpret_cast<void *>(static_cast<uintptr_t>(u)), 0);
         }},
        {"failalloc", 1, 1,
         [](const std::vector<H> &a) {
             int64_t n = small_int(a[0], "the count");
             if (n < 0) fail("failalloc expects a count >= 0");
             K->failalloc = n;
             return K->null_val;
         }},
        {"knownnames", 0, 1,
         [](const std::vector<H> &a) {
             // The names a front end may offer to complete: the built-ins and
             // the names assigned so far, sorted, those that start with the prefix.
             std::string prefix = a.empty() ? std::string() : string_of(a[0]);
             std::set<std::string> names;
             auto starts = [&](const std::string &n) { return n.compare(0, prefix.size(), prefix) == 0; };
             // The hooks that drive callbacks and failures are for tests:
             // offered only to a kernel started with --test-hooks.
             static const std::set<std::string> testHooks = {"textcallback", "errorcallback", "statuscallback",
                                                              "pointer", "failalloc"};
             for (auto &[name, b] : builtins())
                 if (starts(name) && (K->test_hooks || testHooks.count(name) == 0)) names.insert(name);
             if (starts("seq")) names.insert("seq");
             if (K->test_hooks)
                 for (auto &[name, b] : process_hooks())
                     if (starts(name)) names.insert(name);
             for (auto &[name, h] : K->globals)
                 if (obj<NameObj>(h).value && starts(name)) names.insert(name);
             std::vector<H> v;
             for (auto &n : names) v.push_back(mk_string(n));
             return mk_list(v);
         }},
        {"whattype", 1, 1,
         [](const std::vector<H> &a) {
             static const char *const names[] = {"dead",  "integer", "integer", "fraction", "float", "complex",
                                                 "name",  "string",  "list",    "set",      "exprseq", "table",
                                                 "procedure", "rtable", "pointer", "stop", "expression"};
             return global_name(names[size_t(kind_of(a[0]))]);
         }},
    };
    static const std::unordered_map<std::string, const Builtin *> byName = [] {
        std::unordered_map<std::string, const Builtin *> m;
        for (const Builtin &b : table) m.emplace(b.name, &b);
        return m;
    }();
    return byName;
}

// The process-level hooks, for testing what runs the kernel in a separate
// process; they exist only in a kernel started with --test-hooks.
// Not instrumented: a sanitizer build must fault as any other build does,
// not report the store and exit.
[[noreturn]] __attribute__((no_sanitize("undefined", "address"))) void crash_kernel() {
    volatile int *nowhere = nullptr;
    nowhere[0] = 1;
    __builtin_trap();
}

[[noreturn]] void spin_forever() {
    for (uint64_t n = 0;; ++n) asm volatile("" : : "r"(n) : "memory");
}

[[noreturn]] void hog_memory() {
    for (;;) {
        auto *block = static_cast<char *>(std::malloc(1 << 20));
        if (block) std::memset(block, 1, 1 << 20);
        struct timespec pause = {0, 1000000};
        nanosleep(&pause, nullptr);
    }
}

const std::unordered_map<std::string, const Builtin *> &process_hooks() {
    static const Builtin table[] = {
        {"crashkernel", 0, 0, [](const std::vector<H> &) -> H { crash_kernel(); }},
        {"spin", 0, 0, [](const std::vector<H> &) -> H { spin_forever(); }},
        {"hogmemory", 0, 0, [](const std::vector<H> &) -> H { hog_memory(); }},
    };
    static const std::unordered_map<std::string, const Builtin *> byName = [] {
        std::unordered_map<std::string, const Builtin *> m;
        for (const Builtin &b : table) m.emplace(b.name, &b);
        return m;
    }();
    return byName;
}

// The builtin of a name, or null; the hooks only with --test-hooks.
const Builtin *builtin_of(const std::string &s) {
    auto &b = builtins();
    auto it = b.find(s);
    if (it != b.end()) return it->second;
    if (!K->test_hooks) return nullptr;
    auto &h = process_hooks();
    auto hook = h.find(s);
    return hook == h.end() ? nullptr : hook->second;
}

bool is_builtin_name(const std::string &s) { return s == "seq" || builtin_of(s) != nullptr; }

H seq_special(const Node &call) {
    if (call.kids.size() != 3) fail_at("seq expects an expression and a variable = range", call.pos);
    const Node &body = *call.kids[1];
    const Node &range_arg = *call.kids[2];
    if (range_arg.t != NT::Bin || range_arg.op != BinOp::Eq || range_arg.kids[0]->t != NT::Name)
        fail_at("seq expects a variable = range", range_arg.pos);
    const std::string &var = range_arg.kids[0]->text;
    H over = eval(*range_arg.kids[1]);
    std::vector<H> out;
    if (kind_of(over) == Kind::Expr && obj<ExprObj>(over).op == Op::Range) {
        int64_t lo = small_int(obj<ExprObj>(over).ops[0], "the range start");
        int64_t hi = small_int(obj<ExprObj>(over).ops[1], "the range end");
        for (int64_t i = lo; i <= hi; ++i) {
            poll_interrupt();
            set_var(var, mk_int(i));
            out.push_back(eval(body));
            if (i == INT64_MAX) break;
        }
    } else {
        for (H x : items_of(over)) {
            poll_interrupt();
            set_var(var, x);
            out.push_back(eval(body));
        }
    }
    out = flatten(out);
    return out.size() == 1 ? out[0] : mk_seq(out);
}

[[gnu::noinline]] H eval_bin(const Node &n, bool quoted) {
    BinOp op = n.op;
    if (op == BinOp::And || op == BinOp::Or) {
        H a = eval(*n.kids[0], quoted);
        auto ta = truth_maybe(a);
        bool is_and = op == BinOp::And;
        if (ta && *ta != is_and) return mk_bool(!is_and);
        H b = eval(*n.kids[1], quoted);
        auto tb = truth_maybe(b);
        if (ta && tb) return mk_bool(*tb);
        if (tb && *tb != is_and) return mk_bool(!is_and);
        if (ta) return b;
        if (tb) return a;
        return mk_expr(is_and ? Op::And : Op::Or, {a, b});
    }
    H a = eval(*n.kids[0], quoted);
    H b = eval(*n.kids[1], quoted);
    no_seq(a);
    no_seq(b);
    switch (op) {
        case BinOp::Add:
            return add(a, b);
        case BinOp::Sub:
            return sub(a, b);
        case BinOp::Mul:
            return mul(a, b);
        case BinOp::Div:
            return divide(a, b);
        case BinOp::Pow:
            return power(a, b);
        case BinOp::Eq:
            return mk_expr(Op::Eq, {a, b});
        case BinOp::Neq:
            return mk_expr(Op::Neq, {a, b});
        case BinOp::Lt:
            return relation(Op::Lt, a, b);
        case BinOp::Le:
            return relation(Op::Le, a, b);
        case BinOp::Gt:
            return relation(Op::Lt, b, a);
        case BinOp::Ge:
            return relation(Op::Le, b, a);
        case BinOp::Range:
            return mk_expr(Op::Range, {a, b});
        default:
            fail("internal error: operator");
    }
}

H eval_int(const std::string &text) {
    int64_t v;
    auto r = std::from_chars(text.data(), text.data() + text.size(), v);
    if (r.ec == std::errc() && r.ptr == text.data() + text.size()) return mk_int(v);
    return mk_int(mpz_class(text));
}

// The cases of eval live in functions of their own, so that the frame of the
// recursive eval stays small (it matters under the sanitizers).
[[gnu::noinline]] H eval_number(const Node &n) {
    if (n.t == NT::Int) return eval_int(n.text);
    double d = 0;
    auto r = std::from_chars(n.text.data(), n.text.data() + n.text.size(), d);
    if (r.ec == std::errc::result_out_of_range) d = std::strtod(n.text.c_str(), nullptr);
    return mk_float(d);
}

[[gnu::noinline]] H eval_elements(const Node &n, bool quoted) {
    std::vector<H> v;
    for (auto &k : n.kids) v.push_back(eval(*k, quoted));
    v = flatten(v);
    for (H h : v)
        if (!h) fail("unfilled element in a sequence");
    if (n.t == NT::List) return mk_list(v);
    if (n.t == NT::Set) return mk_set(v);
    if (v.empty()) return K->null_val;
    return v.size() == 1 ? v[0] : mk_seq(v);
}

[[gnu::noinline]] H eval_unary(const Node &n, bool quoted) {
    H a = eval(*n.kids[0], quoted);
    if (n.t == NT::Neg) {
        no_seq(a);
        return negate(a);
    }
    auto t = truth_maybe(a);
    return t ? mk_bool(!*t) : mk_expr(Op::Not, {a});
}

[[gnu::noinline]] H eval_call(const Node &n, bool quoted) {
    const Node &f = *n.kids[0];
    if (!quoted && f.t == NT::Name && f.text == "seq" && !frame_var("seq") && !obj<NameObj>(global_name("seq")).value)
        return seq_special(n);
    H fn = eval(f, quoted);
    std::vector<H> args;
    for (size_t i = 1; i < n.kids.size(); ++i) args.push_back(eval(*n.kids[i], quoted));
    args = flatten(args);
    if (quoted) {
        args.insert(args.begin(), fn);
        return mk_expr(Op::Call, args);
    }
    return call_function(fn, args);
}

[[gnu::noinline]] H eval_index(const Node &n, bool quoted) {
    const Node &b = *n.kids[0];
    H base = eval(b, quoted);
    std::vector<H> idx;
    for (size_t i = 1; i < n.kids.size(); ++i) idx.push_back(eval(*n.kids[i], quoted));
    idx = flatten(idx);
    H base_name = b.t == NT::Name ? name_cell(b.text) : 0;
    return index_value(base, idx, base_name);
}

[[gnu::noinline]] H eval_proc(const Node &n) {
    auto o = std::make_unique<ProcObj>();
    o->def = n.proc;
    return alloc(Kind::Proc, std::move(o));
}

H eval(const Node &n, bool quoted) {
    stack_check();
    switch (n.t) {
        case NT::Int:
        case NT::Float:
            return eval_number(n);
        case NT::Str:
            return mk_string(n.text);
        case NT::Name:
            return quoted ? name_cell(n.text) : lookup(n.text);
        case NT::Seq:
        case NT::List:
        case NT::Set:
            return eval_elements(n, quoted);
        case NT::Bin:
            return eval_bin(n, quoted);
        case NT::Neg:
        case NT::Not:
            return eval_unary(n, quoted);
        case NT::Call:
            return eval_call(n, quoted);
        case NT::Index:
            return eval_index(n, quoted);
        case NT::Quote: {
            H v = eval(*n.kids[0], true);
            return quoted ? mk_expr(Op::Uneval, {v}) : v;
        }
        case NT::Proc:
            return eval_proc(n);
        default:
            fail_at("internal error: not an expression", n.pos);
    }
}

void print_nested(H v) {
    if (K->frames.size() == g_print_frames && v && !is_null(v)) text_out(VEXEL_TEXT_OUTPUT, print(v));
}

Flow run_body(const Node &body, Exec &x, Flow &out) {
    Flow f = exec(body, x);
    if (f == Flow::Break || f == Flow::Return || f == Flow::Quit) {
        out = f == Flow::Break ? Flow::Normal : f;
        return Flow::Break;
    }
    return Flow::Normal;  // Normal or Next: go on with the loop
}

[[gnu::noinline]] Flow exec_for(const Node &s, Exec &x) {
    const std::string &var = s.text;
    const Node *from = s.kids[0].get(), *by = s.kids[1].get(), *to = s.kids[2].get(), *cond = s.kids[3].get(),
               *in = s.kids[4].get(), *body = s.kids[5].get();
    Flow out = Flow::Normal;
    if (in) {
        H over = eval(*in);
        std::vector<H> items = kind_of(over) == Kind::Expr ? operands(over) : items_of(over);
        for (H item : items) {
            poll_interrupt();
            set_var(var, item ? item : K->null_val);
            if (cond && !truth(eval(*cond))) break;
            if (run_body(*body, x, out) == Flow::Break) break;
        }
        return out;
    }
    if (var.empty()) {  // while c do ... end do, do ... end do
        for (;;) {
            poll_interrupt();
            if (cond && !truth(eval(*cond))) break;
            if (run_body(*body, x, out) == Flow::Break) break;
        }
        return out;
    }
    H i = from ? eval(*from) : imm(1);
    H step = by ? eval(*by) : imm(1);
    H end = to ? eval(*to) : 0;
    if (!is_real(i) || !is_real(step) || (end && !is_real(end)))
        fail("for loop bounds must be numbers");
    bool up = !(compare(step, imm(0)) < 0 && is_real(step) && to_double(step) < 0);
    for (;;) {
        poll_interrupt();
        set_var(var, i);  // after the loop the variable holds the first value past the end
        if (end) {
            H c = up ? relation(Op::Le, i, end) : relation(Op::Le, end, i);
            if (!truth(c)) break;
        }
        if (cond && !truth(eval(*cond))) break;
        if (run_body(*body, x, out) == Flow::Break) break;
        i = add(i, step);
    }
    return out;
}

[[gnu::noinline]] Flow exec_assign(const Node &s, Exec &x) {
    const Node &target = *s.kids[0];
    if (target.t == NT::Seq) {
        std::vector<H> vals = flatten({eval(*s.kids[1])});
        if (vals.size() != target.kids.size()) fail_at("the numbers of targets and values differ", s.pos);
        for (size_t i = 0; i < vals.size(); ++i) assign_to(*target.kids[i], vals[i]);
    } else {
        assign_to(target, eval(*s.kids[1]));
    }
    x.val = 0;
    return Flow::Normal;
}

[[gnu::noinline]] Flow exec_restart(const Node &s, Exec &x, bool restart_ok) {
    if (!restart_ok || K->depth != 1 || !K->frames.empty())
        fail_at("restart is only allowed as a top-level statement", s.pos);
    std::optional<VexelError> err;
    try {
        discard_all(true);
    } catch (VexelError &e) {
        err = e;
    }
    make_permanent_values();
    if (K->restart_cb) K->restart_cb(K->data);
    if (err) throw *err;
    x.val = 0;
    return Flow::Normal;
}

[[noreturn, gnu::noinline]] void exec_error(const Node &s) {
    std::vector<H> a;
    if (!s.kids.empty()) a = flatten({eval(*s.kids[0])});
    if (a.empty()) fail("error");
    if (is_string(a[0])) fail(format_message(string_of(a[0]), std::vector<H>(a.begin() + 1, a.end())));
    fail(join_printed(a));
}

Flow exec(const Node &s, Exec &x) {
    stack_check();
    bool restart_ok = g_restart_ok;
    g_restart_ok = false;
    switch (s.t) {
        case NT::Empty:
            x.val = 0;
            return Flow::Normal;
        case NT::ExprStmt: {
            H v = eval(*s.kids[0]);
            x.val = v;
            print_nested(v);
            return Flow::Normal;
        }
        case NT::Assign:
            return exec_assign(s, x);
        case NT::Block:
            for (auto &k : s.kids) {
                Flow f = exec(*k, x);
                if (f != Flow::Normal) return f;
            }
            return Flow::Normal;
        case NT::If: {
            size_t n = s.kids.size();
            for (size_t i = 0; i + 1 < n; i += 2) {
                if (truth(eval(*s.kids[i]))) return exec(*s.kids[i + 1], x);
            }
            if (n % 2 == 1) return exec(*s.kids[n - 1], x);
            return Flow::Normal;
        }
        case NT::For:
        case NT::While:
            return exec_for(s, x);
        case NT::Return:
            if (K->frames.empty()) fail_at("return is only allowed inside a procedure", s.pos);
            x.ret = s.kids.empty() ? K->null_val : eval(*s.kids[0]);
            return Flow::Return;
        case NT::Break:
            return Flow::Break;
        case NT::Next:
            return Flow::Next;
        case NT::Restart:
            return exec_restart(s, x, restart_ok);
        case NT::Quit:
            if (!K->frames.empty()) fail_at("quit is only allowed outside procedures", s.pos);
            x.val = K->stop_val;
            return Flow::Quit;
        case NT::Error:
            exec_error(s);
        default:
            fail_at("internal error: not a statement", s.pos);
    }
}

}  // namespace

void text_out(int tag, const std::string &s) {
    if (K->cb.textCallBack) K->cb.textCallBack(K->data, tag, s.c_str());
}

void poll_interrupt() {
    if (K->cb.queryInterrupt && K->cb.queryInterrupt(K->data)) fail("computation interrupted");
}

void mark_frames() {
    for (Frame *f : K->frames) {
        for (auto &[name, v] : f->vars)
            if (v && !is_imm(v)) K->worklist.push_back(v);
        for (H v : f->args)
            if (v && !is_imm(v)) K->worklist.push_back(v);
    }
}

std::string print_proc(H h) {
    auto &def = *obj<ProcObj>(h).def;
    std::string s = "proc (";
    for (size_t i = 0; i < def.params.size(); ++i) {
        if (i) s += ", ";
        s += def.params[i];
    }
    return s + ") ... end proc";
}

H call_procedure(H ph, const std::vector<H> &args) {
    std::shared_ptr<const ProcDef> def = obj<ProcObj>(ph).def;
    if (K->frames.size() >= 400) fail("too many levels of recursion");
    Frame f;
    f.def = def;
    f.args = args;
    for (size_t i = 0; i < def->params.size(); ++i) f.vars.emplace_back(def->params[i], i < args.size() ? args[i] : 0);
    for (auto &l : def->locals) f.vars.emplace_back(l, local_name(l));
    K->frames.push_back(&f);
    struct Pop {
        ~Pop() { K->frames.pop_back(); }
    } pop;
    Exec x;
    Flow fl = exec(*def->body, x);
    if (fl == Flow::Return) return x.ret;
    if (fl == Flow::Break || fl == Flow::Next) fail("break or next outside a loop");
    return x.val ? x.val : K->null_val;
}

H call_function(H f, const std::vector<H> &args) {
    for (H a : args)
        if (!a) fail("unfilled element in the arguments");
    Kind k = kind_of(f);
    if (k == Kind::Proc) return call_procedure(f, args);
    if (k == Kind::Name && obj<NameObj>(f).global && !obj<NameObj>(f).value) {
        if (const Builtin *b = builtin_of(obj<NameObj>(f).name)) {
            want_args(args, b->min_args, b->max_args, b->name);
            return b->run(args);
        }
        // An elementary function of a float gives a float where the result is a real number;
        // of anything else (an exact number, a name) it stays as it is.
        if (args.size() == 1 && kind_of(args[0]) == Kind::Float) {
            if (RealFunction fn = elementary(obj<NameObj>(f).name)) {
                double y = fn(to_double(args[0]));
                if (std::isfinite(y)) return mk_float(y);
            }
        }
    }
    std::vector<H> ops{f};
    ops.insert(ops.end(), args.begin(), args.end());
    return mk_expr(Op::Call, ops);
}

H eval_statements(const std::string &text) {
    Parser p(text);
    H result = 0;
    bool outer = K->depth == 1;
    while (!p.at_end()) {
        if (outer) {
            maybe_collect();
            K->inuse_begin = K->serial;
        }
        NodeP st = p.top_statement();
        Exec x;
        size_t saved_print = g_print_frames;
        g_print_frames = st->term == ';' && st->t != NT::ExprStmt ? K->frames.size() : size_t(-1);
        g_restart_ok = true;
        Flow f;
        try {
            f = exec(*st, x);
        } catch (...) {
            g_print_frames = saved_print;
            g_restart_ok = false;
            throw;
        }
        g_print_frames = saved_print;
        g_restart_ok = false;
        if (f == Flow::Break || f == Flow::Next) fail_at("break or next outside a loop", st->pos);
        result = x.val;
        if (st->t == NT::ExprStmt && st->term == ';' && result && !is_null(result))
            text_out(VEXEL_TEXT_OUTPUT, print(result));
        if (f == Flow::Quit) return K->stop_val;
    }
    return result;
}

}  // namespace vx
