// Every callback slot, with the arguments the builtins and hooks pass.
#include "support.hpp"

#include <cstring>

using namespace standin_test;

namespace {

using Callbacks = KernelTest;

TEST_F(Callbacks, TextTags) {
    eval("textcallback(6, \"six\"); textcallback(-1, \"neg\"); textcallback(2147483647, \"max\");"
         "print(1, \"a\"); lprint(x); WARNING(\"careful %1\", 2); 42; 43:");
    std::vector<std::pair<int64_t, std::string>> got;
    for (auto &c : rec.of("text")) got.emplace_back(c.n, c.text);
    std::vector<std::pair<int64_t, std::string>> want = {
        {6, "six"}, {-1, "neg"}, {2147483647, "max"}, {3, "1, \"a\""}, {3, "x"}, {5, "careful 2"}, {3, "42"}};
    EXPECT_EQ(got, want);
    EXPECT_EQ(eval("textcallback(2147483648, \"x\");"), nullptr);
    EXPECT_NE(last_error().find("32 bits"), std::string::npos);
}

TEST_F(Callbacks, BannerDuringStart) {
    stop();
    rec.clear();
    start({});
    auto texts = rec.of("text");
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_EQ(texts[0].n, VEXEL_TEXT_OUTPUT);
    EXPECT_NE(texts[0].text.find("Vexel"), std::string::npos);
}

TEST_F(Callbacks, ErrorCallbackHookPassesSixtyFourBitOffsets) {
    eval("errorcallback(2^32 + 5, \"a\"); errorcallback(-2^63, \"b\"); errorcallback(2^63 - 1, \"c\");");
    auto e = rec.of("error");
    ASSERT_EQ(e.size(), 3u);
    EXPECT_EQ(e[0].n, (int64_t(1) << 32) + 5);
    EXPECT_EQ(e[1].n, INT64_MIN);
    EXPECT_EQ(e[2].n, INT64_MAX);
    EXPECT_EQ(e[2].text, "c");
}

TEST_F(Callbacks, Status) {
    eval("statuscallback(-3, 2^40, 3/2); status();");
    auto s = rec.of("status");
    ASSERT_EQ(s.size(), 2u);
    EXPECT_EQ(s[0].n, -3);
    EXPECT_EQ(s[0].n2, int64_t(1) << 40);
    EXPECT_EQ(s[0].d, 1.5);
    EXPECT_LE(s[1].n, s[1].n2);  // kilobytes used, kilobytes allocated
    EXPECT_GE(s[1].d, 0.0);
}

TEST_F(Callbacks, ReadlineAndCallbackAnswersAreCopied) {
    EXPECT_EQ(printed("readline(), readline(true), callback(\"ping\");"),
              "\"input line\", \"input line\", \"callback answer\"");
    auto r = rec.of("readline");
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].n, 0);
    EXPECT_EQ(r[1].n, 1);
    EXPECT_EQ(rec.of("callback")[0].text, "ping");
    // A null answer counts as the empty text.
    rec.readline_answer.reset();
    rec.callback_answer.reset();
    rec.stream_answer.reset();
    EXPECT_EQ(printed("readline(), callback(\"x\"), streamcall(\"s\");"), "\"\", \"\", \"\"");
}

TEST_F(Callbacks, Redirect) {
    EXPECT_EQ(printed("writeto(\"out\"), appendto(\"log\"), writeto(terminal);"), "true, true, true");
    auto r = rec.of("redirect");
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0].text, "out");
    EXPECT_EQ(r[0].mode, "w");
    EXPECT_EQ(r[1].text, "log");
    EXPECT_EQ(r[1].mode, "a");
    EXPECT_TRUE(r[2].null_text);
    rec.redirect_answer = 0;
    EXPECT_EQ(printed("writeto(\"x\");"), "false");
    EXPECT_EQ(eval("writeto(x);"), nullptr);  // a name other than terminal is an error
}

TEST_F(Callbacks, Streamcall) {
    EXPECT_EQ(printed("streamcall(\"plot\", \"a\", \"b c\"), streamcall(\"none\");"),
              "\"stream answer\", \"stream answer\"");
    auto s = rec.of("stream");
    ASSERT_EQ(s.size(), 2u);
    EXPECT_EQ(s[0].text, "plot");
    EXPECT_EQ(s[0].n, 2);
    EXPECT_EQ(s[0].args, (std::vector<std::string>{"a", "b c"}));
    EXPECT_EQ(s[1].n, 0);
    EXPECT_EQ(eval("streamcall(\"s\", 1);"), nullptr);
    EXPECT_NE(last_error().find("expected a string"), std::string::npos);
}

TEST_F(Callbacks, LoopsPollTheInterruptOncePerIteration) {
    rec.interrupt_at = 5;
    EXPECT_EQ(eval("n := 0: for i to 10^9 do n := n + 1 end do:"), nullptr);
    EXPECT_EQ(rec.errors(), std::vector<std::string>{"computation interrupted"});
    EXPECT_EQ(rec.of("interrupt").size(), 5u);
    EXPECT_EQ(printed("n;"), "4");
    rec.interrupt_queries = 0;
    rec.interrupt_at = 2;
    EXPECT_EQ(printed("interrupted(), interrupted();"), "false, true");
    rec.interrupt_queries = 0;
    rec.interrupt_at = 3;
    eval("do end do;");
    EXPECT_EQ(last_error(), "computation interrupted");
}

TEST_F(Callbacks, NullSlotsAreSkipped) {
    stop();
    VexelCallBacks none{};
    char errbuf[2048];
    kv = StartVexel(0, nullptr, &none, nullptr, nullptr, errbuf);
    ASSERT_NE(kv, nullptr);
    EXPECT_EQ(printed("print(1); readline(), callback(\"x\"), streamcall(\"s\"), writeto(\"f\"), interrupted();"),
              "\"\", \"\", \"\", false, false");
    EXPECT_EQ(eval("error \"nobody hears this\";"), nullptr);
    EXPECT_EQ(printed("for i to 3 do end do: i;"), "4");
}

}  // namespace
