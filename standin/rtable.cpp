// Rectangular tables.
#include "rtable.hpp"

#include <charconv>
#include <cmath>
#include <cstring>
#include <functional>

namespace vx {

namespace {

const char *const kTypeNames[] = {"anything",  "complex(sfloat)", "integer[1]", "integer[2]", "integer[4]",
                                  "integer[8]", "float[8]",        "complex[8]", "float[4]",   "truefalse"};

size_t elem_size(int32_t code) {
    static const size_t sizes[] = {8, 16, 1, 2, 4, 8, 8, 16, 4, 4};
    return sizes[code];
}

// One element on its way between tables, without making cells for primitives.
struct Elt {
    enum { Val, Int, Dbl, Cx } k = Int;
    H h = 0;       // Val: the value
    H h2 = 0;      // Val from a code-1 table: the imaginary part (0: none)
    int64_t i = 0;
    double re = 0, im = 0;
};

[[noreturn, gnu::cold, gnu::noinline]] void out_of_bounds(const RTableObj &t, int d, int64_t i) {
    fail("index out of bounds: " + std::to_string(i) + " is not in " + std::to_string(t.lo[d]) + ".." +
         std::to_string(t.hi[d]) + " (dimension " + std::to_string(d + 1) + ")");
}

inline int64_t linear_of(const RTableObj &t, const int64_t *index) {
    int64_t off = 0, stride = 1;
    for (int d = 0; d < t.ndim; ++d) {
        int64_t i = index[d];
        if (i < t.lo[d] || i > t.hi[d]) out_of_bounds(t, d, i);
        off += (i - t.lo[d]) * stride;
        stride *= t.hi[d] - t.lo[d] + 1;
    }
    return off;
}

Elt load(RTableObj &t, int64_t linear) {
    Elt e;
    uint8_t *p = t.at(linear, false);
    uint8_t zero[16] = {};
    if (!p) p = zero;
    switch (t.code) {
        case RTABLE_DAG: {
            H h;
            std::memcpy(&h, p, 8);
            e.k = Elt::Val;
            e.h = h ? h : imm(0);
            break;
        }
        case RTABLE_CXDAG: {
            H a[2];
            std::memcpy(a, p, 16);
            e.k = Elt::Val;
            e.h = a[0] ? a[0] : imm(0);
            e.h2 = a[1] ? a[1] : imm(0);
            break;
        }
        case RTABLE_INTEGER8:
            e.i = int8_t(p[0]);
            break;
        case RTABLE_INTEGER16: {
            int16_t v;
            std::memcpy(&v, p, 2);
            e.i = v;
            break;
        }
        case RTABLE_INTEGER32:
        case RTABLE_TRUEFALSE: {
            int32_t v;
            std::memcpy(&v, p, 4);
            e.i = v;
            break;
        }
        case RTABLE_INTEGER64:
            std::memcpy(&e.i, p, 8);
            break;
        case RTABLE_FLOAT64:
            e.k = Elt::Dbl;
            std::memcpy(&e.re, p, 8);
            break;
        case RTABLE_COMPLEX64:
            e.k = Elt::Cx;
            std::memcpy(&e.re, p, 8);
            std::memcpy(&e.im, p + 8, 8);
            break;
        case RTABLE_FLOAT32: {
            float f;
            std::memcpy(&f, p, 4);
            e.k = Elt::Dbl;
            e.re = f;
            break;
        }
    }
    return e;
}

H elt_value(const RTableObj &t, const Elt &e) {
    switch (e.k) {
        case Elt::Val:
            return e.h2 ? mk_complex(e.h, e.h2) : e.h;
        case Elt::Int:
            if (t.code == RTABLE_TRUEFALSE) return mk_bool(e.i != 0);
            return mk_int(e.i);
        case Elt::Dbl:
            return mk_float(e.re);
        case Elt::Cx:
            return mk_complex(mk_float(e.re), mk_float(e.im));
    }
    return imm(0);
}

// The real and imaginary parts of an element as values.
void elt_parts(const RTableObj &t, const Elt &e, H &re, H &im) {
    if (e.k == Elt::Val) {
        if (e.h2) {
            re = e.h;
            im = e.h2;
        } else {
            re = real_part(e.h);
            im = imag_part(e.h);
        }
        return;
    }
    if (e.k == Elt::Cx) {
        re = mk_float(e.re);
        im = mk_float(e.im);
        return;
    }
    re = elt_value(t, e);
    im = imm(0);
}

bool elt_real_double(const Elt &e, double &d) {
    if (e.k == Elt::Int) {
        d = double(e.i);
        return true;
    }
    if (e.k == Elt::Dbl) {
        d = e.re;
        return true;
    }
    if (e.k == Elt::Val && !e.h2 && is_real(e.h)) {
        d = to_double(e.h);
        return true;
    }
    return false;
}

void store_int(RTableObj &t, uint8_t *p, int64_t v, H what) {
    auto too_wide = [&] { fail("integer " + (what ? print_safe(what) : std::to_string(v)) + " does not fit " + kTypeNames[t.code]); };
    switch (t.code) {
        case RTABLE_INTEGER8:
            if (v < INT8_MIN || v > INT8_MAX) too_wide();
            p[0] = uint8_t(int8_t(v));
            break;
        case RTABLE_INTEGER16: {
            if (v < INT16_MIN || v > INT16_MAX) too_wide();
            int16_t x = int16_t(v);
            std::memcpy(p, &x, 2);
            break;
        }
        case RTABLE_INTEGER32: {
            if (v < INT32_MIN || v > INT32_MAX) too_wide();
            int32_t x = int32_t(v);
            std::memcpy(p, &x, 4);
            break;
        }
        default:
            std::memcpy(p, &v, 8);
            break;
    }
}

// Stores an element, converting it to the table's data type; raises when it does not fit.
void store(RTableObj &t, int64_t linear, const Elt &e) {
    uint8_t buf[16] = {};
    switch (t.code) {
        case RTABLE_DAG: {
            H v = elt_value(t, e);
            if (t.sfloat && !is_numeric(v)) fail("an sfloat table holds numbers, not " + print_safe(v));
            std::memcpy(buf, &v, 8);
            break;
        }
        case RTABLE_CXDAG: {
            H re, im;
            elt_parts(t, e, re, im);
            if (!is_real(re) || !is_real(im)) fail("a complex(sfloat) table holds numbers");
            std::memcpy(buf, &re, 8);
            std::memcpy(buf + 8, &im, 8);
            break;
        }
        case RTABLE_INTEGER8:
        case RTABLE_INTEGER16:
        case RTABLE_INTEGER32:
        case RTABLE_INTEGER64: {
            if (e.k == Elt::Int) {
                store_int(t, buf, e.i, 0);
            } else if (e.k == Elt::Val && !e.h2 && is_int(e.h)) {
                int64_t v;
                if (!int_fits64(e.h, &v)) fail("integer " + print_safe(e.h) + " does not fit " + kTypeNames[t.code]);
                store_int(t, buf, v, e.h);
            } else {
                fail(std::string("a table of ") + kTypeNames[t.code] + " holds integers");
            }
            break;
        }
        case RTABLE_FLOAT64:
        case RTABLE_FLOAT32: {
            double d;
            if (!elt_real_double(e, d)) fail(std::string("a table of ") + kTypeNames[t.code] + " holds real numbers");
            if (t.code == RTABLE_FLOAT64) {
                std::memcpy(buf, &d, 8);
            } else {
                float f = float(d);
                std::memcpy(buf, &f, 4);
            }
            break;
        }
        case RTABLE_COMPLEX64: {
            double re = 0, im = 0;
            if (e.k == Elt::Cx) {
                re = e.re;
                im = e.im;
            } else if (!elt_real_double(e, re)) {
                H r, i;
                elt_parts(t, e, r, i);
                if (!is_real(r) || !is_real(i)) fail("a table of complex[8] holds numbers");
                re = to_double(r);
                im = to_double(i);
            }
            std::memcpy(buf, &re, 8);
            std::memcpy(buf + 8, &im, 8);
            break;
        }
        case RTABLE_TRUEFALSE: {
            int32_t v;
            if (e.k == Elt::Int) {
                v = int32_t(e.i != 0);
            } else if (e.k == Elt::Val && !e.h2 && (e.h == K->true_name || e.h == K->false_name)) {
                v = e.h == K->true_name;
            } else {
                fail("a table of truefalse holds true or false");
            }
            std::memcpy(buf, &v, 4);
            break;
        }
    }
    std::memcpy(t.at(linear, true), buf, t.esize);
}

Elt value_elt(H v) {
    Elt e;
    e.k = Elt::Val;
    e.h = v;
    return e;
}

[[noreturn, gnu::cold, gnu::noinline]] void not_a_table(H rt) {
    check(rt);
    fail("expected a rectangular table, got " + print_safe(rt));
}

// The table a handle names; raises "invalid or reclaimed value" for a handle
// that names no value, as check() does.
inline RTableObj &table_of(H rt) {
    Slot *s = slot_of(rt);
    if (!s || s->kind != Kind::RTable) not_a_table(rt);
    return static_cast<RTableObj &>(*s->obj);
}

// Copies one element's bytes; the sizes are the data types' own, so that
// each copy is a move of a known width.
void copy_element(void *to, const void *from, size_t esize) {
    switch (esize) {
        case 1: std::memcpy(to, from, 1); break;
        case 2: std::memcpy(to, from, 2); break;
        case 4: std::memcpy(to, from, 4); break;
        case 8: std::memcpy(to, from, 8); break;
        default: std::memcpy(to, from, 16); break;
    }
}

int code_of_type(H t, bool &sfloat) {
    sfloat = false;
    std::string s = print(t);
    if (s == "sfloat") {
        sfloat = true;
        return RTABLE_DAG;
    }
    for (int i = 0; i < 10; ++i)
        if (s == kTypeNames[i]) return i;
    fail("unknown datatype " + s);
}

std::string elt_text(const RTableObj &t, const Elt &e) {
    if (t.code == RTABLE_FLOAT32) {
        float f = float(e.re);
        if (!std::isfinite(f)) return format_float(f);
        char buf[40];
        auto r = std::to_chars(buf, buf + sizeof buf, f);
        std::string s(buf, r.ptr);
        if (s.find_first_of(".e") == std::string::npos) s += ".0";
        return s;
    }
    return print(elt_value(t, e));
}

}  // namespace

void RTableObj::set_esize(size_t n) {
    esize = n;
    page_shift = 0;
    while ((esize << (page_shift + 1)) <= kPageBytes) ++page_shift;
}

uint8_t *RTableObj::find_page(int64_t page, bool create) {
    auto it = pages.find(page);
    if (it == pages.end()) {
        if (!create) return nullptr;
        auto mem = std::make_unique<uint8_t[]>(kPageBytes);  // zero-filled
        it = pages.emplace(page, std::move(mem)).first;
    }
    last_page = page;
    last_mem = it->second.get();
    return last_mem;
}

// The largest table the stand-in lays out in one block.
constexpr size_t kMaxBlockBytes = size_t(1) << 31;

uint8_t *RTableObj::contiguous() {
    if (block) return block.get();
    // The count and element size were bounded when the table was made, so
    // the product cannot overflow; a block of no elements still has an address.
    size_t bytes = size_t(count) * esize;
    if (bytes > kMaxBlockBytes)
        fail("out of memory: a rectangular table of " + std::to_string(bytes) + " bytes is too large to lay out");
    // calloc: the pages never written stay untouched zeros.
    uint8_t *mem = static_cast<uint8_t *>(std::calloc(bytes ? bytes : 1, 1));
    if (!mem) fail("out of memory: cannot lay out a rectangular table of " + std::to_string(bytes) + " bytes");
    for_each_stretch([&](int64_t first, const uint8_t *src, int64_t n) {
        std::memcpy(mem + size_t(first) * esize, src, size_t(n) * esize);
    });
    block.reset(mem);
    pages.clear();
    last_page = -1;
    last_mem = nullptr;
    return mem;
}

RTableObj &rtable_of(H rt) { return table_of(rt); }

H rtable_make(int32_t code, H eltype, int32_t ndim, const int64_t *lo, const int64_t *hi) {
    if (code < 0 || code > 9) fail("unknown data type code " + std::to_string(code));
    if (ndim < 1 || ndim > RTABLE_MAX_DIMENSIONS)
        fail("a rectangular table has 1 to " + std::to_string(RTABLE_MAX_DIMENSIONS) + " dimensions, not " +
             std::to_string(ndim));
    auto t = std::make_unique<RTableObj>();
    t->code = code;
    t->sfloat = code == RTABLE_DAG && eltype == K->sfloat_name;
    t->ndim = ndim;
    t->set_esize(elem_size(code));
    __int128 count = 1;
    for (int d = 0; d < ndim; ++d) {
        __int128 extent = __int128(hi[d]) - lo[d] + 1;
        if (extent < 0)
            fail("invalid bounds " + std::to_string(lo[d]) + ".." + std::to_string(hi[d]));
        t->lo[d] = lo[d];
        t->hi[d] = hi[d];
        count *= extent;
        if (count * __int128(t->esize) > (__int128(1) << 62)) fail("rectangular table too large");
    }
    t->count = int64_t(count);
    return alloc(Kind::RTable, std::move(t));
}

int rtable_code(H rt) { return table_of(rt).code; }

void rtable_mark(RTableObj &t) {
    if (t.code != RTABLE_DAG && t.code != RTABLE_CXDAG) return;
    t.for_each_stretch([&](int64_t, const uint8_t *mem, int64_t n) {
        const H *p = reinterpret_cast<const H *>(mem);
        for (size_t i = 0; i < size_t(n) * t.esize / sizeof(H); ++i)
            if (p[i] && !is_imm(p[i])) K->worklist.push_back(p[i]);
    });
}

H rtable_get(H rt, const std::vector<int64_t> &idx) {
    RTableObj &t = table_of(rt);
    if (int64_t(idx.size()) != t.ndim)
        fail("expected " + std::to_string(t.ndim) + " indices, got " + std::to_string(idx.size()));
    return elt_value(t, load(t, linear_of(t, idx.data())));
}

void rtable_set(H rt, const std::vector<int64_t> &idx, H value) {
    RTableObj &t = table_of(rt);
    if (int64_t(idx.size()) != t.ndim)
        fail("expected " + std::to_string(t.ndim) + " indices, got " + std::to_string(idx.size()));
    check(value);
    store(t, linear_of(t, idx.data()), value_elt(value));
}

std::string rtable_print(H rt) {
    RTableObj &t = table_of(rt);
    std::string s = "Array(";
    for (int d = 0; d < t.ndim; ++d) s += std::to_string(t.lo[d]) + ".." + std::to_string(t.hi[d]) + ", ";
    if (t.count > 100) {
        s += "[...]";
    } else {
        // Nested lists, the first index outermost.
        std::vector<int64_t> idx(size_t(t.ndim));
        for (int d = 0; d < t.ndim; ++d) idx[d] = t.lo[d];
        std::function<std::string(int)> level = [&](int d) -> std::string {
            std::string r = "[";
            for (int64_t i = t.lo[d]; i <= t.hi[d]; ++i) {
                if (i > t.lo[d]) r += ", ";
                idx[d] = i;
                if (d + 1 == t.ndim) r += elt_text(t, load(t, linear_of(t, idx.data())));
                else r += level(d + 1);
            }
            return r + "]";
        };
        s += level(0);
    }
    return s + ", datatype = " + (t.sfloat ? "sfloat" : kTypeNames[t.code]) + ")";
}

void rtable_settings(H rt, RTableSettings *s) {
    if (!s) fail("null settings record");
    RTableObj &t = table_of(rt);
    std::memset(s, 0, sizeof *s);
    s->data_type = t.code;
    s->element_type = to_algeb(t.sfloat ? K->sfloat_name : K->dtype_vals[t.code]);
    s->num_dimensions = t.ndim;
    s->order = 0;
    for (int d = 0; d < t.ndim; ++d) {
        s->lower[d] = t.lo[d];
        s->upper[d] = t.hi[d];
    }
}

RTableElement rtable_select(H rt, const int64_t *index) {
    RTableObj &t = table_of(rt);
    if (!index) fail("null index array");
    int64_t lin = linear_of(t, index);
    RTableElement e;
    std::memset(&e, 0, sizeof e);
    uint8_t *p = t.at(lin, false);
    if (p) copy_element(&e, p, t.esize);
    if (t.code == RTABLE_DAG && !e.dag) e.dag = to_algeb(imm(0));
    if (t.code == RTABLE_CXDAG) {
        if (!e.cxdag.re) e.cxdag.re = to_algeb(imm(0));
        if (!e.cxdag.im) e.cxdag.im = to_algeb(imm(0));
    }
    return e;
}

RTableElement rtable_assign(H rt, const int64_t *index, RTableElement e) {
    RTableObj &t = table_of(rt);
    if (!index) fail("null index array");
    int64_t lin = linear_of(t, index);
    if (t.code == RTABLE_DAG) {
        H v = from_algeb(e.dag);
        check(v);
        if (t.sfloat && !is_numeric(v)) fail("an sfloat table holds numbers, not " + print_safe(v));
    } else if (t.code == RTABLE_CXDAG) {
        H re = from_algeb(e.cxdag.re), im = from_algeb(e.cxdag.im);
        check(re);
        check(im);
        if (!is_real(re) || !is_real(im)) fail("a complex(sfloat) table holds pairs of real numbers");
    }
    copy_element(t.at(lin, true), &e, t.esize);
    RTableElement out;
    std::memset(&out, 0, sizeof out);
    copy_element(&out, &e, t.esize);
    return out;
}

H rtable_copy(const RTableSettings *s, H rt, int part) {
    if (!s) fail("null settings record");
    table_of(rt);
    if (s->data_type < 0 || s->data_type > 9) fail("unknown data type code " + std::to_string(s->data_type));
    H eltype = from_algeb(s->element_type);
    if (s->data_type == RTABLE_DAG) check(eltype);
    H nt = rtable_make(s->data_type, eltype, s->num_dimensions, s->lower, s->upper);
    RTableObj &dst = obj<RTableObj>(nt);
    RTableObj &src = obj<RTableObj>(rt);
    if (dst.count != src.count)
        fail("the settings describe " + std::to_string(dst.count) + " elements, the table has " +
             std::to_string(src.count));
    bool same = dst.code == src.code && dst.sfloat == src.sfloat;
    if (part == 0 && same) {
        if (src.block) {
            std::memcpy(dst.contiguous(), src.block.get(), size_t(src.count) * src.esize);
            return nt;
        }
        for (auto &[page, mem] : src.pages) {
            auto copy = std::make_unique<uint8_t[]>(RTableObj::kPageBytes);
            std::memcpy(copy.get(), mem.get(), RTableObj::kPageBytes);
            dst.pages.emplace(page, std::move(copy));
        }
        return nt;
    }
    src.for_each_stretch([&](int64_t first, const uint8_t *, int64_t n) {
        for (int64_t i = first; i < first + n; ++i) {
            Elt e = load(src, i);
            if (part != 0) {
                Elt p;
                if (e.k == Elt::Cx) {
                    p.k = Elt::Dbl;
                    p.re = part == 1 ? e.re : e.im;
                } else if (e.k == Elt::Val) {
                    H re, im;
                    elt_parts(src, e, re, im);
                    p = value_elt(part == 1 ? re : im);
                } else if (part == 1) {
                    p = e;
                } else {
                    p.k = e.k;  // the imaginary part of a real element is zero
                }
                e = p;
            }
            store(dst, i, e);
        }
    });
    return nt;
}

void *rtable_data(H rt) {
    RTableObj &t = table_of(rt);
    if (t.code == RTABLE_DAG || t.code == RTABLE_CXDAG || t.code == RTABLE_TRUEFALSE) return nullptr;
    return t.contiguous();
}

int64_t rtable_num_elements(H rt) { return table_of(rt).count; }
int64_t rtable_num_dims(H rt) { return table_of(rt).ndim; }

int64_t rtable_bound(H rt, int64_t dim, bool upper) {
    RTableObj &t = table_of(rt);
    if (dim < 1 || dim > t.ndim)
        fail("dimension " + std::to_string(dim) + " out of range 1.." + std::to_string(t.ndim));
    return upper ? t.hi[dim - 1] : t.lo[dim - 1];
}

// Array(ranges..., [init], datatype = t, fill = v), Vector(n | range, [init], ...), Matrix(m, n, [init], ...)
H rtable_from_call(const std::string &fn, const std::vector<H> &args) {
    std::vector<int64_t> lo, hi;
    H init = 0, fill = 0;
    int code = RTABLE_DAG;
    bool sfloat = false;
    for (H a : args) {
        Kind k = kind_of(a);
        if (k == Kind::Expr && obj<ExprObj>(a).op == Op::Range) {
            H l = obj<ExprObj>(a).ops[0], h = obj<ExprObj>(a).ops[1];
            int64_t x, y;
            if (!is_int(l) || !is_int(h) || !int_fits64(l, &x) || !int_fits64(h, &y))
                fail("bounds must be integers: " + print_safe(a));
            lo.push_back(x);
            hi.push_back(y);
        } else if (is_int(a) && !init) {
            int64_t n;
            if (!int_fits64(a, &n) || n < 0) fail("invalid dimension " + print_safe(a));
            lo.push_back(1);
            hi.push_back(n);
        } else if (k == Kind::List && !init) {
            init = a;
        } else if (k == Kind::Expr && obj<ExprObj>(a).op == Op::Eq && is_name(obj<ExprObj>(a).ops[0])) {
            const std::string &opt = name_of(obj<ExprObj>(a).ops[0]);
            H v = obj<ExprObj>(a).ops[1];
            if (opt == "datatype") code = code_of_type(v, sfloat);
            else if (opt == "fill") fill = v;
            else fail("unknown option " + opt + " of " + fn);
        } else {
            fail("invalid argument to " + fn + ": " + print_safe(a));
        }
    }
    if (lo.empty() && init) {
        // Bounds from the shape of the initializer.
        H x = init;
        while (kind_of(x) == Kind::List) {
            auto &items = obj<SeqObj>(x).items;
            lo.push_back(1);
            hi.push_back(int64_t(items.size()));
            if (items.empty() || (fn == "Vector" && lo.size() == 1)) break;
            x = items[0];
            if (lo.size() == 2) break;
        }
    }
    if (lo.empty()) fail(fn + " needs bounds or an initializer");
    if (fn == "Vector" && lo.size() != 1) fail("a Vector has one dimension");
    if (fn == "Matrix" && lo.size() != 2) fail("a Matrix has two dimensions");
    H rt = rtable_make(code, sfloat ? K->sfloat_name : K->dtype_vals[code], int32_t(lo.size()), lo.data(), hi.data());
    RTableObj &t = obj<RTableObj>(rt);
    if (fill) {
        check(fill);
        for (int64_t i = 0; i < t.count; ++i) store(t, i, value_elt(fill));
    }
    if (init) {
        std::vector<int64_t> idx(lo.size());
        std::function<void(H, size_t)> walk = [&](H list, size_t d) {
            auto items = items_of(list);
            if (int64_t(items.size()) > hi[d] - lo[d] + 1) fail("the initializer does not fit the bounds");
            for (size_t i = 0; i < items.size(); ++i) {
                idx[d] = lo[d] + int64_t(i);
                if (d + 1 < lo.size()) {
                    if (kind_of(items[i]) != Kind::List) fail("the initializer does not fit the bounds");
                    walk(items[i], d + 1);
                } else {
                    if (!items[i]) continue;
                    store(t, linear_of(t, idx.data()), value_elt(items[i]));
                }
            }
        };
        walk(init, 0);
    }
    return rt;
}

}  // namespace vx
