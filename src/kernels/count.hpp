// Histogram counting of 8-bit samples: one channel (ByteCounter) or channels
// 1-3 of 3- and 4-byte pixels (ChannelCounter). One form on every processor:
// counting is bound by the load, add and store of one counter per sample,
// which vectors do not shorten.
//
// Sample j (in counting order) goes to 16-bit sub-table j % 8, so that runs
// of one value, frequent in photographs, do not wait on their own stores;
// the sub-tables stay in the first-level cache and are flushed into 64-bit
// totals before any entry could wrap.
#pragma once

#include <cstddef>
#include <cstdint>

namespace morven {

class ByteCounter {
public:
    void add(const uint8_t *p, size_t n) noexcept;
    // The totals of everything added so far.
    const uint64_t *totals() noexcept;

private:
    static constexpr unsigned kTables = 8;
    static constexpr uint32_t kWindow = kTables * 65535;
    void flush() noexcept;
    uint16_t sub_[kTables][256] = {};
    uint64_t total_[256] = {};
    uint32_t used_ = 0;  // bytes counted since the last flush
};

class ChannelCounter {
public:
    // Counts `pixels` pixels of `stride` (3 or 4) bytes: totals(2) from the
    // byte at o[0] (channel 1), totals(1) from o[1], totals(0) from o[2].
    void add(const uint8_t *p, int32_t stride, const ptrdiff_t o[3], size_t pixels) noexcept;
    // The totals of array a (0..2) of everything added so far.
    const uint64_t *totals(int a) noexcept;

private:
    static constexpr unsigned kTables = 8;
    static constexpr uint32_t kWindow = kTables * 65535;
    template <int Stride>
    void addWindow(const uint8_t *p, const ptrdiff_t o[3], size_t pixels) noexcept;
    void flush() noexcept;
    uint16_t sub_[3][kTables][256] = {};
    uint64_t total_[3][256] = {};
    uint32_t used_ = 0;  // pixels counted since the last flush
};

}  // namespace morven
