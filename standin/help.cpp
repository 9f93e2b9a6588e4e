// Help pages: one topic per builtin, and "index", which says what the kernel
// computes and lists the topics; each with the sections usage, info,
// examples and seealso. In the texts below, _word_ is a parameter (italic) and
// ~word~ carries the attribute code 2 (only the page attribute-test has one).
#include "core.hpp"

#include <cstring>

namespace vx {

namespace {

struct Page {
    const char *topic;
    const char *usage;
    const char *info;
    const char *examples;
    const char *seealso;  // topics separated by spaces
    bool hook = false;    // a test hook: left out of the index
};

// What the index says the kernel computes, and what it leaves as typed.
const char *const kIndexInfo =
    "This is the stand-in kernel: a small kernel that ships with ambrix so that everything builds, runs and is "
    "tested. The Vexel kernel, libvexelc, takes its place by name. The stand-in computes integers of any size and "
    "fractions exactly, floats, complex numbers, the elementary functions of a float (sin(1.0), exp(0.5)), "
    "evalf(Pi), lists, sets, tables and rectangular tables, procedures, loops, plot and latex. It does no symbolic "
    "mathematics: int(x^2, x), diff(sin(x)*x, x), expand((x+1)^3) and sin(1) of an exact number come back "
    "unevaluated, as typed. See Also lists every topic.";

const char *const kElementaryInfo =
    "The elementary functions sin, cos, tan, arcsin, arccos, arctan, sinh, cosh, tanh, exp, ln (also log), sqrt and "
    "abs. Of a float they give a float where the result is a real number; of anything else, an exact number or a "
    "name, they stay unevaluated: sin(1) stays sin(1), and evalf(sin(1)) gives its float. plot evaluates them at "
    "each point.";

const char *const kElementarySeeAlso = "evalf Pi plot";

const Page kPages[] = {
    {"index", "?_topic_ shows the help on a topic, ??_topic_ its usage, ???_topic_ its examples.", kIndexInfo,
     "evalf(Pi); sin(1.0); int(x^2, x);", ""},
    {"print", "print(_e1_, _e2_, ...)",
     "Prints the expressions _e1_, _e2_, ... on one line, separated by commas, and returns NULL. Strings are "
     "printed with their quotes.",
     "print(1, \"a\", x);", "lprint WARNING"},
    {"lprint", "lprint(_e1_, _e2_, ...)", "Prints the expressions like print does, on one line, and returns NULL.",
     "lprint(x + 1);", "print"},
    {"error", "error _msg_, _a1_, _a2_, ...",
     "Raises an error. In the string _msg_, %1 stands for the printed form of _a1_, %2 for that of _a2_, and so on. "
     "The error ends the whole statement, and the message is shown as \"Error, ...\".",
     "error \"bad value %1\", x;", "WARNING"},
    {"WARNING", "WARNING(_msg_, _a1_, ...)",
     "Shows the message _msg_ as a warning, with %1, %2, ... replaced as for error, and returns NULL. The "
     "statement goes on.",
     "WARNING(\"careful with %1\", x);", "error print"},
    {"evalf", "evalf(_e_)",
     "Evaluates _e_ with floating-point numbers: integers and fractions become floats, and so do Pi, the parts of "
     "complex numbers and the numbers inside expressions, lists and sets. The elementary functions of the floats "
     "that result are then evaluated.",
     "evalf(1/3); evalf(Pi); evalf(sin(1));", "evalhf eval Pi sin"},
    {"evalhf", "evalhf(_e_)",
     "Evaluates _e_ to a hardware float. It is an error when the result is not a real number.", "evalhf(2/3);",
     "evalf"},
    {"eval", "eval(_e_)",
     "Evaluates _e_ once more: names are replaced by their values and unevaluated quotes are removed.",
     "eval('x');", "evalf evalb"},
    {"evalb", "evalb(_e_)",
     "Evaluates the relation or logical expression _e_ to true or false. It is an error when that cannot be decided.",
     "evalb(1 < 2);", "eval"},
    {"Pi", "Pi",
     "The number pi. It stays the name Pi in exact work; evalf(Pi) gives the float 3.141592653589793, and plot "
     "uses that value.",
     "evalf(Pi); evalf(2*Pi);", "evalf sin"},
    {"sin", "sin(_x_)", kElementaryInfo, "sin(1.0); sin(1); evalf(sin(1));", kElementarySeeAlso},
    {"cos", "cos(_x_)", kElementaryInfo, "cos(0.5);", kElementarySeeAlso},
    {"tan", "tan(_x_)", kElementaryInfo, "tan(0.5);", kElementarySeeAlso},
    {"arcsin", "arcsin(_x_)", kElementaryInfo, "arcsin(0.5);", kElementarySeeAlso},
    {"arccos", "arccos(_x_)", kElementaryInfo, "arccos(0.5);", kElementarySeeAlso},
    {"arctan", "arctan(_x_)", kElementaryInfo, "arctan(1.0);", kElementarySeeAlso},
    {"sinh", "sinh(_x_)", kElementaryInfo, "sinh(1.0);", kElementarySeeAlso},
    {"cosh", "cosh(_x_)", kElementaryInfo, "cosh(1.0);", kElementarySeeAlso},
    {"tanh", "tanh(_x_)", kElementaryInfo, "tanh(1.0);", kElementarySeeAlso},
    {"exp", "exp(_x_)", kElementaryInfo, "exp(1.0); evalf(exp(1));", kElementarySeeAlso},
    {"ln", "ln(_x_) or log(_x_)", kElementaryInfo, "ln(2.0);", kElementarySeeAlso},
    {"log", "log(_x_) or ln(_x_)", kElementaryInfo, "log(2.0);", kElementarySeeAlso},
    {"sqrt", "sqrt(_x_)", kElementaryInfo, "sqrt(2.0); sqrt(2);", kElementarySeeAlso},
    {"abs", "abs(_x_)", kElementaryInfo, "abs(-1.5);", kElementarySeeAlso},
    {"nops", "nops(_e_)",
     "Returns the number of operands of _e_: the elements of a list, set or sequence, the entries of a table, the "
     "arguments of a function call, and 1 for an atom.",
     "nops([a, b, c]);", "op"},
    {"op", "op(_i_, _e_) or op(_e_)",
     "Returns the _i_-th operand of _e_ (from the end when _i_ is negative); op(0, f(x)) is f. Without _i_ it returns "
     "all the operands as a sequence.",
     "op(2, [a, b, c]);", "nops"},
    {"latex", "latex(_e_)",
     "Returns a string holding the LaTeX of _e_, for front ends that typeset: fractions, powers, roots, function "
     "calls, lists, sets and tables, 2-D rectangular tables as matrices, strings as text. It prints nothing.",
     "latex((x + 1)^2/(y - 3));", "plot print"},
    {"plot", "plot(_e_, _x_ = _a_.._b_) or plot([_e1_, _e2_, ...], _x_ = _a_.._b_)",
     "Draws the curves of the expressions in _x_ from _a_ to _b_, with a legend when there are several, and returns "
     "NULL. The shell writes the picture to a file, vexel-plot-N.svg, and names it; a notebook shows it under the "
     "cell. The expressions may use numbers, Pi, + - * / ^ and the elementary functions. Points where an expression "
     "gives no number are left out; an expression that gives none at all is an error.",
     "plot(x^2 - 1, x = -2..2); plot([sin(x), cos(x)], x = 0..2*Pi);", "sin latex"},
    {"seq", "seq(_e_, _i_ = _a_.._b_)",
     "Evaluates _e_ for each integer _i_ from _a_ to _b_ and returns the results as a sequence. The right-hand side "
     "may also be a list or a set, whose elements _i_ then takes in turn.",
     "seq(i^2, i = 1..5);", "op"},
    {"table", "table() or table(_init_)",
     "Makes a new table, empty or filled from the list _init_: an equation k = v stores v under the key k, any other "
     "element is stored under its position.",
     "T := table([a = 1]): T[b] := 2: T;", "Array"},
    {"Array", "Array(_r1_, _r2_, ..., _init_, datatype = _t_, fill = _v_)",
     "Makes a rectangular table with the ranges _r1_, _r2_, ... (integers lo..hi), filled from the nested list "
     "_init_ or with _v_. The data type _t_ is one of anything, sfloat, complex(sfloat), integer[1], integer[2], "
     "integer[4], integer[8], float[8], complex[8], float[4] and truefalse. Storage is column-major and filled with "
     "zeros as it is first written, so very large tables of small types can be made.",
     "A := Array(1..3, [1.0, 2.0, 3.0], datatype = float[8]);", "Vector Matrix"},
    {"Vector", "Vector(_n_, _init_, datatype = _t_)",
     "Makes a rectangular table of one dimension with the range 1.._n_.", "Vector(3, [1, 2, 3]);", "Array Matrix"},
    {"Matrix", "Matrix(_m_, _n_, _init_, datatype = _t_)",
     "Makes a rectangular table of two dimensions with the ranges 1.._m_ and 1.._n_; _init_ is a list of rows.",
     "Matrix(2, 2, [[1, 2], [3, 4]]);", "Array Vector"},
    {"gc", "gc()",
     "Runs a garbage collection and returns NULL. Values that nothing refers to any more are reclaimed, except those "
     "made since the previous collection began, which survive one more.",
     "gc();", "kernelopts"},
    {"kernelopts", "kernelopts(_name_) or kernelopts(gcthreshold = _n_)",
     "Reports the kernel's state: livevalues (the number of live values), collections (the number of collections "
     "so far), bytesalloc (the bytes held in kernel memory blocks), gcthreshold (the allocations between automatic "
     "collections, which can also be set) and version.",
     "kernelopts(livevalues);", "gc kernelargs"},
    {"kernelargs", "kernelargs()",
     "Returns the arguments the kernel was started with that are not options, as a list of strings.",
     "kernelargs();", "kernelopts"},
    {"readline", "readline() or readline(_debug_)",
     "Reads a line that the user types (in the shell, the next line of its input; in a notebook, an input box) and "
     "returns it as a string.",
     "readline();", "print"},
    {"writeto", "writeto(_name_) or writeto(terminal)",
     "Sends the output that follows to the file _name_, which it empties first, or back to the screen with "
     "writeto(terminal). Returns true, or false when the file cannot be opened.",
     "writeto(\"out.txt\");", "appendto"},
    {"appendto", "appendto(_name_)",
     "Sends the output that follows to the end of the file _name_. Returns true, or false when the file cannot be "
     "opened.",
     "appendto(\"out.txt\");", "writeto"},
    {"streamcall", "streamcall(_name_, _s1_, _s2_, ...)",
     "Sends the strings _s1_, _s2_, ... to the program that runs the kernel, on its stream _name_, and returns its "
     "answer as a string. The shell knows the streams \"echo\" (its answer is the strings joined by spaces) and "
     "\"getenv\" (the value of an environment variable).",
     "streamcall(\"getenv\", \"HOME\");", "callback"},
    {"callback", "callback(_s_)",
     "Sends the string _s_ to the program that runs the kernel and returns its answer as a string; the shell answers "
     "with the string itself.",
     "callback(\"ping\");", "streamcall readline"},
    {"interrupted", "interrupted()",
     "Returns true when the user asked to stop the computation (Ctrl-C in the shell, the notebook's interrupt), else "
     "false. Loops ask the same question on each round and stop with the error \"computation interrupted\".",
     "interrupted();", "status"},
    {"status", "status()",
     "Shows the memory the kernel uses and holds, in kilobytes, and the processor time it took, in seconds, and "
     "returns NULL.",
     "status();", "kernelopts"},
    {"whattype", "whattype(_e_)", "Returns the name of the kind of _e_.", "whattype(1/2);", "nops"},
    {"knownnames", "knownnames() or knownnames(_prefix_)",
     "Returns the names the kernel knows, its built-ins and the names assigned so far, that start with the string "
     "_prefix_, as a sorted list of strings: what a front end offers to complete a name.",
     "knownnames(\"pr\");", "whattype"},
    {"textcallback", "textcallback(_tag_, _s_)",
     "Calls the text callback with exactly the integer _tag_ and the string _s_. A test hook.",
     "textcallback(3, \"hello\");", "errorcallback statuscallback", true},
    {"errorcallback", "errorcallback(_offset_, _s_)",
     "Calls the error callback with exactly the 64-bit _offset_ and the string _s_. A test hook.",
     "errorcallback(-1, \"oops\");", "textcallback", true},
    {"statuscallback", "statuscallback(_a_, _b_, _c_)",
     "Calls the status callback with exactly the integers _a_ and _b_ and the float _c_. A test hook.",
     "statuscallback(1, 2, 3.5);", "status textcallback", true},
    {"pointer", "pointer(_n_)",
     "Makes a pointer value holding the address _n_; pointer(0) holds the null pointer. A test hook.",
     "pointer(4096);", "failalloc", true},
    {"failalloc", "failalloc(_n_)",
     "Makes the _n_-th kernel memory allocation from now fail (1: the next one; 0 cancels). A test hook.",
     "failalloc(1);", "pointer", true},
    {"attribute-test", "attribute-test",
     "This page carries the attribute code ~2~ once, for tests of an attribute that the embedder does not know.",
     "none", "print", true},
};

// The index's "See Also": every topic but the index itself and the test hooks.
const std::string &index_topics() {
    static const std::string topics = [] {
        std::string t;
        for (const Page &p : kPages)
            if (!p.hook && std::strcmp(p.topic, "index") != 0) t += std::string(t.empty() ? "" : " ") + p.topic;
        return t;
    }();
    return topics;
}

struct Stop {};  // a callback asked to stop the output

struct Writer {
    VexelWriteCharFunc wc;
    VexelWriteAttribFunc wa;
    void *data;
    int width;
    int col = 0;

