// Rectangular tables: dense, column-major storage, zero-filled lazily in pages.
#pragma once

#include "core.hpp"

#include <memory>
#include <unordered_map>

namespace vx {

struct RTableObj final : Obj {
    static constexpr size_t kPageBytes = 65536;

    int32_t code = 0;
    bool sfloat = false;  // code 0 with the element type sfloat
    int32_t ndim = 0;
    int64_t lo[RTABLE_MAX_DIMENSIONS] = {};
    int64_t hi[RTABLE_MAX_DIMENSIONS] = {};
    int64_t count = 0;
    size_t esize = 8;
    std::unordered_map<int64_t, std::unique_ptr<uint8_t[]>> pages;

    size_t per_page() const { return kPageBytes / esize; }
    // The element's bytes; null for an element of a page never written when !create.
    uint8_t *at(int64_t linear, bool create);
};

}  // namespace vx
