// Rectangular tables through the interface.
#include "support.hpp"

#include <cmath>
#include <cstring>
#include <functional>

using namespace standin_test;

namespace {

using RTables = KernelTest;

RTableElement none() {
    RTableElement e;
    std::memset(&e, 0, sizeof e);
    return e;
}

TEST_F(RTables, SettingsBoundsAndIndexChecks) {
    ALGEB a = eval("Array(-1..1, 2..3, datatype = float[8]):");
    RTableSettings s;
    RTableGetSettings(kv, &s, a);
    EXPECT_EQ(s.data_type, RTABLE_FLOAT64);
    EXPECT_EQ(str(s.element_type), "float[8]");
    EXPECT_EQ(s.num_dimensions, 2);
    EXPECT_EQ(s.lower[0], -1);
    EXPECT_EQ(s.upper[1], 3);
    EXPECT_EQ(RTableNumElements(kv, a), 6);
    EXPECT_EQ(RTableNumDimensions(kv, a), 2);
    EXPECT_EQ(RTableLowerBound(kv, a, 2), 2);
    EXPECT_EQ(RTableUpperBound(kv, a, 1), 1);
    EXPECT_TRUE(rec.errors().empty()) << last_error();

    EXPECT_ONE_ERROR(*this, "dimension 3 out of range", RTableLowerBound(kv, a, 3));
    int64_t bad[] = {2, 2};
    EXPECT_ONE_ERROR(*this, "not in -1..1", RTableSelect(kv, a, bad));
    int64_t bad2[] = {0, 4};
    RTableElement e = none();
    e.float64 = 1;
    EXPECT_ONE_ERROR(*this, "not in 2..3", RTableAssign(kv, a, bad2, e));
    EXPECT_ONE_ERROR(*this, "expected a rectangular table", RTableNumElements(kv, eval("[1]:")));
}

TEST_F(RTables, DataTypeCodesAndElementTypes) {
    const std::tuple<const char *, int, const char *> cases[] = {
        {"anything", RTABLE_DAG, "anything"},          {"sfloat", RTABLE_DAG, "sfloat"},
        {"complex(sfloat)", RTABLE_CXDAG, "complex(sfloat)"}, {"integer[1]", RTABLE_INTEGER8, "integer[1]"},
        {"integer[2]", RTABLE_INTEGER16, "integer[2]"}, {"integer[4]", RTABLE_INTEGER32, "integer[4]"},
        {"integer[8]", RTABLE_INTEGER64, "integer[8]"}, {"float[8]", RTABLE_FLOAT64, "float[8]"},
        {"complex[8]", RTABLE_COMPLEX64, "complex[8]"}, {"float[4]", RTABLE_FLOAT32, "float[4]"},
        {"truefalse", RTABLE_TRUEFALSE, "truefalse"},
    };
    for (auto &[type, code, eltype] : cases) {
        ALGEB a = eval(std::string("Array(1..2, datatype = ") + type + "):");
        RTableSettings s;
        RTableGetSettings(kv, &s, a);
        EXPECT_EQ(s.data_type, code) << type;
        EXPECT_EQ(str(s.element_type), eltype);
    }
    RTableSettings s;
    RTableGetSettings(kv, &s, eval("Array(1..2, datatype = sfloat):"));
    EXPECT_EQ(s.element_type, ToVexelName(kv, "sfloat", 1));
    EXPECT_TRUE(rec.errors().empty()) << last_error();
}

TEST_F(RTables, PrimitivesAreStoredBitForBit) {
    int64_t i1[] = {1}, i2[] = {2};
    uint64_t nan_bits = 0x7ff4000000001234ULL;
    RTableElement e = none();
    std::memcpy(&e.float64, &nan_bits, 8);
    ALGEB d = eval("Array(1..2, datatype = float[8]):");
    RTableAssign(kv, d, i1, e);
    RTableElement r = RTableSelect(kv, d, i1);
    uint64_t got;
    std::memcpy(&got, &r.float64, 8);
    EXPECT_EQ(got, nan_bits);

    uint32_t fbits = 0x7fa00042u;
    e = none();
    std::memcpy(&e.float32, &fbits, 4);
    ALGEB f = eval("Array(1..2, datatype = float[4]):");
    RTableAssign(kv, f, i2, e);
    uint32_t fgot;
    r = RTableSelect(kv, f, i2);
    std::memcpy(&fgot, &r.float32, 4);
    EXPECT_EQ(fgot, fbits);

    ALGEB b = eval("Array(1..2, datatype = integer[1]):");
    e = none();
    e.int8 = -1;
    RTableAssign(kv, b, i1, e);
    EXPECT_EQ(RTableSelect(kv, b, i1).int8, -1);
    EXPECT_EQ(printed("eval(b1):"), "b1");
    VexelAssign(kv, ToVexelName(kv, "b1", 1), b);
    EXPECT_EQ(printed("b1[1], b1[2];"), "-1, 0");

    ALGEB l = eval("Array(1..1, datatype = integer[8]):");
    e = none();
    e.int64 = INT64_MIN;
    RTableAssign(kv, l, i1, e);
    EXPECT_EQ(RTableSelect(kv, l, i1).int64, INT64_MIN);

    ALGEB c = eval("Array(1..1, datatype = complex[8]):");
    e = none();
    e.complex64 = {1.25, -0.5};
    RTableAssign(kv, c, i1, e);
    r = RTableSelect(kv, c, i1);
    EXPECT_EQ(r.complex64.re, 1.25);
    EXPECT_EQ(r.complex64.im, -0.5);
    EXPECT_TRUE(rec.errors().empty()) << last_error();
}

TEST_F(RTables, ValueElements) {
    int64_t i1[] = {1}, i2[] = {2};
    ALGEB a = eval("Array(1..2):");
    EXPECT_EQ(IsVexelUnnamedZero(kv, RTableSelect(kv, a, i1).dag), 1);  // unassigned reads as 0
    RTableElement e = none();
    e.dag = eval("x + 1:");
    RTableAssign(kv, a, i2, e);
    EXPECT_EQ(str(RTableSelect(kv, a, i2).dag), "x+1");
    EXPECT_ONE_ERROR(*this, "invalid or reclaimed", RTableAssign(kv, a, i1, none()));

    ALGEB s = eval("Array(1..1, datatype = sfloat):");
    EXPECT_ONE_ERROR(*this, "holds numbers", RTableAssign(kv, s, i1, e));

    ALGEB c = eval("Array(1..2, datatype = complex(sfloat)):");
    e = none();
    e.cxdag = VexelToComplexFloatDAG(kv, eval("1.5 - 2*I:"));
    RTableAssign(kv, c, i1, e);
    RTableElement r = RTableSelect(kv, c, i1);
    EXPECT_EQ(str(ToVexelComplexFloat(kv, r.cxdag.re, r.cxdag.im)), "1.5-2*I");
    EXPECT_EQ(printed("Array(1..2, [1, 2], datatype = integer[2]);"), "Array(1..2, [1, 2], datatype = integer[2])");
    EXPECT_EQ(eval("Array(1..2, [1000], datatype = integer[1]);"), nullptr);
    EXPECT_NE(last_error().find("does not fit integer[1]"), std::string::npos);
}

TEST_F(RTables, CopiesAndParts) {
    ALGEB a = eval("A := Array(1..3, [1, 2, 3], datatype = integer[4]): A:");
    RTableSettings s;
    RTableGetSettings(kv, &s, a);
    ALGEB copy = RTableCopy(kv, &s, a);
    eval("A[1] := 100:");  // the copy has its own storage
    EXPECT_EQ(str(copy), "Array(1..3, [1, 2, 3], datatype = integer[4])");
    s.data_type = RTABLE_FLOAT64;
    EXPECT_EQ(str(RTableCopy(kv, &s, a)), "Array(1..3, [100.0, 2.0, 3.0], datatype = float[8])");

    ALGEB z = eval("Array(1..2, [1 + 2*I, -3.5*I], datatype = complex[8]):");
    RTableGetSettings(kv, &s, z);
    EXPECT_EQ(str(RTableCopyRealPart(kv, &s, z)), "Array(1..2, [1.0+0.0*I, 0.0+0.0*I], datatype = complex[8])");
    EXPECT_EQ(str(RTableCopyImPart(kv, &s, z)), "Array(1..2, [2.0+0.0*I, -3.5+0.0*I], datatype = complex[8])");

    ALGEB w = eval("Array(1..2, [1 + 2*I, 3], datatype = complex(sfloat)):");
    RTableGetSettings(kv, &s, w);
    ALGEB im = RTableCopyImPart(kv, &s, w);
    int64_t i1[] = {1};
    RTableElement r = RTableSelect(kv, im, i1);
    EXPECT_EQ(str(r.cxdag.re), "2");
    EXPECT_EQ(IsVexelUnnamedZero(kv, r.cxdag.im), 1);

    s.num_dimensions = 1;
    s.upper[0] = 5;
    EXPECT_ONE_ERROR(*this, "settings describe 5 elements", RTableCopy(kv, &s, w));
}

TEST_F(RTables, LazilyZeroFilledTableBeyondTwoToThe31) {
    ALGEB big = eval("B := Array(1..3000000000, datatype = integer[1]): B:");
    EXPECT_EQ(RTableNumElements(kv, big), 3000000000LL);
    int64_t last[] = {3000000000LL}, mid[] = {2147483649LL};
    RTableElement e = none();
    e.int8 = 42;
    RTableAssign(kv, big, last, e);
    EXPECT_EQ(RTableSelect(kv, big, last).int8, 42);
    EXPECT_EQ(RTableSelect(kv, big, mid).int8, 0);
    EXPECT_EQ(printed("B[3000000000], B;"), "42, Array(1..3000000000, [...], datatype = integer[1])");
    RTableSettings s;
    RTableGetSettings(kv, &s, big);
    ALGEB copy = RTableCopy(kv, &s, big);
    EXPECT_EQ(RTableSelect(kv, copy, last).int8, 42);
    EXPECT_TRUE(rec.errors().empty()) << last_error();
}

// An element of a hardware data type whose bytes tell the element k of a table apart.
RTableElement nth(int code, int k) {
    RTableElement e = none();
    switch (code) {
        case RTABLE_INTEGER8: e.int8 = int8_t(k - 3); break;
        case RTABLE_INTEGER16: e.int16 = int16_t(-1000 * k); break;
        case RTABLE_INTEGER32: e.int32 = int32_t(100000 * k + 7); break;
        case RTABLE_INTEGER64: e.int64 = (int64_t(1) << 40) * k - 1; break;
        case RTABLE_FLOAT64: e.float64 = 0.5 + k; break;
        case RTABLE_FLOAT32: e.float32 = -0.25f * float(k); break;
        case RTABLE_COMPLEX64: e.complex64 = {double(k), -double(k) / 8}; break;
    }
    return e;
}

struct HardwareType {
    const char *type;
    int code;
    size_t size;
};
const HardwareType kHardwareTypes[] = {
    {"integer[1]", RTABLE_INTEGER8, 1}, {"integer[2]", RTABLE_INTEGER16, 2}, {"integer[4]", RTABLE_INTEGER32, 4},
    {"integer[8]", RTABLE_INTEGER64, 8}, {"float[4]", RTABLE_FLOAT32, 4},    {"float[8]", RTABLE_FLOAT64, 8},
    {"complex[8]", RTABLE_COMPLEX64, 16},
};

TEST_F(RTables, DataAddressIsColumnMajorStorageOfEveryHardwareType) {
    for (auto &t : kHardwareTypes) {
        SCOPED_TRACE(t.type);
        // Bounds -1..1 by 2..3: element (i, j) sits at (i + 1) + 3 * (j - 2).
        ALGEB a = eval(std::string("Array(-1..1, 2..3, datatype = ") + t.type + "):");
        auto offset = [](int64_t i, int64_t j) { return size_t((i + 1) + 3 * (j - 2)); };
        for (int64_t j = 2; j <= 3; ++j)
            for (int64_t i = -1; i <= 0; ++i) {  // row 1 stays unwritten: zeros
                int64_t at[] = {i, j};
                RTableAssign(kv, a, at, nth(t.code, int(offset(i, j)) + 1));
            }
        auto *data = static_cast<uint8_t *>(VexelRTableData(kv, a));
        ASSERT_NE(data, nullptr) << last_error();
        EXPECT_EQ(VexelRTableData(kv, a), data);  // the same block every time
        for (int64_t j = 2; j <= 3; ++j)
            for (int64_t i = -1; i <= 1; ++i) {
                RTableElement want = i == 1 ? none() : nth(t.code, int(offset(i, j)) + 1);
                EXPECT_EQ(std::memcmp(data + offset(i, j) * t.size, &want, t.size), 0) << i << ", " << j;
            }

        // Writes through the address and through RTableAssign meet.
        RTableElement e = nth(t.code, 42);
        std::memcpy(data + offset(1, 3) * t.size, &e, t.size);
        int64_t corner[] = {1, 3}, first[] = {-1, 2};
        RTableElement got = RTableSelect(kv, a, corner);
        EXPECT_EQ(std::memcmp(&got, &e, t.size), 0);
        e = nth(t.code, 9);
        RTableAssign(kv, a, first, e);
        EXPECT_EQ(std::memcmp(data, &e, t.size), 0);

        // A copy has its own storage with the same elements, also as another type.
        RTableSettings s;
        RTableGetSettings(kv, &s, a);
        ALGEB copy = RTableCopy(kv, &s, a);
        got = RTableSelect(kv, copy, corner);
        EXPECT_EQ(std::memcmp(&got, data + offset(1, 3) * t.size, t.size), 0);
        EXPECT_NE(VexelRTableData(kv, copy), data);
        s.data_type = RTABLE_COMPLEX64;
        got = RTableSelect(kv, RTableCopy(kv, &s, a), first);
        EXPECT_NE(got.complex64.re, 0.0);
    }
    EXPECT_TRUE(rec.errors().empty()) << last_error();
}

TEST_F(RTables, ElementsAcrossPagesKeepTheirPlacesInPagesAndInTheBlock) {
    const int64_t n = 20000;  // three pages of integer[8]
    ALGEB a = eval("Array(1..20000, datatype = integer[8]):");
    int64_t at[1];
    RTableElement e = none();
    std::vector<int64_t> want(n);
    for (int64_t k = 0; k < n; k += 3) {  // hop between pages, one element in three
        at[0] = 1 + (k * 7919) % n;
        e.int64 = at[0] * 10;
        RTableAssign(kv, a, at, e);
        want[size_t(at[0] - 1)] = e.int64;
    }
    for (int64_t i = 1; i <= n; ++i) {
        at[0] = i;
        ASSERT_EQ(RTableSelect(kv, a, at).int64, want[size_t(i - 1)]) << i;
    }
    auto *data = static_cast<int64_t *>(VexelRTableData(kv, a));
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(std::vector<int64_t>(data, data + n), want);
    EXPECT_TRUE(rec.errors().empty()) << last_error();
}

TEST_F(RTables, DataAddressOfTablesOfValuesIsNull) {
    for (const char *type : {"anything", "sfloat", "complex(sfloat)", "truefalse"}) {
        ALGEB a = eval(std::string("Array(1..3, datatype = ") + type + "):");
        EXPECT_EQ(VexelRTableData(kv, a), nullptr) << type;
    }
    EXPECT_TRUE(rec.errors().empty()) << last_error();
}

TEST_F(RTables, DataAddressSurvivesCollectionsAndEmptyTablesHaveOne) {
    ALGEB a = eval("A := Array(1..100000, datatype = float[8]): A:");
    auto *data = static_cast<double *>(VexelRTableData(kv, a));
    ASSERT_NE(data, nullptr);
    data[99999] = 2.5;
    eval("gc(): gc():");
    EXPECT_EQ(printed("A[100000];"), "2.5");
    EXPECT_EQ(VexelRTableData(kv, a), data);
    EXPECT_NE(VexelRTableData(kv, eval("Array(1..0, datatype = integer[4]):")), nullptr);
    EXPECT_TRUE(rec.errors().empty()) << last_error();
}

TEST_F(RTables, DataAddressOfATableTooLargeForMemoryIsAnError) {
    ALGEB big = eval("Array(1..3000000000, datatype = integer[1]):");
    int64_t last[] = {3000000000LL};
    RTableElement e = none();
    e.int8 = 5;
    RTableAssign(kv, big, last, e);
    EXPECT_ONE_ERROR(*this, "out of memory", EXPECT_EQ(VexelRTableData(kv, big), nullptr));
    EXPECT_EQ(RTableSelect(kv, big, last).int8, 5);  // the table is as it was
    EXPECT_EQ(printed("1 + 1;"), "2");
}

TEST_F(RTables, DataAddressMisuseIsReported) {
    ALGEB stale = eval("Array(1..2, datatype = float[8]):");
    eval("gc(): gc():");
    ALGEB garbage = reinterpret_cast<ALGEB>(uintptr_t(0x123456780));
    const std::pair<const char *, ALGEB> cases[] = {
        {"invalid or reclaimed", nullptr},
        {"invalid or reclaimed", stale},
        {"invalid or reclaimed", garbage},
        {"expected a rectangular table", eval("[1.5]:")},
    };
    for (auto &[what, arg] : cases)
        EXPECT_ONE_ERROR(*this, what, EXPECT_EQ(VexelRTableData(kv, arg), nullptr));
    ALGEB a = eval("Array(1..2, datatype = float[8]):");
    KernelVector old = kv;
    stop();
    EXPECT_ONE_ERROR(*this, "the kernel has been stopped", EXPECT_EQ(VexelRTableData(old, a), nullptr));
}

}  // namespace
