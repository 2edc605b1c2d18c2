// Histogram counting of 8-bit samples (see count.hpp).
#include "kernels/count.hpp"

#include <cstring>

namespace morven {

void ByteCounter::add(const uint8_t *p, size_t n) noexcept {
    while (n > 0) {
        if (used_ == kWindow) flush();
        const size_t take = n < kWindow - used_ ? n : kWindow - used_;
        // Byte j in counting order goes to table j % 8: single bytes up to a
        // multiple of eight, then eight at a time from one 64-bit load.
        unsigned k = used_ % kTables;
        const uint8_t *end = p + take;
        for (; p < end && k != 0; ++p, k = (k + 1) % kTables) ++sub_[k][*p];
        for (; end - p >= 8; p += 8) {
            uint64_t w;
            std::memcpy(&w, p, 8);
            for (unsigned t = 0; t < kTables; ++t) ++sub_[t][(w >> (8 * t)) & 0xFF];
        }
        for (k = 0; p < end; ++p, ++k) ++sub_[k][*p];
        used_ += static_cast<uint32_t>(take);
        n -= take;
    }
}

void ByteCounter::flush() noexcept {
    for (int v = 0; v < 256; ++v) {
        uint64_t sum = 0;
        for (unsigned k = 0; k < kTables; ++k) sum += sub_[k][v];
        total_[v] += sum;
    }
    std::memset(sub_, 0, sizeof sub_);
    used_ = 0;
}

const uint64_t *ByteCounter::totals() noexcept {
    flush();
    return total_;
}

template <int Stride>
void ChannelCounter::addWindow(const uint8_t *p, const ptrdiff_t o[3], size_t take) noexcept {
    const uint8_t *b = p + o[0], *g = p + o[1], *r = p + o[2];
    auto one = [&](unsigned t, size_t j) {
        ++sub_[2][t][b[j * Stride]];
        ++sub_[1][t][g[j * Stride]];
        ++sub_[0][t][r[j * Stride]];
    };
    size_t i = 0;
    unsigned k = used_ % kTables;
    for (; i < take && k != 0; ++i, k = (k + 1) % kTables) one(k, i);
    for (; i + kTables <= take; i += kTables)
        for (unsigned t = 0; t < kTables; ++t) one(t, i + t);
    for (k = 0; i < take; ++i, ++k) one(k, i);
}

void ChannelCounter::add(const uint8_t *p, int32_t stride, const ptrdiff_t o[3], size_t pixels) noexcept {
    while (pixels > 0) {
        if (used_ == kWindow) flush();
        const size_t take = pixels < kWindow - used_ ? pixels : kWindow - used_;
        if (stride == 3)
            addWindow<3>(p, o, take);
        else
            addWindow<4>(p, o, take);
        used_ += static_cast<uint32_t>(take);
        pixels -= take;
        p += take * static_cast<size_t>(stride);
    }
}

void ChannelCounter::flush() noexcept {
    for (int a = 0; a < 3; ++a)
        for (int v = 0; v < 256; ++v) {
            uint64_t sum = 0;
            for (unsigned k = 0; k < kTables; ++k) sum += sub_[a][k][v];
            total_[a][v] += sum;
        }
    std::memset(sub_, 0, sizeof sub_);
    used_ = 0;
}

const uint64_t *ChannelCounter::totals(int a) noexcept {
    flush();
    return total_[a];
}

}  // namespace morven
