// Histogram counting of 8-bit samples: one channel (ByteCounter) or channels
// 1-3 of 3- and 4-byte pixels (ChannelCounter). One form on every processor:
// counting is bound by the load, add and store of one counter per sample,
// which vectors do not shorten.
//
// The counters are 32-bit and spread over four sub-tables (sample j of a
// step goes to sub-table j % 4), so that runs of one value, frequent in
// photographs, do not wait on their own stores. Each sub-table row is
// padded so that the rows of different sub-tables and positions do not
// share the low twelve address bits (a store to one would otherwise hold up
// loads from another, which photographs with neutral colours hit often).
// The sub-tables go into 64-bit totals at least every 2^32 - 1 samples,
// before any entry could wrap.
#pragma once

#include <cstddef>
#include <cstdint>

namespace morven {

class ByteCounter {
public:
    // window: the most samples between two flushes (tests make it small).
    explicit ByteCounter(uint32_t window = UINT32_MAX) noexcept : window_(window) {}
    void add(const uint8_t *p, size_t n) noexcept;
    // The totals of everything added so far.
    const uint64_t *totals() noexcept;

private:
    static constexpr int kTables = 4, kRow = 256 + 16;
    void flush() noexcept;
    uint32_t sub_[kTables][kRow] = {};
    uint64_t total_[256] = {};
    uint32_t used_ = 0;  // samples counted since the last flush
    uint32_t window_;
};

class ChannelCounter {
public:
    // window: the most pixels between two flushes (tests make it small).
    explicit ChannelCounter(uint32_t window = UINT32_MAX) noexcept : window_(window) {}
    // Counts `pixels` pixels of `stride` (3 or 4) bytes: totals(2) from the
    // byte at o[0] (channel 1), totals(1) from o[1], totals(0) from o[2].
    void add(const uint8_t *p, int32_t stride, const ptrdiff_t o[3], size_t pixels) noexcept;
    // The totals of array a (0..2) of everything added so far.
    const uint64_t *totals(int a) noexcept;

private:
    static constexpr int kTables = 4, kRow = 256 + 16;
    template <int Stride, int Skip>
    void addPixels(const uint8_t *p, size_t pixels) noexcept;
    void flush() noexcept;
    uint32_t sub_[kTables][4][kRow] = {};  // [sub-table][byte position in the pixel][value]
    uint64_t total_[4][256] = {};          // [byte position][value]
    uint32_t used_ = 0;                    // pixels counted since the last flush
    uint32_t window_;
    ptrdiff_t offsets_[3] = {0, 0, 0};  // the positions of channels 1-3 (of the last add)
};

}  // namespace morven
