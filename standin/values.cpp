// Values: construction, numbers and arithmetic, ordering and printing.
#include "core.hpp"
#include "rtable.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace vx {

// ---- construction ----

H mk_int(int64_t v) {
    if (v >= kImmMin && v <= kImmMax) return imm(v);
    auto o = std::make_unique<BigIntObj>();
    o->v = mpz_class(static_cast<long>(v));
    return alloc(Kind::BigInt, std::move(o));
}

H mk_int(const mpz_class &v) {
    if (v.fits_slong_p()) {
        long l = v.get_si();
        if (l >= kImmMin && l <= kImmMax) return imm(l);
    }
    auto o = std::make_unique<BigIntObj>();
    o->v = v;
    return alloc(Kind::BigInt, std::move(o));
}

H mk_rat(const mpq_class &v0) {
    mpq_class v(v0);
    v.canonicalize();
    if (v.get_den() == 1) return mk_int(mpz_class(v.get_num()));
    auto o = std::make_unique<RatObj>();
    o->v = v;
    return alloc(Kind::Rational, std::move(o));
}

H mk_float(double d) {
    auto o = std::make_unique<FloatObj>();
    o->v = d;
    return alloc(Kind::Float, std::move(o));
}

static bool is_exact_zero(H h) { return is_imm(h) && imm_val(h) == 0; }

H mk_complex(H re, H im) {
    if (!is_real(re) || !is_real(im)) fail("complex parts must be real numbers");
    if (is_exact_zero(im)) return re;
    auto o = std::make_unique<ComplexObj>();
    o->re = re;
    o->im = im;
    return alloc(Kind::Complex, std::move(o));
}

H mk_string(std::string s) {
    auto o = std::make_unique<StringObj>();
    o->s = std::move(s);
    return alloc(Kind::String, std::move(o));
}

H global_name(const std::string &s) {
    auto it = K->globals.find(s);
    if (it != K->globals.end()) return it->second;
    auto o = std::make_unique<NameObj>();
    o->name = s;
    o->global = true;
    H h = alloc(Kind::Name, std::move(o));
    K->globals.emplace(s, h);
    return h;
}

H local_name(const std::string &s) {
    auto o = std::make_unique<NameObj>();
    o->name = s;
    o->global = false;
    return alloc(Kind::Name, std::move(o));
}

static H mk_seqkind(Kind k, std::vector<H> items) {
    auto o = std::make_unique<SeqObj>();
    o->items = std::move(items);
    return alloc(k, std::move(o));
}

H mk_list(std::vector<H> items) { return mk_seqkind(Kind::List, std::move(items)); }
H mk_seq(std::vector<H> items) { return mk_seqkind(Kind::Seq, std::move(items)); }

H mk_set(std::vector<H> items) {
    std::sort(items.begin(), items.end(), [](H a, H b) { return compare(a, b) < 0; });
    items.erase(std::unique(items.begin(), items.end(), [](H a, H b) { return compare(a, b) == 0; }), items.end());
    return mk_seqkind(Kind::Set, std::move(items));
}

H mk_expr(Op op, std::vector<H> ops) {
    auto o = std::make_unique<ExprObj>();
    o->op = op;
    o->ops = std::move(ops);
    return alloc(Kind::Expr, std::move(o));
}

H mk_bool(bool b) {
    H h = b ? K->true_name : K->false_name;
    return h ? h : global_name(b ? "true" : "false");
}

H mk_pointer(void *p, uintptr_t tag) {
    auto o = std::make_unique<PointerObj>();
    o->p = p;
    o->tag = tag;
    return alloc(Kind::Pointer, std::move(o));
}

// ---- predicates and accessors ----

bool is_int(H h) {
    Kind k = kind_or_dead(h);
    return k == Kind::Int || k == Kind::BigInt;
}
bool is_real(H h) {
    Kind k = kind_or_dead(h);
    return k == Kind::Int || k == Kind::BigInt || k == Kind::Rational || k == Kind::Float;
}
bool is_numeric(H h) { return is_real(h) || kind_or_dead(h) == Kind::Complex; }
bool is_name(H h) { return kind_or_dead(h) == Kind::Name; }
bool is_string(H h) { return kind_or_dead(h) == Kind::String; }
bool is_seq_kind(H h, Kind k) { return kind_or_dead(h) == k; }
bool is_null(H h) { return kind_or_dead(h) == Kind::Seq && obj<SeqObj>(h).items.empty(); }

bool int_fits64(H h, int64_t *out) {
    if (is_imm(h)) {
        *out = imm_val(h);
        return true;
    }
    const mpz_class &v = obj<BigIntObj>(h).v;
    if (!v.fits_slong_p()) return false;
    *out = v.get_si();
    return true;
}

