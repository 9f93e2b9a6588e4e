// A recording callback vector and a fixture that runs one stand-in kernel.
#pragma once

#include "vexelc.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace standin_test {

// One callback call with its arguments.
struct Call {
    std::string slot;  // text, error, status, readline, redirect, stream, interrupt, callback
    int64_t n;         // tag, offset, debug flag, argument count, first status integer
    int64_t n2;        // second status integer
    double d;
    bool null_text = false;
    std::string text;  // text, message, name
    std::string mode;
    std::vector<std::string> args;

    explicit Call(std::string s, int64_t a = 0, int64_t b = 0, double x = 0)
        : slot(std::move(s)), n(a), n2(b), d(x) {}
};

struct Recorder {
    KernelVector kv = nullptr;
    std::vector<Call> calls;

    // Answers. A null answer makes the callback return a null text.
    std::optional<std::string> readline_answer = std::string("input line");
    std::optional<std::string> stream_answer = std::string("stream answer");
    std::optional<std::string> callback_answer = std::string("callback answer");
    int redirect_answer = 1;
    int interrupt_at = 0;  // answer yes on this query (1-based); 0: never
    int interrupt_queries = 0;

    // Runs inside the named callback (after recording it), e.g. to raise.
    std::string act_in;
    std::function<void()> action;

    std::vector<Call> of(const std::string &slot) const;
    std::vector<std::string> errors() const;
    std::vector<std::string> texts(int tag = VEXEL_TEXT_OUTPUT) const;
    void clear() { calls.clear(); }

    VexelCallBacks vector();
};

class KernelTest : public ::testing::Test {
protected:
    Recorder rec;
    KernelVector kv = nullptr;

    void SetUp() override { start({"-q"}); }
    void TearDown() override { stop(); }

    void start(std::vector<std::string> args);
    void stop();

    ALGEB eval(const std::string &statement);
    std::string str(ALGEB a);          // printed form, "" for 0
    std::string printed(const std::string &statement);  // printed form of a statement's value
    std::string last_error() const;
    size_t error_count() const { return rec.errors().size(); }
};

// Runs f and expects exactly one error report containing `part`.
#define EXPECT_ONE_ERROR(fixture, part, ...)                                      \
    do {                                                                          \
        size_t before_ = (fixture).rec.errors().size();                          \
        __VA_ARGS__;                                                              \
        auto errs_ = (fixture).rec.errors();                                      \
        ASSERT_EQ(errs_.size(), before_ + 1) << "expected one error: " << (part); \
        EXPECT_NE(errs_.back().find(part), std::string::npos) << errs_.back();    \
    } while (0)

}  // namespace standin_test
