// What one call of the kernel interface costs, without the JVM: a loop of
// the operations the library's value natives make, timed with the kernel's
// own work included. A benchmark: it prints nanoseconds per call and asserts
// nothing. Usage: kernel_calls [calls]
#include "vexelc.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

void on_text(void *, int, const char *) {}
void on_error(void *, int64_t, const char *msg) { std::fprintf(stderr, "kernel error: %s\n", msg); }

// The median of five timed rounds of n calls, in nanoseconds per call.
template <class F>
double per_call(long n, F &&call) {
    for (long i = 0; i < n / 10; ++i) call(i);
    std::vector<double> rounds;
    for (int r = 0; r < 5; ++r) {
        auto t0 = std::chrono::steady_clock::now();
        for (long i = 0; i < n; ++i) call(i);
        auto t1 = std::chrono::steady_clock::now();
        rounds.push_back(std::chrono::duration<double, std::nano>(t1 - t0).count() / double(n));
    }
    std::sort(rounds.begin(), rounds.end());
    return rounds[rounds.size() / 2];
}

}  // namespace

int main(int argc, char **argv) {
    long n = argc > 1 ? std::atol(argv[1]) : 1000000;
    if (n < 1) n = 1;
    VexelCallBacks cb{};
    cb.textCallBack = on_text;
    cb.errorCallBack = on_error;
    char errbuf[2048] = "";
    char quiet[] = "-q";
    char *args[] = {quiet};
    KernelVector kv = StartVexel(1, args, &cb, nullptr, nullptr, errbuf);
    if (!kv) {
        std::fprintf(stderr, "start failed: %s\n", errbuf);
        return 1;
    }
    ALGEB num = ToVexelInteger64(kv, 42);
    ALGEB table = EvalVexelStatement(kv, "T := Array(1..100, datatype = float[8], fill = 1.5): T:");
    ALGEB list = EvalVexelStatement(kv, "L := [1, 2, 3]: L:");
    int64_t sink = 0;
    int64_t index[1] = {1};
    RTableElement e;
    std::memset(&e, 0, sizeof e);

    struct Row {
        const char *what;
        double ns;
    };
    Row rows[] = {
        {"VexelToInteger64", per_call(n, [&](long) { sink += VexelToInteger64(kv, num); })},
        {"IsVexelInteger", per_call(n, [&](long) { sink += IsVexelInteger(kv, num); })},
        {"RTableSelect", per_call(n, [&](long i) {
             index[0] = 1 + i % 100;
             sink += int64_t(RTableSelect(kv, table, index).float64);
         })},
        // The kernel index block that each element access takes.
        {"VexelAlloc (8 bytes)", per_call(n, [&](long) { sink += reinterpret_cast<intptr_t>(VexelAlloc(kv, 8)); })},
        {"RTableAssign", per_call(n, [&](long i) {
             index[0] = 1 + i % 100;
             e.float64 = double(i);
             RTableAssign(kv, table, index, e);
         })},
        {"VexelListSelect", per_call(n, [&](long) { sink += reinterpret_cast<intptr_t>(VexelListSelect(kv, list, 2)); })},
        {"ToVexelInteger64 (62 bits)", per_call(n, [&](long i) { sink += reinterpret_cast<intptr_t>(ToVexelInteger64(kv, i)); })},
    };
    if (sink == 42) std::printf("!");  // keeps the results alive
    for (auto &r : rows) std::printf("%-28s %8.1f ns/call\n", r.what, r.ns);
    StopVexel(kv);
    return 0;
}
