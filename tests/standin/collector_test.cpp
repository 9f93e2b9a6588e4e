// The collector: roots, the young rule, pointer values, stale handles.
#include <cstring>
#include <vector>

#include "support.hpp"

using namespace standin_test;

namespace {

class Collector : public KernelTest {
protected:
    // Two collections: everything unreachable made before the first is gone after the second.
    void collect_twice() { eval("gc(): gc():"); }
    int64_t count(const char *opt) { return VexelToInteger64(kv, eval(std::string("kernelopts(") + opt + "):")); }
    bool alive(ALGEB a) {
        size_t before = error_count();
        VexelNumArgs(kv, a);
        return error_count() == before;
    }
};

TEST_F(Collector, ProtectedSurvivesUnprotectedIsReclaimedAndStaysStale) {
    count("livevalues");
    eval("gc():");  // the names used below exist from here on
    ALGEB kept = eval("[1, 2]:");
    ALGEB lost = eval("[3, 4, 5]:");
    VexelGcProtect(kv, kept);
    int64_t live = count("livevalues");
    collect_twice();
    EXPECT_EQ(VexelNumArgs(kv, kept), 2);
    EXPECT_ONE_ERROR(*this, "invalid or reclaimed value", EXPECT_EQ(VexelNumArgs(kv, lost), 0));
    EXPECT_LT(count("livevalues"), live);
    // The slot is reused by later values, but the old handle stays stale.
    for (int i = 0; i < 20; ++i) eval("[i]:");
    EXPECT_FALSE(alive(lost));
    EXPECT_EQ(IsVexelList(kv, lost), 0);
}

TEST_F(Collector, YoungValuesAndBlocksSurviveOneCollection) {
    eval("gc():");
    ALGEB young = eval("[7]:");
    void *block = VexelAlloc(kv, 1000);
    ASSERT_NE(block, nullptr);
    int64_t bytes = count("bytesalloc");
    EXPECT_GE(bytes, 1000);
    eval("gc():");  // made since the previous collection began: kept
    EXPECT_TRUE(alive(young));
    EXPECT_GE(count("bytesalloc"), 1000);
    eval("gc():");
    EXPECT_FALSE(alive(young));
    EXPECT_LT(count("bytesalloc"), 1000);
}

// Small blocks share chunks: each is aligned, apart from the others, and
// goes when the collection that would reclaim it frees its chunk.
TEST_F(Collector, SmallBlocksAreReclaimedWithTheirChunks) {
    eval("gc():");
    constexpr int kBlocks = 3000;  // two chunks, and fewer than a collection is due after
    constexpr size_t kSize = 24;
    std::vector<uint8_t *> blocks;
    for (int i = 0; i < kBlocks; ++i) {
        auto *p = static_cast<uint8_t *>(VexelAlloc(kv, kSize));
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
        std::memset(p, i & 0xFF, kSize);
        blocks.push_back(p);
    }
    for (int i = 0; i < kBlocks; ++i) ASSERT_EQ(blocks[size_t(i)][kSize - 1], uint8_t(i & 0xFF)) << i;
    EXPECT_GE(count("bytesalloc"), int64_t(kBlocks * kSize));
    eval("gc():");
    EXPECT_GE(count("bytesalloc"), int64_t(kBlocks * kSize));
    eval("gc():");
    EXPECT_LT(count("bytesalloc"), int64_t(kSize));
}

TEST_F(Collector, RootsOfNamesAndOfTheRunningStatement) {
    EXPECT_EQ(printed("x := [1, 2]: T := table([k = [3]]): gc(): gc(): x, T[k];"), "[1, 2], [3]");
    // A procedure's locals and values made by the running statement stay.
    EXPECT_EQ(printed("f := proc() local a; a := [5]; gc(); gc(); a end proc: f();"), "[5]");
    EXPECT_EQ(printed("[seq([i], i = 1..3), gc(), gc()];"), "[[1], [2], [3]]");
    ALGEB name = ToVexelName(kv, "y", 1);
    ALGEB val = eval("[9]:");
    VexelAssign(kv, name, val);
    collect_twice();
    EXPECT_TRUE(alive(val));
    EXPECT_EQ(printed("y;"), "[9]");
}

ALGEB g_marked = nullptr;
KernelVector g_kv = nullptr;
std::vector<std::string> g_events;
void mark_one(ALGEB) {
    g_events.push_back("mark");
    if (g_marked) VexelGcMark(g_kv, g_marked);
}
void dispose_one(ALGEB p) {
    // The pointer value is still valid while its dispose function runs.
    g_events.push_back("dispose " + std::to_string(reinterpret_cast<uintptr_t>(VexelToPointer(g_kv, p))));
}
void on_restart(void *) {
    g_events.push_back("restart");
    ALGEB p = ToVexelPointer(g_kv, reinterpret_cast<void *>(uintptr_t(2)), 2);
    VexelGcProtect(g_kv, p);
    VexelPointerSetDisposeFunction(g_kv, p, dispose_one);
}

TEST_F(Collector, MarkFunctionOfAPointerKeepsValuesAlive) {
    g_kv = kv;
    g_events.clear();
    ALGEB p = ToVexelPointer(kv, reinterpret_cast<void *>(uintptr_t(1)), 1);
    VexelGcProtect(kv, p);
    VexelPointerSetMarkFunction(kv, p, mark_one);
    g_marked = eval("[1]:");
    collect_twice();
    EXPECT_TRUE(alive(g_marked));
    EXPECT_EQ(g_events.size(), 2u);
    ALGEB was = g_marked;
    g_marked = nullptr;
    collect_twice();
    EXPECT_FALSE(alive(was));
    // Marking outside a collection is misuse.
    EXPECT_ONE_ERROR(*this, "outside a collection", VexelGcMark(kv, p));
}

TEST_F(Collector, DisposeRunsOnReclaimAtRestartAndAtStop) {
    g_kv = kv;
    g_events.clear();
    ALGEB loose = ToVexelPointer(kv, reinterpret_cast<void *>(uintptr_t(5)), 0);
    VexelPointerSetDisposeFunction(kv, loose, dispose_one);
    collect_twice();
    EXPECT_EQ(g_events, std::vector<std::string>{"dispose 5"});

    ALGEB held = ToVexelPointer(kv, reinterpret_cast<void *>(uintptr_t(1)), 0);
    VexelGcProtect(kv, held);
    VexelPointerSetDisposeFunction(kv, held, dispose_one);
    RegisterRestartCallBack(kv, on_restart);
    g_events.clear();
    EXPECT_EQ(eval("restart:"), nullptr);
    EXPECT_EQ(g_events, (std::vector<std::string>{"dispose 1", "restart"}));
    EXPECT_TRUE(rec.errors().empty());
    EXPECT_EQ(IsVexelPointer(kv, held), 0);  // every value was discarded

    g_events.clear();
    stop();
    EXPECT_EQ(g_events, std::vector<std::string>{"dispose 2"});  // made by the restart callback
}

TEST_F(Collector, UniqueTableDoesNotKeepValuesAlive) {
    ALGEB a = eval("[1, x]:");
    EXPECT_EQ(VexelUnique(kv, a), a);
    ALGEB b = eval("[1, x]:");
    EXPECT_EQ(VexelUnique(kv, b), a);
    collect_twice();
    ALGEB c = eval("[1, x]:");
    EXPECT_EQ(VexelUnique(kv, c), c);
    EXPECT_TRUE(rec.errors().empty());
}

TEST_F(Collector, AutomaticCollectionAtStatementBoundaries) {
    stop();
    start({"-q", "--gcthreshold=50"});
    // Never inside a statement, but at the boundary after it.
    eval("for i to 200 do [i]; if kernelopts(collections) > 0 then error \"collected inside\" end if end do:");
    EXPECT_TRUE(rec.errors().empty());
    EXPECT_EQ(count("collections"), 1);
}

}  // namespace