    void ch(int c) {
        if (wc(data, c)) throw Stop{};
    }
    void attr(int a) {
        if (wa(data, a)) throw Stop{};
    }
    void newline() {
        ch('\n');
        col = 0;
    }

    using Segment = std::pair<int, std::string>;  // attribute, text

    // One word: text pieces with their attributes, written as a unit.
    void word(const std::vector<Segment> &segs) {
        int len = 0;
        for (auto &s : segs) len += int(s.second.size());
        if (col > 0) {
            if (width > 0 && col + 1 + len > width) {
                newline();
            } else {
                ch(' ');
                ++col;
            }
        }
        for (auto &[a, text] : segs) {
            if (a) attr(a);
            for (char c : text) ch(static_cast<unsigned char>(c));
            if (a) attr(VEXEL_ATTRIB_NORMAL);
        }
        col += len;
    }

    // A paragraph with _italic_ and ~code 2~ markup, word-wrapped.
    void paragraph(const char *text) {
        std::vector<Segment> segs;
        std::string cur;
        int a = 0;
        auto flush_seg = [&] {
            if (!cur.empty()) segs.emplace_back(a, cur);
            cur.clear();
        };
        auto flush_word = [&] {
            flush_seg();
            if (!segs.empty()) word(segs);
            segs.clear();
        };
        for (const char *p = text; *p; ++p) {
            if (*p == ' ') {
                flush_word();
            } else if (*p == '_' || *p == '~') {
                int code = *p == '_' ? VEXEL_ATTRIB_ITAL : 2;
                flush_seg();
                a = a == code ? 0 : code;
            } else {
                cur += *p;
            }
        }
        flush_word();
        newline();
    }

