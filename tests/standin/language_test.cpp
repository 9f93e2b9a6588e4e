// The language's values and printed forms, and the value operations of the interface.
#include "support.hpp"

#include <cmath>
#include <cstring>
#include <csignal>

using namespace standin_test;

namespace {

using Language = KernelTest;

TEST_F(Language, PrintedForms) {
    const std::pair<const char *, const char *> cases[] = {
        {"1 + 2", "3"},
        {"2^100", "1267650600228229401496703205376"},
        {"-2^63", "-9223372036854775808"},
        {"6/4", "3/2"},
        {"1/3 + 2/3", "1"},
        {"evalf(1/3)", "0.3333333333333333"},
        {"2.0", "2.0"},
        {"1.5e-10", "1.5e-10"},
        {"1/2 + 0.25", "0.75"},
        {"2 + 3*I", "2+3*I"},
        {"I^2", "-1"},
        {"-I", "-I"},
        {"1.5 - 2.0*I", "1.5-2.0*I"},
        {"(1 + I)/(1 - I)", "I"},
        {"x + 1", "x+1"},
        {"x - 2*y + 3", "x-2*y+3"},
        {"a*b/c^2", "a*b/c^2"},
        {"(x + 1)*(y - 1)", "(x+1)*(y-1)"},
        {"-x^2", "-x^2"},
        {"(-2)^x", "(-2)^x"},
        {"[1, 2, NULL]", "[1, 2]"},
        {"{2, 1, 2, x}", "{1, 2, x}"},
        {"1, (2, 3)", "1, 2, 3"},
        {"NULL", ""},
        {"table([a = 1, b = [2]])", "table([a = 1, b = [2]])"},
        {"proc(x, y) x^2 end proc", "proc (x, y) ... end proc"},
        {"x -> x^2", "proc (x) ... end proc"},
        {"pointer(255)", "pointer(0xff)"},
        {"pointer(0)", "pointer(0x0)"},
        {"'x + 1'", "x+1"},
        {"''x''", "'x'"},
        {"a = b", "a = b"},
        {"a <> b", "a <> b"},
        {"1..3", "1..3"},
        {"f(x, [y])", "f(x, [y])"},
        {"x[1, 2]", "x[1, 2]"},
        {"\"say \\\"hi\\\"\"", "\"say \\\"hi\\\"\""},
        {"1 < 2, 2 <= 1, 3 > 2, x < 1", "true, false, true, x < 1"},
        {"not true, true and x, false or y", "false, x, y"},
        {"evalb(1 = 1.0), evalb([1] = [1]), evalb(x <> x)", "true, true, false"},
        {"seq(i^2, i = 1..4)", "1, 4, 9, 16"},
        {"seq(2*v, v = [a, b])", "2*a, 2*b"},
        {"op(2, [a, b, c]), op(-1, [a, b, c]), nops(x + y + z), op(0, f(x))", "b, c, 3, f"},
        {"evalf(1/4 + I/2), evalhf(3/8)", "0.25+0.5*I, 0.375"},
        {"eval('x'), whattype(1/2)", "x, fraction"},
        {"f := proc(n) if n < 2 then 1 else n*f(n - 1) end if end proc: f(20)", "2432902008176640000"},
        {"g := (a, b) -> a - b: g(10, 3)", "7"},
        {"s := 0: for i from 10 by -3 to 1 do s := s + i end do: s, i", "22, -2"},
        {"s := 0: for v in [1, 2, 3] do s := s + v end do: s", "6"},
        {"k := 0: while k < 5 do k := k + 1; if k = 2 then next end if; if k = 4 then break end if end do: k", "4"},
        {"h := proc() local t; t := 1; return t + 1; 99 end proc: h(), nargs", "2, nargs"},
        {"c := proc() nargs, args end proc: c(7, 8)", "2, 7, 8"},
        {"T := table(): T[1, 2] := z: T[1, 2], T[3]", "z, T[3]"},
        {"L := [1, 2, 3]: L[2] := 9: L, L[-1]", "[1, 9, 3], 3"},
        {"a, b := 1, 2: a + b", "3"},
        {"u := 5: u := 'u': u", "u"},
        {"kernelopts(version)", "\"Vexel stand-in kernel 1.0\""},
        // Elementary functions of a float, and evalf of Pi; symbolic work stays as typed.
        {"sin(1.0), sin(1), sin(x)", "0.8414709848078965, sin(1), sin(x)"},
        {"evalf(sin(1)), evalf(Pi), Pi, evalf(2*Pi)", "0.8414709848078965, 3.141592653589793, Pi, 6.283185307179586"},
        {"exp(0.0), ln(1.0), sqrt(4.0), abs(-1.5), 4*arctan(1.0)", "1.0, 0.0, 2.0, 1.5, 3.141592653589793"},
        {"cos(0.0), tan(0.0), arcsin(1.0)*2, arccos(1.0), sinh(0.0), cosh(0.0), tanh(0.0), log(1.0)",
         "1.0, 0.0, 3.141592653589793, 0.0, 0.0, 1.0, 0.0, 0.0"},
        {"sqrt(-4.0), ln(0.0), sin(1.0, 2.0)", "sqrt(-4.0), ln(0.0), sin(1.0, 2.0)"},
        {"int(x^2, x), diff(sin(x)*x, x), expand((x+1)^3)", "int(x^2, x), diff(sin(x)*x, x), expand((x+1)^3)"},
        {"f := t -> exp(t): f(1.0), f(1)", "2.718281828459045, exp(1)"},
        {"quit", "quit"},
    };
    for (auto &[stmt, want] : cases) {
        rec.clear();
        std::string got = printed(std::string(stmt) + ";");
        EXPECT_EQ(got, want) << stmt << " / " << last_error();
        EXPECT_TRUE(rec.errors().empty()) << stmt << ": " << last_error();
    }
    EXPECT_EQ(eval("g(1);"), nullptr);
    EXPECT_NE(last_error().find("missing argument, b"), std::string::npos) << last_error();
}

TEST_F(Language, StatementValuesAndPrinting) {
    EXPECT_EQ(eval("x := 1;"), nullptr);  // an assignment has no value
    EXPECT_EQ(eval(""), nullptr);
    EXPECT_EQ(eval("restart;"), nullptr);
    EXPECT_EQ(printed("x;"), "x");  // the restart forgot x
    rec.clear();
    eval("1; 2: 3");  // a missing final terminator counts as ';'
    EXPECT_EQ(rec.texts(), (std::vector<std::string>{"1", "3"}));
    rec.clear();
    eval("for i to 2 do i end do;");
    EXPECT_EQ(rec.texts(), (std::vector<std::string>{"1", "2"}));
    rec.clear();
    ALGEB q = eval("quit; print(9);");
    EXPECT_EQ(IsVexelStop(kv, q), 1);
    EXPECT_TRUE(rec.texts().empty());
}

enum KindBit {
    Numeric = 1 << 0, Complex = 1 << 1, Name = 1 << 2, Table = 1 << 3, List = 1 << 4, Proc = 1 << 5, Seq = 1 << 6,
    String = 1 << 7, RTable = 1 << 8, Null = 1 << 9, Pointer = 1 << 10, PointerNull = 1 << 11, Set = 1 << 12,
    Stop = 1 << 13, Int = 1 << 14, I8 = 1 << 15, I16 = 1 << 16, I32 = 1 << 17, I64 = 1 << 18, Zero = 1 << 19,
    Assigned = 1 << 20
};

TEST_F(Language, ExactlyOneKindTestHolds) {
    int (*tests[])(KernelVector, ALGEB) = {
        IsVexelNumeric,   IsVexelComplexNumeric, IsVexelName,       IsVexelTable,   IsVexelList,
        IsVexelProcedure, IsVexelExpressionSequence, IsVexelString, IsVexelRTable,  IsVexelNULL,
        IsVexelPointer,   IsVexelPointerNULL,    IsVexelSet,        IsVexelStop,    IsVexelInteger,
        IsVexelInteger8,  IsVexelInteger16,      IsVexelInteger32,  IsVexelInteger64, IsVexelUnnamedZero,
        IsVexelAssignedName};
    const std::pair<const char *, int> cases[] = {
        {"0", Numeric | Int | I8 | I16 | I32 | I64 | Zero},
        {"-128", Numeric | Int | I8 | I16 | I32 | I64},
        {"128", Numeric | Int | I16 | I32 | I64},
        {"-2^31", Numeric | Int | I32 | I64},
        {"2^31", Numeric | Int | I64},
        {"2^63", Numeric | Int},
        {"1/3", Numeric},
        {"0.0", Numeric},
        {"2 + I", Complex},
        {"x", Name},
        {"assigned_one", Name | Assigned},
        {"\"s\"", String},
        {"[1]", List},
        {"{1}", Set},
        {"1, 2", Seq},
        {"NULL", Null},
        {"table()", Table},
        {"proc() end proc", Proc},
        {"Array(1..2)", RTable},
        {"pointer(1)", Pointer},
        {"pointer(0)", PointerNull},
        {"quit", Stop},
        {"x + 1", 0},
        {"f(x)", 0},
    };
    eval("assigned_one := 1:");
    for (auto &[stmt, want] : cases) {
        ALGEB v = std::string(stmt) == "assigned_one" ? ToVexelName(kv, "assigned_one", 1) : eval(std::string(stmt) + ":");
        int got = 0;
        for (size_t i = 0; i < std::size(tests); ++i)
            if (tests[i](kv, v)) got |= 1 << i;
        EXPECT_EQ(got, want) << stmt;
    }
    EXPECT_TRUE(rec.errors().empty()) << last_error();
}

TEST_F(Language, IntegerConversionsAtTheEdgesOfEachWidth) {
    struct Case {
        const char *value;
        int64_t v;
        int widest_miss;  // the widest width it does not fit (0: fits all)
    } cases[] = {
        {"127", 127, 0}, {"-128", -128, 0}, {"128", 128, 8}, {"-129", -129, 8},
        {"32767", 32767, 8}, {"-32769", -32769, 16}, {"2^31 - 1", INT32_MAX, 16}, {"-2^31", INT32_MIN, 16},
        {"2^31", int64_t(1) << 31, 32}, {"2^61 - 1", (int64_t(1) << 61) - 1, 32},
        {"2^61", int64_t(1) << 61, 32}, {"-2^61 - 1", -(int64_t(1) << 61) - 1, 32},
        {"2^63 - 1", INT64_MAX, 32}, {"-2^63", INT64_MIN, 32}, {"2^63", 0, 64}, {"-2^63 - 1", 0, 64},
    };
    int (*const fits[])(KernelVector, ALGEB) = {IsVexelInteger8, IsVexelInteger16, IsVexelInteger32,
                                                IsVexelInteger64};
    const int widths[] = {8, 16, 32, 64};
    for (auto &c : cases) {
        SCOPED_TRACE(c.value);
        ALGEB a = eval(std::string(c.value) + ":");
        for (size_t w = 0; w < 4; ++w) {
            bool fit = widths[w] > c.widest_miss;
            EXPECT_EQ(fits[w](kv, a), fit ? 1 : 0) << widths[w];
            size_t before = error_count();
            int64_t got = widths[w] == 8    ? VexelToInteger8(kv, a)
                          : widths[w] == 16 ? VexelToInteger16(kv, a)
                          : widths[w] == 32 ? VexelToInteger32(kv, a)
                                            : VexelToInteger64(kv, a);
            EXPECT_EQ(got, fit ? c.v : 0) << widths[w];
            EXPECT_EQ(error_count(), before + (fit ? 0 : 1)) << widths[w];
            if (!fit) {
                EXPECT_NE(last_error().find("does not fit in " + std::to_string(widths[w]) + " bits"),
                          std::string::npos) << last_error();
            }
        }
    }
}

TEST_F(Language, ConstructionAndConversion) {
    ALGEB g1 = ToVexelName(kv, "n", 1), g2 = ToVexelName(kv, "n", 1);
    ALGEB l1 = ToVexelName(kv, "n", 0), l2 = ToVexelName(kv, "n", 0);
    EXPECT_EQ(g1, g2);
    EXPECT_NE(l1, g1);
    EXPECT_NE(l1, l2);
    EXPECT_EQ(str(l1), "n");
    EXPECT_EQ(VexelToInteger64(kv, ToVexelInteger64(kv, INT64_MIN)), INT64_MIN);
    EXPECT_EQ(str(ToVexelInteger64(kv, INT64_MAX)), "9223372036854775807");
    EXPECT_EQ(str(ToVexelChar(kv, 'q')), "\"q\"");
    EXPECT_EQ(str(ToVexelBoolean(kv, 7)), "true");
    EXPECT_EQ(ToVexelBoolean(kv, 1), eval("true:"));
    double nan;
    uint64_t bits = 0x7ff8000000c0ffeeULL, back;
    std::memcpy(&nan, &bits, 8);
    double d = VexelToFloat64(kv, ToVexelFloat(kv, nan));
    std::memcpy(&back, &d, 8);
    EXPECT_EQ(back, bits);
    EXPECT_EQ(VexelToFloat32(kv, eval("1/4:")), 0.25f);
    EXPECT_EQ(str(VexelSelectRealPart(kv, eval("2 - 3*I:"))), "2");
    EXPECT_EQ(str(VexelSelectImaginaryPart(kv, eval("2 - 3*I:"))), "-3");
    EXPECT_EQ(str(VexelSelectImaginaryPart(kv, eval("2.5:"))), "0");
    VexelComplexDAG p = VexelToComplexFloatDAG(kv, eval("1.5:"));
    EXPECT_EQ(str(p.re), "1.5");
    EXPECT_EQ(IsVexelUnnamedZero(kv, p.im), 1);
    EXPECT_EQ(str(ToVexelComplexFloat(kv, ToVexelFloat(kv, 1), ToVexelFloat(kv, -2))), "1.0-2.0*I");
    EXPECT_EQ(str(VexelALGEB_SPrintf1(kv, "<%a> 100%%", eval("[x]:"))), "\"<[x]> 100%\"");
    EXPECT_EQ(str(VexelEval(kv, ToVexelUneval(kv, eval("'1 + z':")))), "z+1");
    eval("z := 2:");
    EXPECT_EQ(str(VexelEval(kv, ToVexelUneval(kv, ToVexelName(kv, "z", 1)))), "z");
    EXPECT_DOUBLE_EQ(VexelEvalhf(kv, eval("'z/4':")), 0.5);
    ALGEB name = ToVexelName(kv, "w", 1);
    EXPECT_EQ(IsVexelAssignedName(kv, name), 0);
    VexelAssign(kv, name, eval("[1]:"));
    EXPECT_EQ(IsVexelAssignedName(kv, name), 1);
    EXPECT_EQ(printed("w;"), "[1]");
    EXPECT_TRUE(rec.errors().empty()) << last_error();
}

TEST_F(Language, TablesListsAndSequences) {
    ALGEB t = VexelTableAlloc(kv);
    ALGEB k = eval("[a]:");
    VexelTableAssign(kv, t, k, ToVexelInteger(kv, 1));
    EXPECT_EQ(str(VexelTableSelect(kv, t, eval("[a]:"))), "1");  // keys compare by structure
    EXPECT_EQ(VexelTableSelect(kv, t, eval("b:")), nullptr);
    EXPECT_EQ(VexelTableHasEntry(kv, t, k), 1);
    VexelTableDelete(kv, t, k);
    VexelTableDelete(kv, t, k);
    EXPECT_EQ(VexelTableHasEntry(kv, t, k), 0);

    ALGEB l = VexelListAlloc(kv, 3);
    EXPECT_EQ(VexelListSelect(kv, l, 2), nullptr);  // unfilled, no error
    VexelListAssign(kv, l, 2, k);
    EXPECT_EQ(VexelListSelect(kv, l, 2), k);
    EXPECT_EQ(VexelNumArgs(kv, l), 3);
    EXPECT_EQ(IsVexelNULL(kv, NewVexelExpressionSequence(kv, 0)), 1);
    ALGEB s = NewVexelExpressionSequence(kv, 2);
    VexelExpseqAssign(kv, s, 1, ToVexelInteger(kv, 3));
    VexelExpseqAssign(kv, s, 2, ToVexelInteger(kv, 4));
    EXPECT_EQ(str(s), "3, 4");
    EXPECT_EQ(VexelNumArgs(kv, ToVexelNULL(kv)), 0);
    EXPECT_EQ(VexelNumArgs(kv, eval("f(x, y, z):")), 3);
    EXPECT_TRUE(rec.errors().empty()) << last_error();
}

TEST_F(Language, ProceduresThroughTheInterface) {
    ALGEB f = eval("(a, b) -> a*b + 1:");
    ALGEB args = NewVexelExpressionSequence(kv, 2);
    VexelExpseqAssign(kv, args, 1, ToVexelInteger(kv, 6));
    VexelExpseqAssign(kv, args, 2, eval("x:"));
    EXPECT_EQ(str(EvalVexelProcedure(kv, f, args)), "6*x+1");
    EXPECT_EQ(str(EvalVexelProcedure(kv, eval("proc() 5 end proc:"), ToVexelNULL(kv))), "5");
    double in[] = {0.0, 2.5, 3.0};
    EXPECT_EQ(EvalhfVexelProc(kv, f, 2, in), 8.5);
    EXPECT_TRUE(rec.errors().empty()) << last_error();
    EXPECT_EQ(EvalVexelProcedure(kv, f, NewVexelExpressionSequence(kv, 1)), nullptr);  // unfilled argument
    EXPECT_NE(last_error().find("never filled"), std::string::npos);
    EXPECT_EQ(EvalhfVexelProc(kv, eval("proc() x end proc:"), 0, nullptr), 0.0);
    EXPECT_NE(last_error().find("hardware floats"), std::string::npos);
}

}  // namespace