mpz_class to_mpz(H h) {
    if (is_imm(h)) return mpz_class(static_cast<long>(imm_val(h)));
    return obj<BigIntObj>(h).v;
}

mpq_class to_mpq(H h) {
    if (kind_of(h) == Kind::Rational) return obj<RatObj>(h).v;
    return mpq_class(to_mpz(h));
}

double to_double(H h) {
    switch (kind_of(h)) {
        case Kind::Int:
            return double(imm_val(h));
        case Kind::BigInt:
            return obj<BigIntObj>(h).v.get_d();
        case Kind::Rational:
            return obj<RatObj>(h).v.get_d();
        case Kind::Float:
            return obj<FloatObj>(h).v;
        default:
            fail("expected a real number, got " + print_safe(h));
    }
}

const std::string &string_of(H h) {
    if (kind_of(h) != Kind::String) fail("expected a string, got " + print_safe(h));
    return obj<StringObj>(h).s;
}

const std::string &name_of(H h) {
    if (kind_of(h) != Kind::Name) fail("expected a name, got " + print_safe(h));
    return obj<NameObj>(h).name;
}

std::vector<H> items_of(H h) {
    Kind k = kind_of(h);
    if (k != Kind::List && k != Kind::Set && k != Kind::Seq)
        fail("expected a list, set or sequence, got " + print_safe(h));
    return obj<SeqObj>(h).items;
}

std::vector<H> flatten(const std::vector<H> &v) {
    std::vector<H> out;
    out.reserve(v.size());
    for (H x : v) {
        if (x && kind_of(x) == Kind::Seq) {
            for (H y : obj<SeqObj>(x).items) out.push_back(y);
        } else {
            out.push_back(x);
        }
    }
    return out;
}

// ---- numeric comparison ----

static bool is_float(H h) { return kind_or_dead(h) == Kind::Float; }
static bool is_nan(H h) { return is_float(h) && std::isnan(obj<FloatObj>(h).v); }

// -1, 0, 1; 2 when unordered (a NaN is involved).
static int num_cmp(H a, H b) {
    if (is_imm(a) && is_imm(b)) return imm_val(a) < imm_val(b) ? -1 : imm_val(a) > imm_val(b) ? 1 : 0;
    if (is_nan(a) || is_nan(b)) return 2;
    if (is_float(a) && is_float(b)) {
        double x = obj<FloatObj>(a).v, y = obj<FloatObj>(b).v;
        return x < y ? -1 : x > y ? 1 : 0;
    }
    if (is_float(a) && std::isinf(obj<FloatObj>(a).v)) return obj<FloatObj>(a).v < 0 ? -1 : 1;
    if (is_float(b) && std::isinf(obj<FloatObj>(b).v)) return obj<FloatObj>(b).v < 0 ? 1 : -1;
    mpq_class x = is_float(a) ? mpq_class(obj<FloatObj>(a).v) : to_mpq(a);
    mpq_class y = is_float(b) ? mpq_class(obj<FloatObj>(b).v) : to_mpq(b);
    int c = cmp(x, y);
    return c < 0 ? -1 : c > 0 ? 1 : 0;
}

// ---- structural order, equality and hashing ----

static int rank(H h) {
    if (h == 0) return -1;
    switch (kind_of(h)) {
        case Kind::Int:
        case Kind::BigInt:
        case Kind::Rational:
        case Kind::Float:
            return 0;
        case Kind::Complex:
            return 1;
        case Kind::String:
            return 2;
        case Kind::Name:
            return 3;
        case Kind::List:
            return 4;
        case Kind::Set:
            return 5;
        case Kind::Seq:
            return 6;
        case Kind::Expr:
            return 7;
        case Kind::Proc:
            return 8;
        case Kind::Table:
            return 9;
        case Kind::RTable:
            return 10;
        case Kind::Pointer:
            return 11;
        case Kind::Stop:
            return 12;
        default:
            return 13;
    }
}

static int numkind(H h) {
    switch (kind_of(h)) {
        case Kind::Int:
        case Kind::BigInt:
            return 0;
        case Kind::Rational:
            return 1;
        default:
            return 2;
    }
}

static int cmp_vec(const std::vector<H> &a, const std::vector<H> &b) {
    size_t n = std::min(a.size(), b.size());
    for (size_t i = 0; i < n; ++i)
        if (int c = compare(a[i], b[i])) return c;
    return a.size() < b.size() ? -1 : a.size() > b.size() ? 1 : 0;
}

