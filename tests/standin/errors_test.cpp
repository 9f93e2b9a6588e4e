// Error traps, message formatting and the reports of misuse.
#include "support.hpp"

#include <cmath>
#include <cstring>
#include <thread>

using namespace standin_test;

namespace {

using Errors = KernelTest;

TEST_F(Errors, ParseErrorsGiveTheByteOffset) {
    struct Case {
        const char *text;
        int64_t offset;
    } cases[] = {{"1 +;", 3}, {"x := ;", 5}, {"f(1, 2", 6}, {"  \"abc", 2}, {"1; 2 @ 3", 5}, {"if x then 1", 11},
                 {"[1, 2)", 5}};
    for (auto &c : cases) {
        rec.clear();
        EXPECT_EQ(eval(c.text), nullptr) << c.text;
        auto errs = rec.of("error");
        ASSERT_EQ(errs.size(), 1u) << c.text;
        EXPECT_EQ(errs[0].n, c.offset) << c.text << ": " << errs[0].text;
        EXPECT_NE(errs[0].text.find("syntax error"), std::string::npos);
    }
    // Other errors have no offset.
    rec.clear();
    eval("1/0;");
    ASSERT_EQ(rec.of("error").size(), 1u);
    EXPECT_EQ(rec.of("error")[0].n, -1);
}

TEST_F(Errors, MessagesReplacePercentArguments) {
    eval("error \"a %1 b %2 c %3\", x + 1, \"s\";");
    EXPECT_EQ(last_error(), "a x+1 b \"s\" c %3");
    rec.act_in = "callback";
    rec.action = [&] { VexelRaiseError2(kv, "got %1 and %2", ToVexelInteger(kv, 5), nullptr); };
    eval("callback(\"go\");");
    EXPECT_EQ(last_error(), "got 5 and NULL");
    rec.action = [&] { VexelRaiseError(kv, "plain %1"); };
    eval("callback(\"go\");");
    EXPECT_EQ(last_error(), "plain %1");
}

TEST_F(Errors, RaiseInsideACallbackUnwindsToTheOperation) {
    rec.act_in = "callback";
    rec.action = [&] { VexelRaiseError1(kv, "refused %1", ToVexelString(kv, "x")); };
    EXPECT_EQ(eval("print(1); callback(\"a\"); print(2);"), nullptr);
    EXPECT_EQ(rec.texts(), std::vector<std::string>{"1"});
    EXPECT_EQ(rec.errors(), std::vector<std::string>{"refused \"x\""});
    // The kernel is usable afterwards, and a raise from a callback of an
    // interface operation ends that operation.
    rec.clear();
    rec.act_in = "text";
    rec.action = [&] { VexelRaiseError(kv, "no output"); };
    EXPECT_EQ(eval("7;"), nullptr);
    EXPECT_EQ(rec.errors(), std::vector<std::string>{"no output"});
    rec.action = nullptr;
    EXPECT_EQ(printed("8:"), "8");
}

TEST_F(Errors, RaiseOutsideAnOperationIsReportedAndReturns) {
    EXPECT_ONE_ERROR(*this, "outside a kernel operation", VexelRaiseError(kv, "x"));
    EXPECT_EQ(printed("1 + 1:"), "2");
}

TEST_F(Errors, MisuseIsReportedAndGivesTheZeroResult) {
    ALGEB stale = eval("[1]:");
    eval("gc(): gc():");
    ALGEB list = eval("[1, 2]:");
    ALGEB i300 = ToVexelInteger(kv, 300);
    ALGEB big = eval("2^70:");
    ALGEB garbage = reinterpret_cast<ALGEB>(uintptr_t(0x123456780));
    struct Case {
        const char *what;
        std::function<bool()> zero;  // runs the call; true when it gave the zero result
    } cases[] = {
        {"invalid or reclaimed", [&] { return VexelNumArgs(kv, nullptr) == 0; }},
        {"invalid or reclaimed", [&] { return IsVexelList(kv, stale) == 0; }},
        {"invalid or reclaimed", [&] { return VexelToPointer(kv, garbage) == nullptr; }},
        {"invalid or reclaimed", [&] { return ToVexelUneval(kv, garbage) == nullptr; }},
        {"expected a string", [&] { return VexelToString(kv, list) == nullptr; }},
        {"expected a table", [&] { return VexelTableSelect(kv, list, list) == nullptr; }},
        {"expected a procedure", [&] { return EvalVexelProcedure(kv, list, ToVexelNULL(kv)) == nullptr; }},
        {"out of bounds", [&] { return VexelListSelect(kv, list, 0) == nullptr; }},
        {"out of bounds", [&] { return VexelListSelect(kv, list, 3) == nullptr; }},
        {"does not fit in 8 bits", [&] { return VexelToInteger8(kv, i300) == 0; }},
        {"does not fit in 64 bits", [&] { return VexelToInteger64(kv, big) == 0; }},
        {"expected an integer", [&] { return VexelToInteger32(kv, eval("1/2:")) == 0; }},
        {"expected a real number", [&] { return VexelToFloat64(kv, eval("x:")) == 0.0; }},
        {"expected a name", [&] { return VexelAssign(kv, list, list) == nullptr; }},
        {"character code", [&] { return ToVexelChar(kv, 256) == nullptr; }},
        {"invalid list size", [&] { return VexelListAlloc(kv, -1) == nullptr; }},
    };
    for (auto &c : cases) {
        size_t before = error_count();
        EXPECT_TRUE(c.zero()) << c.what;
        ASSERT_EQ(error_count(), before + 1) << c.what;
        EXPECT_NE(last_error().find(c.what), std::string::npos) << c.what << " / " << last_error();
    }
    EXPECT_EQ(VexelToInteger16(kv, i300), 300);
}

TEST_F(Errors, AnErrorEndsAMultiStatementCall) {
    EXPECT_EQ(eval("print(1); x := 5: error \"stop here\"; print(2); y := 6:"), nullptr);
    EXPECT_EQ(rec.texts(), std::vector<std::string>{"1"});
    EXPECT_EQ(printed("x, y;"), "5, y");
}

TEST_F(Errors, DeepRecursionIsAnErrorNotACrash) {
    for (const char *s : {"f := n -> f(n + 1): f(1);", "L := 1: for i to 50000 do L := [L] end do: L;"}) {
        EXPECT_EQ(eval(s), nullptr) << s;
        EXPECT_EQ(last_error(), "too many levels of recursion");
    }
    EXPECT_EQ(eval(std::string(50000, '(') + "1" + std::string(50000, ')') + ";"), nullptr);
    EXPECT_NE(last_error().find("nested too deeply"), std::string::npos);
    EXPECT_EQ(eval("2^(2^40);"), nullptr);
    EXPECT_EQ(last_error(), "integer too large");
    EXPECT_EQ(printed("2^10;"), "1024");
}

TEST_F(Errors, FailallocMakesTheNthAllocationFail) {
    eval("failalloc(2):");
    EXPECT_NE(VexelAlloc(kv, 8), nullptr);
    EXPECT_EQ(VexelAlloc(kv, 8), nullptr);
    EXPECT_NE(VexelAlloc(kv, 0), nullptr);  // an empty block is a valid block
    EXPECT_TRUE(rec.errors().empty());
}

TEST_F(Errors, StoppedKernelAndUnknownKernelVectors) {
    KernelVector old = kv;
    ALGEB value = eval("[1]:");
    stop();
    rec.clear();
    EXPECT_EQ(EvalVexelStatement(old, "1;"), nullptr);
    EXPECT_EQ(VexelNumArgs(old, value), 0);
    EXPECT_EQ(VexelAlloc(old, 4), nullptr);
    EXPECT_EQ(rec.errors(), std::vector<std::string>(3, "the kernel has been stopped"));

    // Unknown vectors are never dereferenced and reach no callback.
    rec.clear();
    EXPECT_EQ(EvalVexelStatement(reinterpret_cast<KernelVector>(uintptr_t(0x10)), "1;"), nullptr);
    EXPECT_EQ(EvalVexelStatement(nullptr, "1;"), nullptr);
    EXPECT_TRUE(rec.calls.empty());

    // A new kernel can start; the old handles mean nothing to it.
    start({"-q"});
    EXPECT_EQ(VexelNumArgs(kv, value), 0);
    EXPECT_NE(last_error().find("invalid or reclaimed"), std::string::npos);
    EXPECT_EQ(EvalVexelStatement(old, "1;"), nullptr);
    EXPECT_EQ(last_error(), "the kernel has been stopped");
}

TEST_F(Errors, CallsFromTwoThreadsAtOnceAreSerialised) {
    // The library serialises its calls; an embedder that does not still
    // leaves the kernel whole, each operation running alone.
    ALGEB table = eval("T := Array(1..1000000, datatype = integer[8]): T:");
    eval("n1 := 0: n2 := 0:");
    auto work = [&](const char *statement, int64_t first) {
        RTableElement e;
        std::memset(&e, 0, sizeof e);
        for (int64_t i = 0; i < 2000; ++i) {
            EvalVexelStatement(kv, statement);
            int64_t at[] = {first + i * 400};  // a new page every few calls
            e.int64 = at[0];
            RTableAssign(kv, table, at, e);
        }
    };
    std::thread a(work, "n1 := n1 + 1:", 1), b(work, "n2 := n2 + 1:", 200001);
    a.join();
    b.join();
    EXPECT_EQ(printed("n1, n2;"), "2000, 2000");
    int64_t at[] = {200001 + 1999 * 400};
    EXPECT_EQ(RTableSelect(kv, table, at).int64, at[0]);
    EXPECT_TRUE(rec.errors().empty()) << last_error();
}

TEST_F(Errors, StartFailures) {
    char errbuf[2048];
    VexelCallBacks cb = rec.vector();
    EXPECT_EQ(StartVexel(0, nullptr, &cb, &rec, nullptr, errbuf), nullptr);  // one kernel at a time
    EXPECT_NE(std::string(errbuf).find("already running"), std::string::npos);
    stop();
    char a0[] = "-q", a1[] = "--frobnicate";
    char *argv[] = {a0, a1};
    EXPECT_EQ(StartVexel(2, argv, &cb, &rec, nullptr, errbuf), nullptr);
    EXPECT_STREQ(errbuf, "unknown option --frobnicate");
    char b0[] = "file.txt", b1[] = "-q", b2[] = "--gcthreshold=5";
    char *argv2[] = {b0, b1, b2};
    kv = StartVexel(3, argv2, &cb, &rec, nullptr, errbuf);
    ASSERT_NE(kv, nullptr);
    rec.kv = kv;
    EXPECT_EQ(printed("kernelargs(), kernelopts(gcthreshold);"), "[\"file.txt\"], 5");
}

}  // namespace
