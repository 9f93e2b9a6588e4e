// latex(e) for every kind of value, and plot(...) through the stream callback.
#include "support.hpp"


namespace {

using namespace standin_test;
using Typeset = KernelTest;

// How often a text occurs in another.
long occurrences(const std::string &in, const std::string &what) {
    long n = 0;
    for (size_t at = in.find(what); at != std::string::npos; at = in.find(what, at + 1)) ++n;
    return n;
}

// The braces of LaTeX are balanced once the escaped ones (\{ \}) are left out.
bool balanced(const std::string &latex) {
    int depth = 0;
    for (size_t i = 0; i < latex.size(); ++i) {
        if (latex[i] == '\\' && i + 1 < latex.size()) {
            ++i;
            continue;
        }
        if (latex[i] == '{') ++depth;
        if (latex[i] == '}' && --depth < 0) return false;
    }
    return depth == 0;
}

// Inside \text{...} no character of LaTeX's own stands unescaped.
bool textEscaped(const std::string &latex) {
    for (size_t at = latex.find("\\text{"); at != std::string::npos; at = latex.find("\\text{", at + 1)) {
        int depth = 0;
        for (size_t i = at + 6; i < latex.size(); ++i) {
            char c = latex[i];
            if (c == '\\') {
                // An escape: a sign, or a command that ends in {}.
                ++i;
                if (i < latex.size() && std::isalpha(static_cast<unsigned char>(latex[i]))) {
                    while (i < latex.size() && std::isalpha(static_cast<unsigned char>(latex[i]))) ++i;
                    if (latex.compare(i, 2, "{}") != 0) return false;
                    ++i;
                }
                continue;
            }
            if (c == '{') ++depth;
            if (c == '}' && depth-- == 0) break;
            if (std::string("$%&#_^~").find(c) != std::string::npos) return false;
        }
    }
    return true;
}

struct Row {
    const char *value;
    const char *latex;
};

TEST_F(Typeset, LatexOfEveryKindOfValue) {
    const Row rows[] = {
        {"42", "42"},
        {"-7", "-7"},
        {"2^70", "1180591620717411303424"},
        {"3/4", "\\frac{3}{4}"},
        {"-1/3", "-\\frac{1}{3}"},
        {"1.5", "1.5"},
        {"2.5e-10", "2.5 \\times 10^{-10}"},
        {"2+3*I", "2+3\\,\\mathrm{i}"},
        {"x", "x"},
        {"alpha", "\\alpha"},
        {"velocity", "\\mathit{velocity}"},
        {"my_var", "\\mathit{my\\_var}"},
        {"x + y", "x+y"},
        {"x - 2*y", "x-2 y"},
        {"2*x*y", "2 x y"},
        {"x^2", "x^{2}"},
        {"(x+1)^2/(y-3)", "\\frac{\\left(x+1\\right)^{2}}{y-3}"},
        {"1/x^2", "\\frac{1}{x^{2}}"},
        {"3/4*x", "\\frac{3 x}{4}"},
        {"-x/2", "-\\frac{x}{2}"},
        {"x^(1/2)", "\\sqrt{x}"},
        {"sqrt(x + 1)", "\\sqrt{x+1}"},
        {"f(x, 2)", "f\\left(x, 2\\right)"},
        {"sin(x)", "\\sin\\left(x\\right)"},
        {"myfun(x)", "\\mathrm{myfun}\\left(x\\right)"},
        {"abs(x)", "\\left|x\\right|"},
        {"a = b", "a = b"},
        {"a <> b", "a \\neq b"},
        {"a <= b", "a \\leq b"},
        {"1..3", "1 \\ldots 3"},
        {"[1, x]", "\\left[1, x\\right]"},
        {"{3, 1}", "\\left\\{1, 3\\right\\}"},
        {"table([a = 1])", "\\mathrm{table}\\left(\\left[a = 1\\right]\\right)"},
        {"Matrix(2, 2, [[1, 2], [3, 4]])", "\\begin{pmatrix}1 & 2 \\\\ 3 & 4\\end{pmatrix}"},
        {"Vector(3, [1.5, 2.5, 3.5])", "\\begin{pmatrix}1.5 & 2.5 & 3.5\\end{pmatrix}"},
        {"Array(1..2, 1..2, [[1/2, x], [y, 0]])", "\\begin{pmatrix}\\frac{1}{2} & x \\\\ y & 0\\end{pmatrix}"},
        {"\"plain\"", "\\text{plain}"},
        {"\"50% of $5 & #1_a^b~{c}\\\\\"",
         "\\text{50\\% of \\$5 \\& \\#1\\_a\\textasciicircum{}b\\textasciitilde{}\\{c\\}\\textbackslash{}}"},
        {"x[1, 2]", "x_{1, 2}"},
    };
    for (const Row &row : rows) {
        ALGEB v = eval(std::string("latex(") + row.value + "):");
        ASSERT_NE(v, nullptr) << row.value << ": " << last_error();
        std::string printed = str(v);
        // The printed form of a string: quoted, with \ and " escaped.
        std::string latex;
        for (size_t i = 1; i + 1 < printed.size(); ++i) {
            if (printed[i] == '\\') ++i;
            latex += printed[i];
        }
        EXPECT_EQ(latex, row.latex) << row.value;
        EXPECT_TRUE(balanced(latex)) << row.value << " gives " << latex;
        EXPECT_TRUE(textEscaped(latex)) << row.value << " gives " << latex;
    }
    EXPECT_EQ(error_count(), 0u);
    EXPECT_TRUE(rec.of("text").empty()) << "latex printed something";
}

TEST_F(Typeset, LatexOfProceduresIsTheirText) {
    std::string printed = str(eval("latex(proc(x) x^2 end proc);"));
    EXPECT_EQ(printed.rfind("\"\\\\text{proc (x)", 0), 0u) << printed;
}

TEST_F(Typeset, PlotSendsOneStandaloneSvgAndReturnsNull) {
    EXPECT_EQ(printed("plot(x^2, x = -1..1);"), "");
    auto streams = rec.of("stream");
    ASSERT_EQ(streams.size(), 1u);
    EXPECT_EQ(streams[0].text, "plot");
    ASSERT_EQ(streams[0].args.size(), 1u);
    const std::string &svg = streams[0].args[0];
    EXPECT_EQ(svg.rfind("<svg xmlns=\"http://www.w3.org/2000/svg\"", 0), 0u);
    for (char c : svg) EXPECT_LT(static_cast<unsigned char>(c), 128u) << "the document is ASCII";
    EXPECT_EQ(svg.find("class=\"legend\""), std::string::npos) << "one curve has no legend";
    EXPECT_EQ(occurrences(svg, "<polyline"), 1);

    rec.clear();
    EXPECT_EQ(printed("plot([x, 1/x, x^3], x = -2..2);"), "");  // 1/x has no value at 0: that point is left out
    ASSERT_EQ(rec.of("stream").size(), 1u);
    const std::string svg3 = rec.of("stream")[0].args[0];
    EXPECT_EQ(occurrences(svg3, "<polyline"), 3);
    EXPECT_NE(svg3.find("class=\"legend\""), std::string::npos);
    EXPECT_NE(svg3.find(">1/x</text>"), std::string::npos);
    EXPECT_EQ(error_count(), 0u);
}

// The y coordinates given by attribute name="..." in an SVG document's elements of one tag.
std::vector<double> ys(const std::string &svg, const std::string &tag, const std::string &name) {
    std::vector<double> out;
    for (size_t at = svg.find("<" + tag + " "); at != std::string::npos; at = svg.find("<" + tag + " ", at + 1)) {
        size_t end = svg.find('>', at);
        size_t attr = svg.find(" " + name + "=\"", at);
        if (attr == std::string::npos || attr > end) continue;
        if (name == "points") {
            std::string points = svg.substr(attr + 9, svg.find('"', attr + 9) - attr - 9);
            for (size_t comma = points.find(','); comma != std::string::npos; comma = points.find(',', comma + 1))
                out.push_back(std::stod(points.substr(comma + 1)));
        } else {
            out.push_back(std::stod(svg.substr(attr + name.size() + 3)));
        }
    }
    return out;
}

TEST_F(Typeset, PlotLegendStandsAboveTheCurves) {
    // Pi in the range, and sin and cos sampled: both curves reach the top of their range.
    EXPECT_EQ(printed("plot([sin(x), cos(x), x/10], x = 0..2*Pi);"), "");
    ASSERT_EQ(rec.of("stream").size(), 1u) << last_error();
    const std::string svg = rec.of("stream")[0].args[0];
    std::vector<double> frame = ys(svg, "rect class=\"axes\"", "y");
    ASSERT_EQ(frame.size(), 1u);
    std::vector<double> curves = ys(svg, "polyline", "points");
    EXPECT_EQ(curves.size(), 3u * 201u);
    for (double y : curves) EXPECT_GE(y, frame[0]);
    size_t legends = 0;
    for (size_t at = svg.find("class=\"legend\""); at != std::string::npos && legends < 3; ++legends) {
        at = svg.find("<text ", at + 1);
        double y = std::stod(svg.substr(svg.find(" y=\"", at) + 4));
        EXPECT_LT(y, frame[0]) << "a legend entry inside the frame";
    }
    EXPECT_EQ(legends, 3u);
}

TEST_F(Typeset, PlotRefusesBadRangesAndExpressionsWithoutNumbers) {
    const char *bad[][2] = {
        {"plot(x, x = 1..0);", "the range must be"},
        {"plot(x, x = 1..1);", "the range must be"},
        {"plot(x, x = a..1);", "the range must be"},
        {"plot(x, 0..1);", "the range must be"},
        {"plot(x, x = \"a\"..1);", "the range must be"},
        {"plot(y, x = 0..1);", "y gives no number"},
        {"plot([x, \"s\"], x = 0..1);", "gives no number"},
        {"plot([], x = 0..1);", "nothing to plot"},
    };
    for (auto &[statement, message] : bad) {
        rec.clear();
        EXPECT_ONE_ERROR(*this, message, eval(statement));
        EXPECT_TRUE(rec.of("stream").empty()) << statement;
    }
}

}  // namespace