int compare(H a, H b) {
    if (a == b) return 0;
    stack_check();
    int ra = rank(a), rb = rank(b);
    if (ra != rb) return ra < rb ? -1 : 1;
    if (ra < 0) return 0;
    switch (ra) {
        case 0: {
            int c = num_cmp(a, b);
            if (c == 2) {
                bool na = is_nan(a), nb = is_nan(b);
                if (na && nb) return 0;
                return na ? 1 : -1;
            }
            if (c) return c;
            int ka = numkind(a), kb = numkind(b);
            return ka < kb ? -1 : ka > kb ? 1 : 0;
        }
        case 1: {
            auto &x = obj<ComplexObj>(a);
            auto &y = obj<ComplexObj>(b);
            if (int c = compare(x.re, y.re)) return c;
            return compare(x.im, y.im);
        }
        case 2: {
            int c = obj<StringObj>(a).s.compare(obj<StringObj>(b).s);
            return c < 0 ? -1 : c > 0 ? 1 : 0;
        }
        case 3: {
            auto &x = obj<NameObj>(a);
            auto &y = obj<NameObj>(b);
            int c = x.name.compare(y.name);
            if (c) return c < 0 ? -1 : 1;
            if (x.global != y.global) return x.global ? -1 : 1;
            return a < b ? -1 : 1;
        }
        case 4:
        case 5:
        case 6:
            return cmp_vec(obj<SeqObj>(a).items, obj<SeqObj>(b).items);
        case 7: {
            auto &x = obj<ExprObj>(a);
            auto &y = obj<ExprObj>(b);
            if (x.op != y.op) return x.op < y.op ? -1 : 1;
            return cmp_vec(x.ops, y.ops);
        }
        default:
            return a < b ? -1 : 1;
    }
}

bool HandleLess::operator()(H a, H b) const { return compare(a, b) < 0; }

bool equal(H a, H b) { return compare(a, b) == 0; }

static uint64_t mix(uint64_t h, uint64_t v) {
    h ^= v + 0x9e3779b97f4a7c15ull + (h << 6) + (h >> 2);
    return h;
}

static uint64_t hash_mpz(const mpz_class &z) {
    if (z.fits_slong_p()) return mix(1, uint64_t(z.get_si()));
    uint64_t h = mix(2, uint64_t(mpz_sgn(z.get_mpz_t())));
    size_t n = mpz_size(z.get_mpz_t());
    for (size_t i = 0; i < n; ++i) h = mix(h, mpz_getlimbn(z.get_mpz_t(), i));
    return h;
}

uint64_t hash_of(H h) {
    if (h == 0) return 0;
    stack_check();
    switch (kind_of(h)) {
        case Kind::Int:
            return mix(1, uint64_t(imm_val(h)));
        case Kind::BigInt:
            return hash_mpz(obj<BigIntObj>(h).v);
        case Kind::Rational: {
            auto &q = obj<RatObj>(h).v;
            return mix(mix(3, hash_mpz(q.get_num())), hash_mpz(q.get_den()));
        }
        case Kind::Float: {
            double d = obj<FloatObj>(h).v;
            if (d == 0) d = 0;
            if (std::isnan(d)) return 0x7ff8;
            uint64_t bits;
            std::memcpy(&bits, &d, 8);
            return mix(4, bits);
        }
        case Kind::Complex:
            return mix(mix(5, hash_of(obj<ComplexObj>(h).re)), hash_of(obj<ComplexObj>(h).im));
        case Kind::String:
            return mix(6, std::hash<std::string>()(obj<StringObj>(h).s));
        case Kind::Name: {
            auto &n = obj<NameObj>(h);
            return n.global ? mix(7, std::hash<std::string>()(n.name)) : mix(8, h);
        }
        case Kind::List:
        case Kind::Set:
        case Kind::Seq: {
            uint64_t r = mix(9, uint64_t(kind_of(h)));
            for (H x : obj<SeqObj>(h).items) r = mix(r, hash_of(x));
            return r;
        }
        case Kind::Expr: {
            auto &e = obj<ExprObj>(h);
            uint64_t r = mix(10, uint64_t(e.op));
            for (H x : e.ops) r = mix(r, hash_of(x));
            return r;
        }
        default:
            return mix(11, h);
    }
}

// ---- arithmetic ----


static void parts(H h, H &re, H &im) {
    if (kind_of(h) == Kind::Complex) {
        re = obj<ComplexObj>(h).re;
        im = obj<ComplexObj>(h).im;
    } else {
        re = h;
        im = imm(0);
    }
}

static void check_product_size(const mpq_class &x, const mpq_class &y);