    void heading(const char *text) {
        attr(VEXEL_ATTRIB_BOLD);
        for (const char *p = text; *p; ++p) ch(*p);
        attr(VEXEL_ATTRIB_NORMAL);
        col = int(std::strlen(text));
        newline();
    }

    void links(const char *topics) {
        std::string list(topics);
        size_t start = 0;
        std::vector<std::string> names;
        while (start < list.size()) {
            size_t end = list.find(' ', start);
            if (end == std::string::npos) end = list.size();
            if (end > start) names.push_back(list.substr(start, end - start));
            start = end + 1;
        }
        for (size_t i = 0; i < names.size(); ++i) {
            std::vector<Segment> segs{{VEXEL_ATTRIB_UNDER, names[i]}};
            if (i + 1 < names.size()) segs.emplace_back(0, ",");
            word(segs);
        }
        newline();
    }
};

}  // namespace

const char *help(const char *topic, const char *section, VexelWriteCharFunc wc, VexelWriteAttribFunc wa, int width,
                 void *data) {
    if (!topic) fail("null help topic");
    if (!section) fail("null help section");
    if (!wc || !wa) fail("null help output function");
    const Page *page = nullptr;
    for (const Page &p : kPages)
        if (std::strcmp(p.topic, topic) == 0) page = &p;
    if (!page) {
        K->help_msg = std::string("no help for ") + topic;
        return K->help_msg.c_str();
    }
    std::string s(section);
    bool all = s.empty();
    if (!all && s != "usage" && s != "info" && s != "examples" && s != "seealso") {
        K->help_msg = "unknown help section " + s;
        return K->help_msg.c_str();
    }
    Writer w{wc, wa, data, width};
    try {
        bool first = true;
        auto part = [&](const char *name, const char *title, auto &&body) {
            if (!all && s != name) return;
            if (!first) w.newline();
            first = false;
            w.heading(title);
            body();
        };
        part("usage", "Usage", [&] { w.paragraph(page->usage); });
        part("info", "Description", [&] { w.paragraph(page->info); });
        part("examples", "Examples", [&] { w.paragraph(page->examples); });
        const char *seealso = std::strcmp(page->topic, "index") == 0 ? index_topics().c_str() : page->seealso;
        part("seealso", "See Also", [&] { w.links(seealso); });
    } catch (Stop &) {
    }
    return nullptr;
}

}  // namespace vx
