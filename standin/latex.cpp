// latex(e): the LaTeX of a value, for front ends that typeset. It follows
// the printed form's structure and precedences, so that the two always
// show the same expression.
#include "core.hpp"
#include "rtable.hpp"

#include <cmath>

namespace vx {

namespace {

enum Prec { P_REL = 4, P_RANGE = 5, P_SUM = 6, P_PROD = 7, P_POW = 8, P_ATOM = 10 };

std::string latex_p(H h, int &prec);

std::string latex_in(H h, int min_prec) {
    int p;
    std::string s = latex_p(h, p);
    return p < min_prec ? "\\left(" + s + "\\right)" : s;
}

std::string latex_of(H h) {
    int p;
    return latex_p(h, p);
}

// Text set in \text{}: the characters LaTeX gives a meaning to are escaped.
std::string text(const std::string &s) {
    std::string r = "\\text{";
    for (char c : s) {
        switch (c) {
            case '\\': r += "\\textbackslash{}"; break;
            case '{': r += "\\{"; break;
            case '}': r += "\\}"; break;
            case '$': r += "\\$"; break;
            case '%': r += "\\%"; break;
            case '&': r += "\\&"; break;
            case '#': r += "\\#"; break;
            case '_': r += "\\_"; break;
            case '^': r += "\\textasciicircum{}"; break;
            case '~': r += "\\textasciitilde{}"; break;
            default: r += c;
        }
    }
    return r + "}";
}

bool negative_real(H h) {
    if (!is_real(h)) return false;
    if (kind_of(h) == Kind::Float) return std::signbit(obj<FloatObj>(h).v) && !std::isnan(obj<FloatObj>(h).v);
    return to_mpq(h) < 0;
}

const char *const kGreek[] = {"alpha", "beta",  "gamma", "delta", "epsilon", "zeta",  "eta",   "theta",
                              "iota",  "kappa", "lambda", "mu",   "nu",      "xi",    "pi",    "rho",
                              "sigma", "tau",   "upsilon", "phi", "chi",     "psi",   "omega", "Gamma",
                              "Delta", "Theta", "Lambda", "Xi",   "Pi",      "Sigma", "Phi",   "Psi", "Omega"};

std::string underscores(const std::string &n) {
    std::string r;
    for (char c : n) r += c == '_' ? std::string("\\_") : std::string(1, c);
    return r;
}

std::string name(const std::string &n) {
    for (const char *g : kGreek)
        if (n == g) return std::string("\\") + g;
    if (n == "infinity") return "\\infty";
    if (n.size() == 1) return n;
    return "\\mathit{" + underscores(n) + "}";
}

std::string join(const std::vector<H> &v, const char *sep) {
    std::string s;
    for (size_t i = 0; i < v.size(); ++i) {
        if (i) s += sep;
        s += v[i] ? latex_of(v[i]) : "";
    }
    return s;
}

std::string number(const std::string &printed) {
    // A float's exponent: 1.5e-10 as 1.5 \times 10^{-10}.
    size_t e = printed.find('e');
    if (e == std::string::npos) return printed;
    std::string exponent = printed.substr(e + 1);
    if (!exponent.empty() && exponent[0] == '+') exponent.erase(0, 1);
    return printed.substr(0, e) + " \\times 10^{" + exponent + "}";
}

std::string fraction(const mpq_class &q) {
    mpz_class num = q.get_num();
    std::string sign = num < 0 ? "-" : "";
    if (num < 0) num = -num;
    return sign + "\\frac{" + num.get_str() + "}{" + q.get_den().get_str() + "}";
}

std::string function(H f) {
    if (kind_of(f) != Kind::Name) return latex_in(f, P_ATOM);
    static const char *const known[] = {"sin", "cos", "tan", "exp", "ln", "log", "sinh", "cosh", "tanh", "max",
                                        "min"};
    const std::string &n = name_of(f);
    for (const char *k : known)
        if (n == k) return std::string("\\") + k;
    return n.size() == 1 ? n : "\\mathrm{" + underscores(n) + "}";
}

// Factors side by side; alone above or below a fraction's line, one needs no brackets.
std::string product(const std::vector<H> &factors, bool inFraction) {
    if (inFraction && factors.size() == 1) return latex_of(factors[0]);
    std::string s;
    for (size_t i = 0; i < factors.size(); ++i) {
        std::string f = latex_in(factors[i], P_PROD + 1);
        // Numbers side by side need a sign between them; anything else is juxtaposed.
        if (i > 0) s += !f.empty() && (std::isdigit(static_cast<unsigned char>(f[0])) || f[0] == '-') ? " \\cdot " : " ";
        s += f;
    }
    return s;
}

std::string expr(H h, int &prec) {
    auto &e = obj<ExprObj>(h);
    const auto &o = e.ops;
    switch (e.op) {
        case Op::Sum: {
            prec = P_SUM;
            std::string s = latex_in(o[0], P_SUM);
            for (size_t i = 1; i < o.size(); ++i) {
                H t = o[i];
                bool minus = negative_real(t) || (kind_of(t) == Kind::Expr && obj<ExprObj>(t).op == Op::Prod &&
                                                  negative_real(obj<ExprObj>(t).ops[0]));
                s += minus ? "-" + latex_in(negate(t), P_PROD) : "+" + latex_in(t, P_SUM + 1);
            }
            return s;
        }
        case Op::Prod: {
            // Factors with a negative integer exponent, and a rational coefficient's denominator, go below
            // the line of a fraction.
            prec = P_PROD;
            std::vector<H> num, den;
            std::string sign;
            for (H f : o) {
                if (kind_of(f) == Kind::Expr && obj<ExprObj>(f).op == Op::Power && is_int(obj<ExprObj>(f).ops[1]) &&
                    negative_real(obj<ExprObj>(f).ops[1])) {
                    den.push_back(power(obj<ExprObj>(f).ops[0], negate(obj<ExprObj>(f).ops[1])));
                } else if (kind_of(f) == Kind::Rational) {
                    mpq_class q = to_mpq(f);
                    if (q < 0) {
                        sign = "-";
                        q = -q;
                    }
                    if (q.get_num() != 1) num.push_back(mk_int(mpz_class(q.get_num())));
                    den.push_back(mk_int(mpz_class(q.get_den())));
                } else if (is_imm(f) && imm_val(f) == -1 && o.size() > 1) {
                    sign = "-";
                } else {
                    num.push_back(f);
                }
            }
            if (den.empty()) return sign + product(num, false);
            std::string top = num.empty() ? "1" : product(num, true);
            return sign + "\\frac{" + top + "}{" + product(den, true) + "}";
        }
        case Op::Power: {
            H base = o[0], exponent = o[1];
            if (is_int(exponent) && negative_real(exponent)) {
                prec = P_PROD;
                return "\\frac{1}{" + latex_of(power(base, negate(exponent))) + "}";
            }
            if (kind_of(exponent) == Kind::Rational && to_mpq(exponent) == mpq_class(1, 2)) {
                prec = P_ATOM;
                return "\\sqrt{" + latex_of(base) + "}";
            }
            prec = P_POW;
            return latex_in(base, P_POW + 1) + "^{" + latex_of(exponent) + "}";
        }
        case Op::Eq:
        case Op::Neq:
        case Op::Lt:
        case Op::Le: {
            prec = P_REL;
            const char *sym = e.op == Op::Eq ? " = " : e.op == Op::Neq ? " \\neq " : e.op == Op::Lt ? " < " : " \\leq ";
            return latex_in(o[0], P_REL + 1) + sym + latex_in(o[1], P_REL + 1);
        }
        case Op::Range:
            prec = P_RANGE;
            return latex_in(o[0], P_RANGE + 1) + " \\ldots " + latex_in(o[1], P_RANGE + 1);
        case Op::Call: {
            prec = P_ATOM;
            std::vector<H> args(o.begin() + 1, o.end());
            if (kind_of(o[0]) == Kind::Name && args.size() == 1) {
                if (name_of(o[0]) == "sqrt") return "\\sqrt{" + latex_of(args[0]) + "}";
                if (name_of(o[0]) == "abs") return "\\left|" + latex_of(args[0]) + "\\right|";
            }
            return function(o[0]) + "\\left(" + join(args, ", ") + "\\right)";
        }
        case Op::Index: {
            prec = P_ATOM;
            std::vector<H> args(o.begin() + 1, o.end());
            return latex_in(o[0], P_ATOM) + "_{" + join(args, ", ") + "}";
        }
        case Op::Uneval:
            prec = P_ATOM;
            return latex_of(o[0]);
        case Op::And:
            prec = 2;
            return latex_in(o[0], 2) + " \\wedge " + latex_in(o[1], 3);
        case Op::Or:
            prec = 1;
            return latex_in(o[0], 1) + " \\vee " + latex_in(o[1], 2);
        case Op::Not:
            prec = 3;
            return "\\neg " + latex_in(o[0], 3);
    }
    prec = P_ATOM;
    return text(print(h));
}

// A 2-D table as a matrix, a 1-D one as a row; others as their printed text.
std::string rtable(H h) {
    RTableObj &t = rtable_of(h);
    if (t.ndim < 1 || t.ndim > 2) return text(print(h));
    int64_t rows = t.ndim == 2 ? t.hi[0] - t.lo[0] + 1 : 1;
    int64_t cols = t.hi[t.ndim - 1] - t.lo[t.ndim - 1] + 1;
    std::string s = "\\begin{pmatrix}";
    for (int64_t r = 0; r < rows; ++r) {
        if (r) s += " \\\\ ";
        for (int64_t c = 0; c < cols; ++c) {
            if (c) s += " & ";
            std::vector<int64_t> idx;
            if (t.ndim == 2) idx.push_back(t.lo[0] + r);
            idx.push_back(t.lo[t.ndim - 1] + c);
            s += latex_of(rtable_get(h, idx));
        }
    }
    return s + "\\end{pmatrix}";
}

std::string latex_p(H h, int &prec) {
    prec = P_ATOM;
    stack_check();
    if (h == 0) return "";
    switch (kind_of(h)) {
        case Kind::Int:
        case Kind::BigInt: {
            std::string s = print(h);
            if (s[0] == '-') prec = P_PROD;
            return s;
        }
        case Kind::Rational:
            prec = P_PROD;
            return fraction(to_mpq(h));
        case Kind::Float: {
            double d = obj<FloatObj>(h).v;
            if (std::isnan(d)) return "\\mathrm{undefined}";
            if (std::isinf(d)) return d > 0 ? "\\infty" : "-\\infty";
            if (std::signbit(d)) prec = P_PROD;
            return number(format_float(d));
        }
        case Kind::Complex: {
            H re = real_part(h), im = imag_part(h);
            std::string i = is_imm(im) && imm_val(im) == 1    ? "\\mathrm{i}"
                            : is_imm(im) && imm_val(im) == -1 ? "-\\mathrm{i}"
                                                              : latex_in(im, P_PROD) + "\\,\\mathrm{i}";
            if (is_imm(re) && imm_val(re) == 0) {
                prec = P_PROD;
                return i;
            }
            prec = P_SUM;
            return latex_of(re) + (i[0] == '-' ? "" : "+") + i;
        }
        case Kind::Name:
            return name(name_of(h));
        case Kind::String:
            return text(string_of(h));
        case Kind::List:
            return "\\left[" + join(obj<SeqObj>(h).items, ", ") + "\\right]";
        case Kind::Set:
            return "\\left\\{" + join(obj<SeqObj>(h).items, ", ") + "\\right\\}";
        case Kind::Seq:
            prec = 0;
            return join(obj<SeqObj>(h).items, ", ");
        case Kind::Table: {
            std::string s = "\\mathrm{table}\\left(\\left[";
            bool first = true;
            for (auto &[k, v] : obj<TableObj>(h).entries) {
                if (!first) s += ", ";
                first = false;
                s += latex_in(k, P_REL + 1) + " = " + latex_in(v, P_REL + 1);
            }
            return s + "\\right]\\right)";
        }
        case Kind::RTable:
            return rtable(h);
        case Kind::Stop:
            return "\\mathrm{quit}";
        case Kind::Expr:
            return expr(h, prec);
        default:  // procedures and pointers: their printed text
            return text(print(h));
    }
}

}  // namespace

std::string latex(H h) { return latex_of(h); }

}  // namespace vx
