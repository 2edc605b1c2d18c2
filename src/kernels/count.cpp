// Histogram counting of 8-bit samples (see count.hpp).
#include "kernels/count.hpp"

#include <cstring>

namespace morven {
namespace {

inline uint32_t word(const uint8_t *p) {
    uint32_t w;
    std::memcpy(&w, p, sizeof w);
    return w;
}

// The samples to take now: at most n, and not past the window.
inline size_t takeFrom(size_t n, uint32_t used, uint32_t window) {
    const size_t room = window - used;
    return n < room ? n : room;
}

}  // namespace

void ByteCounter::add(const uint8_t *p, size_t n) noexcept {
    while (n > 0) {
        if (used_ >= window_) flush();
        const size_t take = takeFrom(n, used_, window_);
        size_t i = 0;
        for (; i + 8 <= take; i += 8) {
            const uint32_t w[2] = {word(p + i), word(p + i + 4)};
#pragma GCC unroll 8
            for (int k = 0; k < 8; ++k) ++sub_[k % kTables][(w[k / 4] >> (8 * (k % 4))) & 0xFF];
        }
        for (; i < take; ++i) ++sub_[i % kTables][p[i]];
        used_ += static_cast<uint32_t>(take);
        p += take;
        n -= take;
    }
}

void ByteCounter::flush() noexcept {
    for (int v = 0; v < 256; ++v)
        for (int k = 0; k < kTables; ++k) total_[v] += sub_[k][v];
    std::memset(sub_, 0, sizeof sub_);
    used_ = 0;
}

const uint64_t *ByteCounter::totals() noexcept {
    flush();
    return total_;
}

// Eight pixels per step from Stride-byte words, byte k of the step being
// position k % Stride of pixel k / Stride; position Skip is not counted.
template <int Stride, int Skip>
void ChannelCounter::addPixels(const uint8_t *p, size_t pixels) noexcept {
    size_t i = 0;
    for (; i + 8 <= pixels; i += 8, p += 8 * Stride) {
        uint32_t w[2 * Stride];
        for (int q = 0; q < 2 * Stride; ++q) w[q] = word(p + 4 * q);
#pragma GCC unroll 32
        for (int k = 0; k < 8 * Stride; ++k)
            if (k % Stride != Skip)
                ++sub_[(k / Stride) % kTables][k % Stride][(w[k / 4] >> (8 * (k % 4))) & 0xFF];
    }
    for (; i < pixels; ++i, p += Stride)
        for (int k = 0; k < Stride; ++k)
            if (k != Skip) ++sub_[i % kTables][k][p[k]];
}

void ChannelCounter::add(const uint8_t *p, int32_t stride, const ptrdiff_t o[3],
                         size_t pixels) noexcept {
    std::memcpy(offsets_, o, sizeof offsets_);
    // The one position of a 4-byte pixel that holds no channel 1-3.
    const int skip = stride == 3 ? -1 : static_cast<int>(6 - o[0] - o[1] - o[2]);
    while (pixels > 0) {
        if (used_ >= window_) flush();
        const size_t take = takeFrom(pixels, used_, window_);
        switch (skip) {
            case 0: addPixels<4, 0>(p, take); break;
            case 1: addPixels<4, 1>(p, take); break;
            case 2: addPixels<4, 2>(p, take); break;
            case 3: addPixels<4, 3>(p, take); break;
            default: addPixels<3, -1>(p, take); break;
        }
        used_ += static_cast<uint32_t>(take);
        pixels -= take;
        p += take * static_cast<size_t>(stride);
    }
}

void ChannelCounter::flush() noexcept {
    for (int pos = 0; pos < 4; ++pos)
        for (int v = 0; v < 256; ++v)
            for (int k = 0; k < kTables; ++k) total_[pos][v] += sub_[k][pos][v];
    std::memset(sub_, 0, sizeof sub_);
    used_ = 0;
}

const uint64_t *ChannelCounter::totals(int a) noexcept {
    flush();
    return total_[offsets_[2 - a]];
}

}  // namespace morven
