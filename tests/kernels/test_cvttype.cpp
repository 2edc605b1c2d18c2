// Element-type conversions 8U <-> 32F and 8U <-> 16U: every variant against
// the per-element rules on awkward lengths and special float values, in
// place through a destination header over the source block, and through
// shifted overlapping blocks against the element loop.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "image/kernels.hpp"
#include "kernel_support.hpp"

using namespace kernel_test;
using morven::Isa;

namespace {

struct Pair {
    uint32_t from, to;
    size_t fromSize, toSize;
};
constexpr Pair kPairs[] = {{wzType8U, wzType32F, 1, 4},
                           {wzType32F, wzType8U, 4, 1},
                           {wzType8U, wzType16U, 1, 2},
                           {wzType16U, wzType8U, 2, 1}};

// The documented rule of each pair for element i of `src`, written to `out`.
void expectedElement(const Pair &p, const uint8_t *src, size_t i, uint8_t *out) {
    if (p.from == wzType8U && p.to == wzType32F) {
        const float f = static_cast<float>(src[i]) / 255.0f;
        std::memcpy(out, &f, 4);
    } else if (p.from == wzType32F) {
        float v;
        std::memcpy(&v, src + 4 * i, 4);
        const float prod = v * 255.0f;
        int32_t t;  // truncation saturated to 32 bits, NaN to 0
        if (std::isnan(prod))
            t = 0;
        else if (prod >= 2147483648.0f)
            t = INT32_MAX;
        else if (prod <= -2147483648.0f)
            t = INT32_MIN;
        else
            t = static_cast<int32_t>(prod);
        *out = static_cast<uint8_t>(static_cast<uint32_t>(t));
    } else if (p.to == wzType16U) {
        const uint16_t v = static_cast<uint16_t>(src[i] << 8);
        std::memcpy(out, &v, 2);
    } else {
        uint16_t v;
        std::memcpy(&v, src + 2 * i, 2);
        *out = static_cast<uint8_t>(v >> 8);
    }
}

// Source elements: random bytes and words; floats from a mix of plain
// values, the edges of the byte and 32-bit ranges, specials and random bit
// patterns.
void fillSource(const Pair &p, uint8_t *src, size_t n, std::mt19937 &rng) {
    if (p.from != wzType32F) {
        fillBytes(src, n * p.fromSize, rng);
        return;
    }
    const float edge = 2147483648.0f / 255.0f;
    const float specials[] = {0.0f,
                              -0.0f,
                              1.0f,
                              0.999f,
                              1.0f / 255.0f,
                              0.5f,
                              -0.5f,
                              -1.0f,
                              edge,
                              std::nextafter(edge, 0.0f),
                              std::nextafter(edge, 1e30f),
                              -edge,
                              std::nextafter(-edge, 0.0f),
                              std::nextafter(-edge, -1e30f),
                              1e30f,
                              -1e30f,
                              std::numeric_limits<float>::infinity(),
                              -std::numeric_limits<float>::infinity(),
                              std::numeric_limits<float>::quiet_NaN(),
                              -std::numeric_limits<float>::quiet_NaN(),
                              std::numeric_limits<float>::denorm_min(),
                              255.5f / 255.0f,
                              256.0f / 255.0f};
    for (size_t i = 0; i < n; ++i) {
        float v;
        switch (rng() % 4) {
            case 0: v = specials[rng() % (sizeof specials / sizeof specials[0])]; break;
            case 1: {
                const uint32_t bits = static_cast<uint32_t>(rng());
                std::memcpy(&v, &bits, 4);
                break;
            }
            default: v = std::uniform_real_distribution<float>(-2.0f, 3.0f)(rng); break;
        }
        std::memcpy(src + 4 * i, &v, 4);
    }
}

std::string trace(Isa isa, const Pair &p, size_t n) {
    return isaName(isa) + " " + std::to_string(p.from) + "->" + std::to_string(p.to) + " n " +
           std::to_string(n);
}

}  // namespace