namespace {

// Built-in names mean what they mean: assigning to one is an error, a local
// of that name is the procedure's own.
TEST_F(Language, BuiltInNamesAreProtected) {
    for (const char *name : {"Array", "print", "seq", "gc"}) {
        EXPECT_ONE_ERROR(*this, std::string("attempting to assign to `") + name + "` which is protected",
                         eval(std::string(name) + " := 3:"));
        EXPECT_ONE_ERROR(*this, "which is protected", eval(std::string(name) + "[1] := 3:"));
    }
    EXPECT_EQ(printed("proc() local print; print := 3; print end proc()"), "3");
}

// Without --test-hooks the process hooks are ordinary names.
TEST_F(Language, ProcessHooksNeedTheirOption) {
    EXPECT_EQ(printed("spin()"), "spin()");
    EXPECT_EQ(printed("crashkernel()"), "crashkernel()");
    eval("hogmemory := 5:");
    EXPECT_EQ(printed("hogmemory"), "5");
    EXPECT_EQ(error_count(), 0u);
}

using ProcessHooks = KernelTest;

TEST_F(ProcessHooks, CrashKernelIsARealSegmentationFault) {
    stop();
    start({"-q", "--test-hooks"});
#ifdef __SANITIZE_ADDRESS__
    // The sanitizer reports the fault itself and exits.
    EXPECT_EXIT(eval("crashkernel();"), ::testing::ExitedWithCode(1), "SEGV");
#else
    EXPECT_EXIT(eval("crashkernel();"), ::testing::KilledBySignal(SIGSEGV), "");
#endif
    EXPECT_ONE_ERROR(*this, "which is protected", eval("spin := 3:"));
    EXPECT_EQ(printed("knownnames(\"fail\")"), "[\"failalloc\"]");
    EXPECT_EQ(printed("knownnames(\"sp\")"), "[\"spin\"]");
}

}  // namespace

namespace {

// What a front end completes from: the built-ins and the assigned names
// that start with a prefix, sorted.
TEST_F(Language, KnownNamesAreBuiltInsAndAssignedNames) {
    eval("myvalue := 3: mystery := 4: myunassigned:");
    EXPECT_EQ(printed("knownnames(\"my\")"), "[\"mystery\", \"myvalue\"]");
    EXPECT_EQ(printed("knownnames(\"pri\")"), "[\"print\"]");
    EXPECT_EQ(printed("knownnames(\"zz\")"), "[]");
    // The hooks only with --test-hooks.
    for (const char *prefix : {"spi", "fail", "poi", "textc", "errorc", "statusc"})
        EXPECT_EQ(printed(std::string("knownnames(\"") + prefix + "\")"), "[]") << prefix;
    EXPECT_EQ(printed("knownnames(\"status\")"), "[\"status\"]");
}

}  // namespace
