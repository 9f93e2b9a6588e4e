// Rectangular tables: dense, column-major storage, zero-filled lazily in
// pages, or one contiguous block once the embedder has asked for the table's
// address (VexelRTableData).
#pragma once

#include "core.hpp"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <unordered_map>

namespace vx {

struct RTableObj final : Obj {
    static constexpr size_t kPageBytes = 65536;

    struct FreeBlock {
        void operator()(uint8_t *p) const { std::free(p); }
    };

    int32_t code = 0;
    bool sfloat = false;  // code 0 with the element type sfloat
    int32_t ndim = 0;
    int64_t lo[RTABLE_MAX_DIMENSIONS] = {};
    int64_t hi[RTABLE_MAX_DIMENSIONS] = {};
    int64_t count = 0;
    size_t esize = 8;
    int page_shift = 13;  // log2 of the elements per page (element sizes are powers of two)
    std::unordered_map<int64_t, std::unique_ptr<uint8_t[]>> pages;
    // The page found last; pages never move once made, and stay until the
    // table turns contiguous.
    int64_t last_page = -1;
    uint8_t *last_mem = nullptr;
    // Contiguous mode: every element, column-major; the pages are gone.
    std::unique_ptr<uint8_t, FreeBlock> block;

    void set_esize(size_t n);
    // The element's bytes; null for an element of a page never written when !create.
    uint8_t *at(int64_t linear, bool create) {
        if (block) return block.get() + size_t(linear) * esize;
        int64_t page = linear >> page_shift;
        uint8_t *mem = page == last_page ? last_mem : find_page(page, create);
        if (!mem) return nullptr;
        return mem + size_t(linear & ((int64_t(1) << page_shift) - 1)) * esize;
    }
    uint8_t *find_page(int64_t page, bool create);
    // Calls f(first element, its bytes, element count) for each stretch of
    // stored elements; elements outside them are zero.
    template <class F>
    void for_each_stretch(F &&f) {
        if (block) {
            f(int64_t(0), block.get(), count);
            return;
        }
        int64_t per = int64_t(1) << page_shift;
        for (auto &[page, mem] : pages) {
            int64_t first = page * per;
            f(first, mem.get(), std::min(per, count - first));
        }
    }
    // Lays the table out in one block (once); raises "out of memory" when it cannot.
    uint8_t *contiguous();
};

}  // namespace vx