TEST(KernelCvtType, EveryVariantFollowsTheElementRules) {
    std::mt19937 rng(31);
    std::vector<size_t> lengths = awkwardLengths();
    lengths.push_back(0);
    for (const Pair &p : kPairs)
        for (Isa isa : availableIsas())
            for (size_t n : lengths) {
                SCOPED_TRACE(trace(isa, p, n));
                // Separate blocks, each against a guard page (alternating ends).
                GuardedBlock src(n * p.fromSize, n % 2 == 0), dst(n * p.toSize, n % 3 == 0);
                fillSource(p, src.data, n, rng);
                std::vector<uint8_t> expect(n * p.toSize);
                for (size_t i = 0; i < n; ++i)
                    expectedElement(p, src.data, i, expect.data() + i * p.toSize);
                morven::convertElements(isa, p.from, p.to, src.data, dst.data,
                                        static_cast<int64_t>(n));
                ASSERT_EQ(std::vector<uint8_t>(dst.data, dst.data + expect.size()), expect);

                // In place: the destination starts at the source block, which
                // has room for the larger of the two.
                const size_t room = n * std::max(p.fromSize, p.toSize);
                GuardedBlock block(room, n % 2 == 1);
                std::memcpy(block.data, src.data, n * p.fromSize);
                morven::convertElements(isa, p.from, p.to, block.data, block.data,
                                        static_cast<int64_t>(n));
                ASSERT_EQ(std::vector<uint8_t>(block.data, block.data + expect.size()), expect);
            }
}

TEST(KernelCvtType, OverlappingBlocksEqualTheElementLoop) {
    // A destination that starts inside the source (or the source inside the
    // destination) at any shift: whatever the element loop makes of it.
    std::mt19937 rng(32);
    for (const Pair &p : kPairs)
        for (Isa isa : availableIsas())
            for (size_t n : {size_t{40}, size_t{129}, size_t{300}})
                for (ptrdiff_t shift : {-9, -4, -1, 1, 3, 8, 64, 130}) {
                    SCOPED_TRACE(trace(isa, p, n) + " shift " + std::to_string(shift));
                    const size_t span = n * std::max(p.fromSize, p.toSize) + 140;
                    std::vector<uint8_t> plain(span);
                    fillSource(p, plain.data() + 10, n, rng);
                    GuardedBlock block(span);
                    std::memcpy(block.data, plain.data(), span);
                    const ptrdiff_t s = 10, d = 10 + shift;
                    morven::convertElements(Isa::Portable, p.from, p.to, plain.data() + s,
                                            plain.data() + d, static_cast<int64_t>(n));
                    morven::convertElements(isa, p.from, p.to, block.data + s, block.data + d,
                                            static_cast<int64_t>(n));
                    ASSERT_EQ(0, std::memcmp(block.data, plain.data(), span));
                }
}

TEST(KernelCvtType, CvtTypeUsesTheSameRulesOnImages) {
    std::mt19937 rng(33);
    for (const Pair &p : kPairs) {
        const int32_t w = 37, h = 5;
        const size_t n = blockSize(w, h, wzEncodingRGBA);
        GuardedBlock src(n * p.fromSize), dst(n * p.toSize);
        fillSource(p, src.data, n, rng);
        wzImage *s = wzImageCreateHeaderWithType(w, h, wzEncodingRGBA, p.from);
        wzImage *d = wzImageCreateHeaderWithType(w, h, wzEncodingRGBA, p.to);
        s->data = src.data;
        d->data = dst.data;
        EXPECT_EQ(wzImageCvtType(s, d), 0u);
        std::vector<uint8_t> expect(n * p.toSize);
        for (size_t i = 0; i < n; ++i)
            expectedElement(p, src.data, i, expect.data() + i * p.toSize);
        EXPECT_EQ(0, std::memcmp(dst.data, expect.data(), expect.size())) << p.from << "->" << p.to;
        wzImageReleaseHeader(&s);
        wzImageReleaseHeader(&d);
    }
}
