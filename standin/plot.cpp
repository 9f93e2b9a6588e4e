// plot(e, x = a..b) and plot([e1, e2, ...], x = a..b): samples each
// expression over the range and hands the front end a standalone SVG
// document through the stream callback, as the stream "plot".
#include "core.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace vx {

namespace {

constexpr int kSamples = 200;
// The picture: its size, and the frame of the axes inside it. With several
// curves the legend stands in rows above the frame, which moves down to make
// room: inside the frame it would cover the curves.
constexpr double kWidth = 560, kHeight = 360;
constexpr double kLeft = 64, kRight = 540, kTop = 20, kBottom = 320;
constexpr double kLegendRow = 18, kLegendSwatch = 22, kCharWidth = 7;
const char *const kColours[] = {"#1f77b4", "#d62728", "#2ca02c", "#ff7f0e", "#9467bd", "#8c564b"};

// The value of e at x = v, or NaN where it gives no real number: numbers,
// Pi, the variable, + - * / ^ and the elementary functions.
double value_at(H e, H x, double v) {
    stack_check();
    if (e == x) return v;
    switch (kind_of(e)) {
        case Kind::Name: {
            H f = evalf(e);  // Pi
            return kind_of(f) == Kind::Float ? to_double(f) : NAN;
        }
        case Kind::Int:
        case Kind::BigInt:
        case Kind::Rational:
        case Kind::Float:
            return to_double(e);
        case Kind::Expr:
            break;
        default:
            return NAN;
    }
    auto &ex = obj<ExprObj>(e);
    const auto &o = ex.ops;
    switch (ex.op) {
        case Op::Sum: {
            double s = 0;
            for (H t : o) s += value_at(t, x, v);
            return s;
        }
        case Op::Prod: {
            double p = 1;
            for (H f : o) p *= value_at(f, x, v);
            return p;
        }
        case Op::Power:
            return std::pow(value_at(o[0], x, v), value_at(o[1], x, v));
        case Op::Call: {
            if (o.size() != 2 || kind_of(o[0]) != Kind::Name) return NAN;
            RealFunction f = elementary(name_of(o[0]));
            return f ? f(value_at(o[1], x, v)) : NAN;
        }
        default:
            return NAN;
    }
}

// A range end as a number; fails with the message for a bad range.
double end_of(H h) {
    H f = evalf(h);
    if (!is_real(f)) fail("plot: the range must be x = a..b with numbers a < b");
    return to_double(f);
}

std::string escaped(const std::string &s) {
    std::string r;
    for (char c : s) {
        switch (c) {
            case '<': r += "&lt;"; break;
            case '>': r += "&gt;"; break;
            case '&': r += "&amp;"; break;
            case '"': r += "&quot;"; break;
            default:
                // The kernel's 8-bit text as character references, so the document is ASCII.
                if (static_cast<unsigned char>(c) >= 128)
                    r += "&#" + std::to_string(static_cast<unsigned char>(c)) + ";";
                else
                    r += c;
        }
    }
    return r;
}

std::string num(double d) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.2f", d);
    return buf;
}

std::string label(double d) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%g", std::fabs(d) < 1e-12 ? 0.0 : d);
    return buf;
}

// Tick positions for [lo, hi]: a step of 1, 2 or 5 times a power of ten, about six ticks.
std::vector<double> ticks(double lo, double hi) {
    double raw = (hi - lo) / 6;
    double unit = std::pow(10, std::floor(std::log10(raw)));
    double step = unit;
    for (double m : {2.0, 5.0, 10.0})
        if (step < raw) step = m * unit;
    std::vector<double> t;
    for (double v = std::ceil(lo / step) * step; v <= hi + step * 1e-9; v += step) t.push_back(v);
    return t;
}

struct Curve {
    std::string legend;
    std::vector<std::pair<double, double>> points;
};