static H real_add(H a, H b) {
    if (is_imm(a) && is_imm(b)) {
        int64_t r;
        if (!__builtin_add_overflow(imm_val(a), imm_val(b), &r)) return mk_int(r);
    }
    if (is_float(a) || is_float(b)) return mk_float(to_double(a) + to_double(b));
    if (is_int(a) && is_int(b)) return mk_int(mpz_class(to_mpz(a) + to_mpz(b)));
    mpq_class x = to_mpq(a), y = to_mpq(b);
    check_product_size(x, y);  // a sum of fractions multiplies the denominators
    return mk_rat(x + y);
}

// GMP aborts the process when it cannot allocate: refuse results beyond 64 Mbit.
static void check_product_size(const mpq_class &x, const mpq_class &y) {
    auto bits = [](const mpz_class &z) { return double(mpz_sizeinbase(z.get_mpz_t(), 2)); };
    if (bits(x.get_num()) + bits(y.get_num()) > 64.0 * 1024 * 1024 ||
        bits(x.get_den()) + bits(y.get_den()) > 64.0 * 1024 * 1024)
        fail("integer too large");
}

static H real_mul(H a, H b) {
    if (is_imm(a) && is_imm(b)) {
        int64_t r;
        if (!__builtin_mul_overflow(imm_val(a), imm_val(b), &r)) return mk_int(r);
    }
    if (is_float(a) || is_float(b)) return mk_float(to_double(a) * to_double(b));
    mpq_class x = to_mpq(a), y = to_mpq(b);
    check_product_size(x, y);
    if (is_int(a) && is_int(b)) return mk_int(mpz_class(x.get_num() * y.get_num()));
    return mk_rat(x * y);
}

static bool real_is_zero(H h) {
    if (is_float(h)) return false;  // only exact zeros divide badly
    return is_imm(h) && imm_val(h) == 0;
}

static H real_div(H a, H b) {
    if (is_float(a) || is_float(b)) return mk_float(to_double(a) / to_double(b));
    if (real_is_zero(b)) fail("numeric exception: division by zero");
    mpq_class x = to_mpq(a), y = to_mpq(b);
    check_product_size(x, y);
    return mk_rat(x / y);
}

static H real_neg(H a) { return real_mul(imm(-1), a); }

static std::vector<H> operands_of(H h, Op op) {
    if (kind_of(h) == Kind::Expr && obj<ExprObj>(h).op == op) return obj<ExprObj>(h).ops;
    return {h};
}

H add(H a, H b) {
    if (is_real(a) && is_real(b)) return real_add(a, b);
    if (is_numeric(a) && is_numeric(b)) {
        H ar, ai, br, bi;
        parts(a, ar, ai);
        parts(b, br, bi);
        return mk_complex(real_add(ar, br), real_add(ai, bi));
    }
    // Symbolic: numeric terms are combined and put last.
    std::vector<H> terms, all = operands_of(a, Op::Sum);
    for (H t : operands_of(b, Op::Sum)) all.push_back(t);
    H num = imm(0);
    for (H t : all) {
        if (is_numeric(t)) num = add(num, t);
        else terms.push_back(t);
    }
    if (!is_exact_zero(num)) terms.push_back(num);
    if (terms.empty()) return imm(0);
    if (terms.size() == 1) return terms[0];
    return mk_expr(Op::Sum, std::move(terms));
}

H negate(H a) { return mul(imm(-1), a); }
H sub(H a, H b) { return add(a, negate(b)); }

H mul(H a, H b) {
    if (is_real(a) && is_real(b)) return real_mul(a, b);
    if (is_numeric(a) && is_numeric(b)) {
        H ar, ai, br, bi;
        parts(a, ar, ai);
        parts(b, br, bi);
        return mk_complex(real_add(real_mul(ar, br), real_neg(real_mul(ai, bi))),
                          real_add(real_mul(ar, bi), real_mul(ai, br)));
    }
    std::vector<H> factors, all = operands_of(a, Op::Prod);
    for (H t : operands_of(b, Op::Prod)) all.push_back(t);
    H num = imm(1);
    for (H t : all) {
        if (is_numeric(t)) num = mul(num, t);
        else factors.push_back(t);
    }
    if (is_exact_zero(num)) return imm(0);
    if (!(is_imm(num) && imm_val(num) == 1)) factors.insert(factors.begin(), num);
    if (factors.size() == 1) return factors[0];
    return mk_expr(Op::Prod, std::move(factors));
}

H divide(H a, H b) {
    if (is_real(a) && is_real(b)) return real_div(a, b);
    if (is_numeric(a) && is_numeric(b)) {
        H br, bi;
        parts(b, br, bi);
        H den = real_add(real_mul(br, br), real_mul(bi, bi));
        H conj = mk_complex(br, real_neg(bi));
        H num = mul(a, conj);
        H nr, ni;
        parts(num, nr, ni);
        if (real_is_zero(den)) fail("numeric exception: division by zero");
        return mk_complex(real_div(nr, den), real_div(ni, den));
    }
    if (is_numeric(b)) {
        if (real_is_zero(b)) fail("numeric exception: division by zero");
        return mul(a, divide(imm(1), b));
    }
    return mul(a, power(b, imm(-1)));
}

