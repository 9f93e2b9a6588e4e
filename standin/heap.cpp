// Cells, handles, VexelAlloc blocks and the mark-and-sweep collector.
#include "core.hpp"
#include "rtable.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <pthread.h>

namespace vx {

Kernel *K = nullptr;

// Generations grow across kernels, so that a handle of a stopped kernel never
// names a cell of a later one.
static uint32_t g_max_gen = 1;

static uint32_t next_gen(uint32_t g) {
    uint32_t n = std::max(g, g_max_gen) + 1;
    if (n == 0) n = 1;
    g_max_gen = n;
    return n;
}

// The lowest address of the calling thread's stack, 0 when unknown.
static uintptr_t thread_stack_low() {
    thread_local uintptr_t low = 0;
    thread_local bool known = false;
    if (!known) {
        known = true;
        pthread_attr_t attr;
        if (pthread_getattr_np(pthread_self(), &attr) == 0) {
            void *addr = nullptr;
            size_t size = 0;
            if (pthread_attr_getstack(&attr, &addr, &size) == 0) low = reinterpret_cast<uintptr_t>(addr);
            pthread_attr_destroy(&attr);
        }
    }
    return low;
}

static uintptr_t stack_limit_below(uintptr_t base) {
    // Leave room below the limit for the embedder's callbacks (a Java thread
    // has 1 MB of stack by default), and never use more than 64 MB.
    constexpr uintptr_t kMargin = 256 * 1024, kMax = 64 * 1024 * 1024, kFallback = 384 * 1024;
    uintptr_t low = thread_stack_low();
    uintptr_t limit = base > kMax ? base - kMax : 0;
    if (low && low + kMargin > limit) limit = low + kMargin;
    if (!low) limit = base > kFallback ? base - kFallback : 0;
    return limit;
}

void stack_check() {
    uintptr_t here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    if (!K->stack_limit) K->stack_limit = stack_limit_below(K->stack_base);
    if (here < K->stack_limit) fail("too many levels of recursion");
}

void fail(std::string msg) { throw VexelError{std::move(msg), -1}; }
void fail_at(std::string msg, int64_t offset) { throw VexelError{std::move(msg), offset}; }

void fail_invalid() { fail("invalid or reclaimed value"); }

// The handle of the live cell in slot idx.
static uint64_t handle_of(uint32_t idx) { return (uint64_t(K->slots[idx].gen) << 32) | (uint64_t(idx) << 1); }

// Runs the dispose function of the pointer value in slot idx, once; the
// first error of a pass is kept and raised when the pass is done.
static void dispose_pointer(uint32_t idx, std::optional<VexelError> &first_error) {
    Slot &s = K->slots[idx];
    if (s.kind != Kind::Pointer) return;
    auto &p = static_cast<PointerObj &>(*s.obj);
    if (!p.dispose) return;
    VexelPointerFunc f = p.dispose;
    p.dispose = nullptr;
    try {
        f(to_algeb(handle_of(idx)));
    } catch (VexelError &e) {
        if (!first_error) first_error = e;
    }
}

H alloc(Kind k, std::unique_ptr<Obj> o) {
    uint32_t idx;
    if (!K->free_slots.empty()) {
        idx = K->free_slots.back();
        K->free_slots.pop_back();
    } else {
        if (K->slots.size() >= (size_t(1) << 31)) fail("out of memory: too many values");
        idx = uint32_t(K->slots.size());
        K->slots.emplace_back();
        K->slots.back().gen = next_gen(1);
    }
    Slot &s = K->slots[idx];
    s.obj = std::move(o);
    s.kind = k;
    s.mark = false;
    s.birth = K->serial++;
    ++K->live_cells;
    ++K->allocs_since_gc;
    return handle_of(idx);
}

static void free_slot(uint32_t idx) {
    Slot &s = K->slots[idx];
    if (s.kind == Kind::String) {
        // Text handed out by VexelToString dies with the value: make a stale read visible.
        std::string &text = static_cast<StringObj &>(*s.obj).s;
        std::memset(text.data(), 0xDD, text.size());
    }
    s.obj.reset();  // the cell's memory goes back to the allocator: a stale use shows up under ASan
    s.kind = Kind::Dead;
    s.mark = false;
    s.gen = next_gen(s.gen);
    --K->live_cells;
    K->free_slots.push_back(idx);
}

// ---- VexelAlloc blocks ----

// Blocks up to this size come from chunks, except under AddressSanitizer,
// where each block is its own allocation so that overruns are caught.
#if defined(__SANITIZE_ADDRESS__)
constexpr size_t kSmallBlock = 0;
#else
constexpr size_t kSmallBlock = 256;
#endif
constexpr size_t kChunkBytes = 64 * 1024;

static void *chunk_alloc(size_t n) {
    size_t size = (n + 15) & ~size_t(15);
    if (K->chunks.empty() || K->chunks.back().used + size > kChunkBytes) {
        auto *base = static_cast<uint8_t *>(std::malloc(kChunkBytes));
        if (!base) return nullptr;
        K->chunks.push_back(Chunk{base, 0, 0, 0});
    }
    Chunk &c = K->chunks.back();
    void *p = c.base + c.used;
    c.used += size;
    c.bytes += n;
    c.newest = K->serial++;
    std::memset(p, 0xA5, n);
    K->block_bytes += n;
    ++K->allocs_since_gc;
    return p;
}

static void free_chunks(uint64_t keep_from) {
    size_t kept = 0;
    for (Chunk &c : K->chunks) {
        if (c.newest < keep_from) {
            std::free(c.base);
            K->block_bytes -= c.bytes;
        } else {
            K->chunks[kept++] = c;
        }
    }
    K->chunks.resize(kept);
}

void *block_alloc(size_t n) {
    if (K->failalloc > 0 && --K->failalloc == 0) return nullptr;
    if (n > (size_t(1) << 40)) return nullptr;
    if (n > 0 && n <= kSmallBlock) return chunk_alloc(n);
    void *p = std::malloc(n ? n : 1);
    if (!p) return nullptr;
    std::memset(p, 0xA5, n ? n : 1);
    K->blocks.push_back(Block{p, n, K->serial++});
    K->block_bytes += n;
    ++K->allocs_since_gc;
    return p;
}

// ---- marking ----

static void mark_children(Slot &s);

void gc_mark(H h) {
    if (!K->marking) fail("VexelGcMark called outside a collection");
    if (h == 0) fail("invalid or reclaimed value");
    if (is_imm(h)) {
        check(h);
        return;
    }
    Slot *s = slot_of(h);
    if (!s) fail("invalid or reclaimed value");
    // Marked here while the cell is at hand, so that a long run of marks from
    // an embedder does not visit each cell twice. A pointer value goes to the
    // worklist, whose drain runs its mark function.
    if (s->mark) return;
    if (s->kind == Kind::Pointer) {
        K->worklist.push_back(h);
        return;
    }
    s->mark = true;
    mark_children(*s);
}

void gc_protect(H h) {
    check(h);
    if (!is_imm(h)) K->protected_vals.insert(h);
}

static void push(H h) {
    if (h && !is_imm(h)) K->worklist.push_back(h);
}

static void mark_children(Slot &s) {
    switch (s.kind) {
        case Kind::Complex: {
            auto &c = static_cast<ComplexObj &>(*s.obj);
            push(c.re);
            push(c.im);
            break;
        }
        case Kind::Name:
            push(static_cast<NameObj &>(*s.obj).value);
            break;
        case Kind::List:
        case Kind::Set:
        case Kind::Seq:
            for (H x : static_cast<SeqObj &>(*s.obj).items) push(x);
            break;
        case Kind::Table:
            for (auto &[k, v] : static_cast<TableObj &>(*s.obj).entries) {
                push(k);
                push(v);
            }
            break;
        case Kind::Expr:
            for (H x : static_cast<ExprObj &>(*s.obj).ops) push(x);
            break;
        case Kind::RTable:
            rtable_mark(static_cast<RTableObj &>(*s.obj));
            break;
        default:
            break;
    }
}

static void drain(std::vector<std::pair<H, VexelPointerFunc>> &marks) {
    while (!K->worklist.empty()) {
        H h = K->worklist.back();
        K->worklist.pop_back();
        Slot *s = slot_of(h);
        if (!s || s->mark) continue;
        s->mark = true;
        mark_children(*s);
        if (s->kind == Kind::Pointer) {
            auto &p = static_cast<PointerObj &>(*s->obj);
            if (p.mark) marks.emplace_back(h, p.mark);
        }
    }
}

static void clear_marks() {
    for (auto &s : K->slots) s.mark = false;
    K->worklist.clear();
}

void unique_forget(H h) {
    auto it = K->unique_hash_of.find(h);
    if (it == K->unique_hash_of.end()) return;
    auto range = K->unique_by_hash.equal_range(it->second);
    for (auto i = range.first; i != range.second; ++i) {
        if (i->second == h) {
            K->unique_by_hash.erase(i);
            break;
        }
    }
    K->unique_hash_of.erase(it);
}

void unique_forget_all() {
    K->unique_by_hash.clear();
    K->unique_hash_of.clear();
}

void collect() {
    // Only the outermost operation collects, and never while collecting.
    if (K->depth != 1 || K->collecting) return;
    K->collecting = true;
    uint64_t begin = K->serial;
    uint64_t keep_from = std::min(K->last_gc_begin, K->inuse_begin);

    // Roots.
    K->worklist.clear();
    for (auto &[name, h] : K->globals) push(h);
    for (H h : K->protected_vals) push(h);
    for (H h : K->op_roots) push(h);
    push(K->null_val);
    push(K->stop_val);
    for (H h : K->dtype_vals) push(h);
    mark_frames();
    for (size_t i = 0; i < K->slots.size(); ++i) {
        Slot &s = K->slots[i];
        if (s.kind != Kind::Dead && s.birth >= keep_from) push(handle_of(uint32_t(i)));
    }

    // Mark; a pointer value's mark function runs once the pointer is reached and
    // may mark more through VexelGcMark.
    K->marking = true;
    try {
        std::vector<std::pair<H, VexelPointerFunc>> marks;
        drain(marks);
        while (!marks.empty()) {
            auto [h, f] = marks.back();
            marks.pop_back();
            f(to_algeb(h));
            drain(marks);
        }
    } catch (...) {
        K->marking = false;
        clear_marks();
        K->collecting = false;
        throw;
    }
    K->marking = false;

    // Sweep: dispose functions first, while every dying cell is still valid.
    std::vector<uint32_t> dead;
    for (size_t i = 0; i < K->slots.size(); ++i) {
        Slot &s = K->slots[i];
        if (s.kind != Kind::Dead && !s.mark && s.birth < keep_from) dead.push_back(uint32_t(i));
    }
    std::optional<VexelError> first_error;
    for (uint32_t i : dead) dispose_pointer(i, first_error);
    for (uint32_t i : dead) {
        unique_forget(handle_of(i));
        free_slot(i);
    }
    for (auto &s : K->slots) s.mark = false;

    // Blocks made before the previous collection began and before the current
    // statement are reclaimed.
    std::vector<Block> keep;
    keep.reserve(K->blocks.size());
    for (auto &b : K->blocks) {
        if (b.birth < keep_from) {
            std::free(b.p);
            K->block_bytes -= b.n;
        } else {
            keep.push_back(b);
        }
    }
    K->blocks.swap(keep);
    free_chunks(keep_from);

    K->last_gc_begin = begin;
    K->allocs_since_gc = 0;
    ++K->collections;
    K->collecting = false;
    if (first_error) throw *first_error;
}

void maybe_collect() {
    if (K->allocs_since_gc >= K->gc_threshold) collect();
}

// Restart and stop: run every dispose function, then drop every value.
void discard_all(bool run_dispose) {
    std::optional<VexelError> first_error;
    if (run_dispose) {
        for (size_t i = 0; i < K->slots.size(); ++i) dispose_pointer(uint32_t(i), first_error);
    }
    for (size_t i = 0; i < K->slots.size(); ++i)
        if (K->slots[i].kind != Kind::Dead) free_slot(uint32_t(i));
    K->globals.clear();
    K->protected_vals.clear();
    K->op_roots.clear();
    unique_forget_all();
    for (auto &b : K->blocks) std::free(b.p);
    K->blocks.clear();
    free_chunks(UINT64_MAX);
    K->block_bytes = 0;
    K->null_val = K->stop_val = K->true_name = K->false_name = K->sfloat_name = 0;
    for (H &h : K->dtype_vals) h = 0;
    K->last_gc_begin = K->serial;
    K->allocs_since_gc = 0;
    if (first_error) throw *first_error;
}

void make_permanent_values() {
    K->null_val = mk_seq({});
    K->stop_val = alloc(Kind::Stop, std::make_unique<StopObj>());
    K->true_name = global_name("true");
    K->false_name = global_name("false");
    K->sfloat_name = global_name("sfloat");
    H anything = global_name("anything");
    H integer = global_name("integer");
    H flt = global_name("float");
    H cx = global_name("complex");
    K->dtype_vals[RTABLE_DAG] = anything;
    K->dtype_vals[RTABLE_CXDAG] = mk_expr(Op::Call, {cx, K->sfloat_name});
    K->dtype_vals[RTABLE_INTEGER8] = mk_expr(Op::Index, {integer, imm(1)});
    K->dtype_vals[RTABLE_INTEGER16] = mk_expr(Op::Index, {integer, imm(2)});
    K->dtype_vals[RTABLE_INTEGER32] = mk_expr(Op::Index, {integer, imm(4)});
    K->dtype_vals[RTABLE_INTEGER64] = mk_expr(Op::Index, {integer, imm(8)});
    K->dtype_vals[RTABLE_FLOAT64] = mk_expr(Op::Index, {flt, imm(8)});
    K->dtype_vals[RTABLE_COMPLEX64] = mk_expr(Op::Index, {cx, imm(8)});
    K->dtype_vals[RTABLE_FLOAT32] = mk_expr(Op::Index, {flt, imm(4)});
    K->dtype_vals[RTABLE_TRUEFALSE] = global_name("truefalse");
}

}  // namespace vx