std::string svg(const std::vector<Curve> &curves, double a, double b) {
    double lo = INFINITY, hi = -INFINITY;
    for (auto &c : curves)
        for (auto &[x, y] : c.points) {
            lo = std::min(lo, y);
            hi = std::max(hi, y);
        }
    if (hi - lo < 1e-12 * std::max(1.0, std::fabs(hi))) {
        lo -= 1;
        hi += 1;
    }
    // The legend's entries, left to right, in as many rows as they need.
    std::vector<std::pair<double, double>> entries;
    double top = kTop;
    if (curves.size() > 1) {
        double x = kLeft, y = kLegendRow - 4;
        for (auto &c : curves) {
            double w = kLegendSwatch + 6 + kCharWidth * double(c.legend.size()) + 18;
            if (x > kLeft && x + w > kRight) {
                x = kLeft;
                y += kLegendRow;
            }
            entries.emplace_back(x, y);
            x += w;
        }
        top = y + kLegendRow - 4;
    }
    auto sx = [&](double x) { return kLeft + (x - a) / (b - a) * (kRight - kLeft); };
    auto sy = [&](double y) { return kBottom - (y - lo) / (hi - lo) * (kBottom - top); };
    // No XML declaration: the document is ASCII (see escaped), and some readers refuse one in a string.
    std::string s = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + num(kWidth) + "\" height=\"" +
                    num(kHeight) + "\" viewBox=\"0 0 " + num(kWidth) + " " + num(kHeight) +
                    "\" font-family=\"sans-serif\" font-size=\"12\">\n"
                    "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    // Zero lines where they fall inside, then the frame of the axes.
    if (lo < 0 && hi > 0)
        s += "<line class=\"zero\" x1=\"" + num(kLeft) + "\" y1=\"" + num(sy(0)) + "\" x2=\"" + num(kRight) +
             "\" y2=\"" + num(sy(0)) + "\" stroke=\"#bbbbbb\"/>\n";
    if (a < 0 && b > 0)
        s += "<line class=\"zero\" x1=\"" + num(sx(0)) + "\" y1=\"" + num(top) + "\" x2=\"" + num(sx(0)) +
             "\" y2=\"" + num(kBottom) + "\" stroke=\"#bbbbbb\"/>\n";
    s += "<rect class=\"axes\" x=\"" + num(kLeft) + "\" y=\"" + num(top) + "\" width=\"" + num(kRight - kLeft) +
         "\" height=\"" + num(kBottom - top) + "\" fill=\"none\" stroke=\"black\"/>\n";
    for (double t : ticks(a, b))
        s += "<line x1=\"" + num(sx(t)) + "\" y1=\"" + num(kBottom) + "\" x2=\"" + num(sx(t)) + "\" y2=\"" +
             num(kBottom + 5) + "\" stroke=\"black\"/><text x=\"" + num(sx(t)) + "\" y=\"" + num(kBottom + 18) +
             "\" text-anchor=\"middle\">" + label(t) + "</text>\n";
    for (double t : ticks(lo, hi))
        s += "<line x1=\"" + num(kLeft - 5) + "\" y1=\"" + num(sy(t)) + "\" x2=\"" + num(kLeft) + "\" y2=\"" +
             num(sy(t)) + "\" stroke=\"black\"/><text x=\"" + num(kLeft - 8) + "\" y=\"" + num(sy(t) + 4) +
             "\" text-anchor=\"end\">" + label(t) + "</text>\n";
    for (size_t i = 0; i < curves.size(); ++i) {
        std::string points;
        for (auto &[x, y] : curves[i].points) points += (points.empty() ? "" : " ") + num(sx(x)) + "," + num(sy(y));
        s += "<polyline fill=\"none\" stroke-width=\"2\" stroke=\"" + std::string(kColours[i % 6]) + "\" points=\"" +
             points + "\"/>\n";
    }
    if (curves.size() > 1) {
        s += "<g class=\"legend\">\n";
        for (size_t i = 0; i < curves.size(); ++i) {
            auto [x, y] = entries[i];
            s += "<line x1=\"" + num(x) + "\" y1=\"" + num(y - 4) + "\" x2=\"" + num(x + kLegendSwatch) +
                 "\" y2=\"" + num(y - 4) + "\" stroke-width=\"2\" stroke=\"" + kColours[i % 6] + "\"/><text x=\"" +
                 num(x + kLegendSwatch + 6) + "\" y=\"" + num(y) + "\">" + escaped(curves[i].legend) + "</text>\n";
        }
        s += "</g>\n";
    }
    return s + "</svg>\n";
}

}  // namespace

H plot_builtin(const std::vector<H> &a) {
    H range = a[1];
    if (kind_of(range) != Kind::Expr || obj<ExprObj>(range).op != Op::Eq ||
        kind_of(obj<ExprObj>(range).ops[0]) != Kind::Name || kind_of(obj<ExprObj>(range).ops[1]) != Kind::Expr ||
        obj<ExprObj>(obj<ExprObj>(range).ops[1]).op != Op::Range)
        fail("plot: the range must be x = a..b with numbers a < b");
    H x = obj<ExprObj>(range).ops[0];
    const auto &ends = obj<ExprObj>(obj<ExprObj>(range).ops[1]).ops;
    double from = end_of(ends[0]), to = end_of(ends[1]);
    if (!(from < to) || !std::isfinite(from) || !std::isfinite(to))
        fail("plot: the range must be x = a..b with numbers a < b");
    std::vector<H> exprs = kind_of(a[0]) == Kind::List ? items_of(a[0]) : std::vector<H>{a[0]};
    if (exprs.empty()) fail("plot: nothing to plot");
    std::vector<Curve> curves;
    for (H e : exprs) {
        Curve c{print(e), {}};
        for (int i = 0; i <= kSamples; ++i) {
            double v = from + (to - from) * i / kSamples;
            double y = value_at(e, x, v);
            if (std::isfinite(y)) c.points.emplace_back(v, y);
        }
        if (c.points.empty()) fail("plot: " + c.legend + " gives no number for " + print(x) + " in the range");
        curves.push_back(std::move(c));
    }
    std::string doc = svg(curves, from, to);
    char *args[] = {doc.data(), nullptr};
    if (K->cb.streamCallBack) (void)K->cb.streamCallBack(K->data, "plot", 1, args);
    return K->null_val;
}

}  // namespace vx