static void check_power_size(const mpz_class &base, unsigned long e) {
    size_t bits = mpz_sizeinbase(base.get_mpz_t(), 2);
    if (mpz_cmpabs_ui(base.get_mpz_t(), 1) <= 0) return;
    if (double(bits) * double(e) > 64.0 * 1024 * 1024) fail("integer too large");
}

H power(H a, H b) {
    if (is_real(a) && is_real(b)) {
        if (is_int(b) && !is_float(a)) {
            mpz_class e = to_mpz(b);
            bool neg = e < 0;
            if (neg) e = -e;
            if (!e.fits_ulong_p()) {
                mpq_class q = to_mpq(a);
                if (q == 0 && neg) fail("numeric exception: division by zero");
                if (q == 0 || q == 1) return a;
                if (q == -1) return mpz_class(e % 2) == 0 ? imm(1) : imm(-1);
                fail("integer too large");
            }
            unsigned long ue = e.get_ui();
            mpq_class q = to_mpq(a);
            check_power_size(q.get_num(), ue);
            check_power_size(q.get_den(), ue);
            mpz_class n, d;
            mpz_pow_ui(n.get_mpz_t(), q.get_num().get_mpz_t(), ue);
            mpz_pow_ui(d.get_mpz_t(), q.get_den().get_mpz_t(), ue);
            if (neg) {
                if (n == 0) fail("numeric exception: division by zero");
                std::swap(n, d);
            }
            return mk_rat(mpq_class(n, d));
        }
        if (is_float(a) || is_float(b)) return mk_float(std::pow(to_double(a), to_double(b)));
        // exact base, rational exponent: stays unevaluated
    } else if (kind_of(a) == Kind::Complex && is_int(b)) {
        mpz_class e = to_mpz(b);
        bool neg = e < 0;
        if (neg) e = -e;
        if (!e.fits_ulong_p() || e.get_ui() > 100000) fail("exponent too large");
        unsigned long ue = e.get_ui();
        H r = imm(1), x = a;
        while (ue) {
            if (ue & 1) r = mul(r, x);
            ue >>= 1;
            if (ue) x = mul(x, x);
        }
        return neg ? divide(imm(1), r) : r;
    }
    if (is_imm(b) && imm_val(b) == 1) return a;
    if (is_imm(b) && imm_val(b) == 0 && !is_numeric(a)) return imm(1);
    return mk_expr(Op::Power, {a, b});
}

H relation(Op op, H a, H b) {
    if ((op == Op::Lt || op == Op::Le) && is_real(a) && is_real(b)) {
        int c = num_cmp(a, b);
        if (c == 2) return mk_bool(false);
        return mk_bool(op == Op::Lt ? c < 0 : c <= 0);
    }
    return mk_expr(op, {a, b});
}

H real_part(H h) {
    if (kind_of(h) == Kind::Complex) return obj<ComplexObj>(h).re;
    if (is_real(h)) return h;
    fail("expected a number, got " + print_safe(h));
}

H imag_part(H h) {
    if (kind_of(h) == Kind::Complex) return obj<ComplexObj>(h).im;
    if (is_real(h)) return imm(0);
    fail("expected a number, got " + print_safe(h));
}

static H fold(Op op, const std::vector<H> &v) {
    if (v.empty()) return op == Op::Sum ? imm(0) : imm(1);
    H r = v[0];
    for (size_t i = 1; i < v.size(); ++i) r = op == Op::Sum ? add(r, v[i]) : mul(r, v[i]);
    return r;
}

static H rebuild(Op op, const std::vector<H> &ops) {
    switch (op) {
        case Op::Sum:
        case Op::Prod:
            return fold(op, ops);
        case Op::Power:
            return power(ops[0], ops[1]);
        case Op::Lt:
        case Op::Le:
            return relation(op, ops[0], ops[1]);
        case Op::And:
        case Op::Or:
        case Op::Not: {
            H e = mk_expr(op, ops);
            auto t = truth_maybe(e);
            return t ? mk_bool(*t) : e;
        }
        default:
            return mk_expr(op, ops);
    }
}

