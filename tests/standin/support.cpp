#include "support.hpp"

#include <cstring>

namespace standin_test {

namespace {

// Answers handed to the kernel live here; the kernel must copy them.
thread_local std::string g_answer;

Recorder &R(void *data) { return *static_cast<Recorder *>(data); }

void act(Recorder &r, const char *slot) {
    if (r.action && r.act_in == slot) r.action();
}

char *answer(const std::optional<std::string> &a) {
    if (!a) return nullptr;
    g_answer = *a;
    return g_answer.data();
}

void on_text(void *data, int tag, const char *s) {
    Call c{"text", tag};
    c.text = s;
    R(data).calls.push_back(c);
    act(R(data), "text");
}

void on_error(void *data, int64_t offset, const char *s) {
    Call c{"error", offset};
    c.text = s;
    R(data).calls.push_back(c);
    act(R(data), "error");
}

void on_status(void *data, int64_t a, int64_t b, double d) {
    Call c{"status", a, b, d};
    R(data).calls.push_back(c);
    act(R(data), "status");
}

char *on_readline(void *data, int debug) {
    R(data).calls.push_back(Call{"readline", debug});
    act(R(data), "readline");
    return answer(R(data).readline_answer);
}

int on_redirect(void *data, const char *name, const char *mode) {
    Call c{"redirect"};
    c.null_text = name == nullptr;
    c.text = name ? name : "";
    c.mode = mode ? mode : "(null)";
    R(data).calls.push_back(c);
    act(R(data), "redirect");
    return R(data).redirect_answer;
}

char *on_stream(void *data, const char *name, int64_t n, char **args) {
    Call c{"stream", n};
    c.text = name;
    for (int64_t i = 0; i < n; ++i) c.args.push_back(args[i]);
    R(data).calls.push_back(c);
    act(R(data), "stream");
    return answer(R(data).stream_answer);
}

int on_interrupt(void *data) {
    Recorder &r = R(data);
    r.calls.push_back(Call{"interrupt"});
    act(r, "interrupt");
    return ++r.interrupt_queries == r.interrupt_at ? 1 : 0;
}

char *on_callback(void *data, const char *s) {
    Call c{"callback"};
    c.text = s;
    R(data).calls.push_back(c);
    act(R(data), "callback");
    return answer(R(data).callback_answer);
}

}  // namespace

std::vector<Call> Recorder::of(const std::string &slot) const {
    std::vector<Call> v;
    for (auto &c : calls)
        if (c.slot == slot) v.push_back(c);
    return v;
}

std::vector<std::string> Recorder::errors() const {
    std::vector<std::string> v;
    for (auto &c : of("error")) v.push_back(c.text);
    return v;
}

std::vector<std::string> Recorder::texts(int tag) const {
    std::vector<std::string> v;
    for (auto &c : of("text"))
        if (c.n == tag) v.push_back(c.text);
    return v;
}

VexelCallBacks Recorder::vector() {
    return VexelCallBacks{on_text,      on_error, on_status,   on_readline, on_redirect,
                          on_stream,    on_interrupt, on_callback};
}

void KernelTest::start(std::vector<std::string> args) {
    std::vector<char *> argv;
    for (auto &a : args) argv.push_back(a.data());
    VexelCallBacks cb = rec.vector();
    char errbuf[2048] = "";
    kv = StartVexel(int(argv.size()), argv.empty() ? nullptr : argv.data(), &cb, &rec, nullptr, errbuf);
    ASSERT_NE(kv, nullptr) << errbuf;
    rec.kv = kv;
}

void KernelTest::stop() {
    if (kv) StopVexel(kv);
    kv = nullptr;
}

ALGEB KernelTest::eval(const std::string &statement) { return EvalVexelStatement(kv, statement.c_str()); }

std::string KernelTest::str(ALGEB a) {
    if (!a) return "";
    ALGEB s = VexelALGEB_SPrintf1(kv, "%a", a);
    if (!s) return "<error>";
    return VexelToString(kv, s);
}

std::string KernelTest::printed(const std::string &statement) { return str(eval(statement)); }

std::string KernelTest::last_error() const {
    auto e = rec.errors();
    return e.empty() ? "" : e.back();
}

}  // namespace standin_test