RealFunction elementary(const std::string &name) {
    static const std::pair<const char *, RealFunction> functions[] = {
        {"sin", [](double a) { return std::sin(a); }},       {"cos", [](double a) { return std::cos(a); }},
        {"tan", [](double a) { return std::tan(a); }},       {"arcsin", [](double a) { return std::asin(a); }},
        {"arccos", [](double a) { return std::acos(a); }},   {"arctan", [](double a) { return std::atan(a); }},
        {"sinh", [](double a) { return std::sinh(a); }},     {"cosh", [](double a) { return std::cosh(a); }},
        {"tanh", [](double a) { return std::tanh(a); }},     {"exp", [](double a) { return std::exp(a); }},
        {"ln", [](double a) { return std::log(a); }},        {"log", [](double a) { return std::log(a); }},
        {"sqrt", [](double a) { return std::sqrt(a); }},     {"abs", [](double a) { return std::fabs(a); }},
    };
    for (auto &[n, f] : functions)
        if (name == n) return f;
    return nullptr;
}

H evalf(H h) {
    stack_check();
    switch (kind_of(h)) {
        case Kind::Name:
            // Pi is the one constant the kernel knows; an assigned Pi is the user's.
            if (h == global_name("Pi") && !obj<NameObj>(h).value) return mk_float(M_PI);
            return h;
        case Kind::Int:
        case Kind::BigInt:
        case Kind::Rational:
            return mk_float(to_double(h));
        case Kind::Complex:
            return mk_complex(evalf(obj<ComplexObj>(h).re), evalf(obj<ComplexObj>(h).im));
        case Kind::List:
        case Kind::Set:
        case Kind::Seq: {
            auto items = obj<SeqObj>(h).items;
            for (H &x : items)
                if (x) x = evalf(x);
            Kind k = kind_of(h);
            return k == Kind::List ? mk_list(items) : k == Kind::Set ? mk_set(items) : mk_seq(items);
        }
        case Kind::Expr: {
            auto &e = obj<ExprObj>(h);
            Op op = e.op;
            if (op == Op::Call && e.ops.size() == 2 && kind_of(e.ops[0]) == Kind::Name &&
                elementary(name_of(e.ops[0]))) {
                H f = e.ops[0];
                return call_function(f, {evalf(e.ops[1])});
            }
            if (op == Op::Call || op == Op::Index || op == Op::Uneval) return h;
            auto ops = e.ops;
            for (H &x : ops) x = evalf(x);
            return rebuild(op, ops);
        }
        default:
            return h;
    }
}

std::optional<bool> truth_maybe(H h) {
    stack_check();
    if (h == K->true_name && h) return true;
    if (h == K->false_name && h) return false;
    if (kind_or_dead(h) != Kind::Expr) return std::nullopt;
    auto &e = obj<ExprObj>(h);
    switch (e.op) {
        case Op::Eq:
        case Op::Neq: {
            H a = e.ops[0], b = e.ops[1];
            bool eq;
            if (is_real(a) && is_real(b)) eq = num_cmp(a, b) == 0;
            else eq = equal(a, b);
            return e.op == Op::Eq ? eq : !eq;
        }
        case Op::Lt:
        case Op::Le: {
            H a = e.ops[0], b = e.ops[1];
            if (!is_real(a) || !is_real(b)) return std::nullopt;
            int c = num_cmp(a, b);
            if (c == 2) return false;
            return e.op == Op::Lt ? c < 0 : c <= 0;
        }
        case Op::Not: {
            auto t = truth_maybe(e.ops[0]);
            if (!t) return std::nullopt;
            return !*t;
        }
        case Op::And:
        case Op::Or: {
            auto x = truth_maybe(e.ops[0]);
            auto y = truth_maybe(e.ops[1]);
            bool is_and = e.op == Op::And;
            if (x && *x != is_and) return !is_and;
            if (y && *y != is_and) return !is_and;
            if (x && y) return is_and;
            return std::nullopt;
        }
        default:
            return std::nullopt;
    }
}

bool truth(H h) {
    auto t = truth_maybe(h);
    if (!t) fail("cannot determine if this expression is true or false: " + print_safe(h));
    return *t;
}

static H name_value(H h) {
    H v = obj<NameObj>(h).value;
    if (!v) return h;
    for (int i = 0; i < 100 && kind_of(v) == Kind::Name && obj<NameObj>(v).value; ++i) v = obj<NameObj>(v).value;
    return v;
}

H eval_value(H h) {
    stack_check();
    switch (kind_of(h)) {
        case Kind::Name:
            return name_value(h);
        case Kind::List:
        case Kind::Set:
        case Kind::Seq: {
            auto items = obj<SeqObj>(h).items;
            Kind k = kind_of(h);
            for (H &x : items)
                if (x) x = eval_value(x);
            items = flatten(items);
            return k == Kind::List ? mk_list(items) : k == Kind::Set ? mk_set(items) : mk_seq(items);
        }
        case Kind::Expr: {
            Op op = obj<ExprObj>(h).op;
            auto ops = obj<ExprObj>(h).ops;
            if (op == Op::Uneval) return ops[0];
            for (H &x : ops) x = eval_value(x);
            if (op == Op::Call) {
                std::vector<H> args(ops.begin() + 1, ops.end());
                return call_function(ops[0], flatten(args));
            }
            if (op == Op::Index && kind_of(ops[0]) == Kind::Table && ops.size() == 2) {
                auto &t = obj<TableObj>(ops[0]).entries;
                auto it = t.find(ops[1]);
                if (it != t.end()) return it->second;
            }
            return rebuild(op, ops);
        }
        default:
            return h;
    }
}

// ---- printing ----

enum Prec { P_OR = 1, P_AND = 2, P_NOT = 3, P_REL = 4, P_RANGE = 5, P_SUM = 6, P_PROD = 7, P_POW = 8, P_POST = 9, P_ATOM = 10 };

std::string format_float(double d) {
    if (std::isnan(d)) return "Float(undefined)";
    if (std::isinf(d)) return d > 0 ? "Float(infinity)" : "-Float(infinity)";
    char buf[64];
    auto r = std::to_chars(buf, buf + sizeof buf, d);
    std::string s(buf, r.ptr);
    if (s.find_first_of(".e") == std::string::npos) s += ".0";
    return s;
}

static std::string print_p(H h, int &prec);

static std::string print_in(H h, int min_prec) {
    int p;
    std::string s = print_p(h, p);
    return p < min_prec ? "(" + s + ")" : s;
}

static bool is_negative_real(H h) {
    if (!is_real(h)) return false;
    if (is_float(h)) return std::signbit(obj<FloatObj>(h).v) && !std::isnan(obj<FloatObj>(h).v);
    return to_mpq(h) < 0;
}

static std::string join(const std::vector<H> &v, const char *sep) {
    std::string s;
    for (size_t i = 0; i < v.size(); ++i) {
        if (i) s += sep;
        s += v[i] ? print(v[i]) : "NULL";
    }
    return s;
}

static std::string print_complex(H h, int &prec) {
    auto &c = obj<ComplexObj>(h);
    std::string ims;
    if (is_imm(c.im) && imm_val(c.im) == 1) ims = "I";
    else if (is_imm(c.im) && imm_val(c.im) == -1) ims = "-I";
    else ims = print_in(c.im, P_PROD) + "*I";
    if (is_exact_zero(c.re)) {
        prec = ims == "I" ? P_ATOM : P_PROD;
        return ims;
    }
    prec = P_SUM;
    return print(c.re) + (ims[0] == '-' ? "" : "+") + ims;
}

static std::string print_expr(H h, int &prec) {
    auto &e = obj<ExprObj>(h);
    const auto &o = e.ops;
    switch (e.op) {
        case Op::Sum: {
            prec = P_SUM;
            std::string s = print_in(o[0], P_SUM);
            for (size_t i = 1; i < o.size(); ++i) {
                H t = o[i];
                if (is_negative_real(t)) {
                    s += "-" + print_in(negate(t), P_PROD);
                } else if (kind_of(t) == Kind::Expr && obj<ExprObj>(t).op == Op::Prod &&
                           is_negative_real(obj<ExprObj>(t).ops[0])) {
                    s += "-" + print_in(negate(t), P_PROD);
                } else {
                    s += "+" + print_in(t, P_SUM + 1);
                }
            }
            return s;
        }
        case Op::Prod: {
            // Factors with a negative integer exponent go below the line: a*b/c^2.
            prec = P_PROD;
            std::vector<H> num, den;
            for (H f : o) {
                if (kind_of(f) == Kind::Expr && obj<ExprObj>(f).op == Op::Power &&
                    is_int(obj<ExprObj>(f).ops[1]) && is_negative_real(obj<ExprObj>(f).ops[1]))
                    den.push_back(power(obj<ExprObj>(f).ops[0], negate(obj<ExprObj>(f).ops[1])));
                else
                    num.push_back(f);
            }
            std::string s;
            size_t start = 0;
            if (num.size() > 1 && is_imm(num[0]) && imm_val(num[0]) == -1) {
                s = "-";
                start = 1;
            }
            if (num.size() == start) s += "1";
            for (size_t i = start; i < num.size(); ++i) {
                if (i > start) s += "*";
                s += print_in(num[i], i == start ? P_PROD : P_PROD + 1);
            }
            for (H d : den) s += "/" + print_in(d, P_PROD + 1);
            return s;
        }
        case Op::Power:
            if (is_int(o[1]) && is_negative_real(o[1])) {
                prec = P_PROD;
                return "1/" + print_in(power(o[0], negate(o[1])), P_PROD + 1);
            }
            prec = P_POW;
            return print_in(o[0], P_POW + 1) + "^" + print_in(o[1], P_POW + 1);
        case Op::Eq:
        case Op::Neq:
        case Op::Lt:
        case Op::Le: {
            prec = P_REL;
            const char *sym = e.op == Op::Eq ? " = " : e.op == Op::Neq ? " <> " : e.op == Op::Lt ? " < " : " <= ";
            return print_in(o[0], P_REL + 1) + sym + print_in(o[1], P_REL + 1);
        }
        case Op::Range:
            prec = P_RANGE;
            return print_in(o[0], P_RANGE + 1) + ".." + print_in(o[1], P_RANGE + 1);
        case Op::Call: {
            prec = P_POST;
            std::vector<H> args(o.begin() + 1, o.end());
            return print_in(o[0], P_POST) + "(" + join(args, ", ") + ")";
        }
        case Op::Index: {
            prec = P_POST;
            std::vector<H> args(o.begin() + 1, o.end());
            return print_in(o[0], P_POST) + "[" + join(args, ", ") + "]";
        }
        case Op::Uneval:
            prec = P_ATOM;
            return "'" + print(o[0]) + "'";
        case Op::And:
            prec = P_AND;
            return print_in(o[0], P_AND) + " and " + print_in(o[1], P_AND + 1);
        case Op::Or:
            prec = P_OR;
            return print_in(o[0], P_OR) + " or " + print_in(o[1], P_OR + 1);
        case Op::Not:
            prec = P_NOT;
            return "not " + print_in(o[0], P_NOT);
    }
    prec = P_ATOM;
    return "?";
}

static std::string quote_string(const std::string &s) {
    std::string r = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\') r += '\\';
        r += c;
    }
    return r + "\"";
}

static std::string print_p(H h, int &prec) {
    prec = P_ATOM;
    stack_check();
    if (h == 0) return "NULL";
    switch (kind_of(h)) {
        case Kind::Int:
            if (imm_val(h) < 0) prec = P_PROD;
            return std::to_string(imm_val(h));
        case Kind::BigInt:
            if (obj<BigIntObj>(h).v < 0) prec = P_PROD;
            return obj<BigIntObj>(h).v.get_str();
        case Kind::Rational:
            prec = P_PROD;
            return obj<RatObj>(h).v.get_str();
        case Kind::Float: {
            double d = obj<FloatObj>(h).v;
            if (std::signbit(d) && !std::isnan(d)) prec = P_PROD;
            return format_float(d);
        }
        case Kind::Complex:
            return print_complex(h, prec);
        case Kind::Name:
            return obj<NameObj>(h).name;
        case Kind::String:
            return quote_string(obj<StringObj>(h).s);
        case Kind::List:
            return "[" + join(obj<SeqObj>(h).items, ", ") + "]";
        case Kind::Set:
            return "{" + join(obj<SeqObj>(h).items, ", ") + "}";
        case Kind::Seq:
            prec = 0;
            return join(obj<SeqObj>(h).items, ", ");
        case Kind::Table: {
            std::string s = "table([";
            bool first = true;
            for (auto &[k, v] : obj<TableObj>(h).entries) {
                if (!first) s += ", ";
                first = false;
                s += print_in(k, P_REL + 1) + " = " + print_in(v, P_REL + 1);
            }
            return s + "])";
        }
        case Kind::Proc:
            return print_proc(h);
        case Kind::RTable:
            return rtable_print(h);
        case Kind::Pointer: {
            char buf[40];
            std::snprintf(buf, sizeof buf, "pointer(0x%llx)",
                          static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(obj<PointerObj>(h).p)));
            return buf;
        }
        case Kind::Stop:
            return "quit";
        case Kind::Expr:
            return print_expr(h, prec);
        default:
            fail("invalid or reclaimed value");
    }
}

std::string print(H h) {
    int p;
    return print_p(h, p);
}

std::string print_safe(H h) {
    if (h == 0) return "NULL";
    if (kind_or_dead(h) == Kind::Dead) return "<invalid or reclaimed value>";
    try {
        return print(h);
    } catch (VexelError &) {
        return "<invalid or reclaimed value>";
    }
}

std::string format_message(const std::string &fmt, const std::vector<H> &args) {
    std::string out;
    for (size_t i = 0; i < fmt.size(); ++i) {
        if (fmt[i] == '%' && i + 1 < fmt.size() && fmt[i + 1] >= '1' && fmt[i + 1] <= '9') {
            size_t n = size_t(fmt[i + 1] - '1');
            if (n < args.size()) {
                out += print_safe(args[n]);
                ++i;
                continue;
            }
        }
        out += fmt[i];
    }
    return out;
}

}  // namespace vx
