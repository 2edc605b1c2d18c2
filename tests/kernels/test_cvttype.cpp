// Element-type conversions 8U <-> 32F and 8U <-> 16U: every variant against
// the per-element rules (special float values included), in place, and on
// shifted overlapping blocks against the element loop.
#include <cmath>
#include <limits>
#include <vector>

#include "image/image_internal.hpp"
#include "kernel_support.hpp"

using namespace kernel_test;

namespace {

struct Pair {
    uint32_t from, to;
    size_t fromSize, toSize;
};
constexpr Pair kPairs[] = {{wzType8U, wzType32F, 1, 4},
                           {wzType32F, wzType8U, 4, 1},
                           {wzType8U, wzType16U, 1, 2},
                           {wzType16U, wzType8U, 2, 1}};

// The documented rule for element i of `src`, written to `out`.
void ruleElement(const Pair &p, const uint8_t *src, size_t i, uint8_t *out) {
    if (p.from == wzType32F) {
        // The single-precision product truncated, saturated to 32 bits (NaN
        // to 0), low byte kept.
        const double t = std::trunc(loadRaw<float>(src + 4 * i) * 255.0f);
        *out = std::isnan(t) ? 0 : uint8_t(int64_t(std::clamp(t, -2147483648.0, 2147483647.0)));
    } else if (p.to == wzType32F) {
        storeValue(p.to, out, static_cast<float>(src[i]) / 255.0f);
    } else if (p.to == wzType16U) {
        storeValue(p.to, out, src[i] << 8);
    } else {
        *out = static_cast<uint8_t>(loadRaw<uint16_t>(src + 2 * i) >> 8);
    }
}

// Random bytes and words; floats from plain values, the edges of the byte
// and 32-bit ranges, specials and random bit patterns.
void fillSource(const Pair &p, uint8_t *src, size_t n, std::mt19937 &rng) {
    if (p.from != wzType32F) return fillBytes(src, n * p.fromSize, rng);
    const float edge = 2147483648.0f / 255.0f, inf = std::numeric_limits<float>::infinity(),
                nan = std::numeric_limits<float>::quiet_NaN(), big = 1e30f,
                tiny = std::numeric_limits<float>::denorm_min();
    std::vector<float> specials = {
        0.0f, -0.0f, 1.0f, 0.999f, 1.0f / 255.0f, 0.5f, -0.5f,           -1.0f,          big,
        -big, inf,   -inf, nan,    -nan,          tiny, 255.5f / 255.0f, 256.0f / 255.0f};
    for (float e : {edge, -edge})  // the 2^31 edges of the product and their neighbours
        for (float v : {e, std::nextafter(e, 0.0f), std::nextafter(e, 2 * e)})
            specials.push_back(v);
    for (size_t i = 0; i < n; ++i) {
        const float v = rng() % 4 ? std::uniform_real_distribution<float>(-2.0f, 3.0f)(rng)
                                  : specials[rng() % std::size(specials)];
        const uint32_t bits = static_cast<uint32_t>(rng());
        std::memcpy(src + 4 * i, rng() % 4 ? static_cast<const void *>(&v) : &bits, 4);
    }
}

}  // namespace

TEST(KernelCvtType, EveryVariantFollowsTheElementRules) {
    std::mt19937 rng(31);
    for (const Pair &p : kPairs)
        checkRowKernel({p.fromSize, p.toSize, std::max(p.fromSize, p.toSize),
                        [&](Isa isa, const uint8_t *s, uint8_t *d, size_t n) {
                            morven::convertElements(kernels(isa), p.from, p.to, s, d, int64_t(n));
                        },
                        [&](const uint8_t *s, uint8_t *d, size_t n) {
                            for (size_t i = 0; i < n; ++i) ruleElement(p, s, i, d + i * p.toSize);
                        },
                        [&](uint8_t *s, size_t n, std::mt19937 &r) { fillSource(p, s, n, r); }},
                       rng, std::to_string(p.from) + "->" + std::to_string(p.to));
}

// A destination starting inside the source (or the reverse) at any shift:
// whatever the element loop makes of it (the vector walk must step aside).
TEST(KernelCvtType, OverlappingBlocksEqualTheElementLoop) {
    std::mt19937 rng(32);
    for (const Pair &p : kPairs)
        for (Isa isa : availableIsas(true))
            for (size_t n : {40, 129, 300})
                for (ptrdiff_t shift : {-9, -4, -1, 1, 3, 8, 64, 130}) {
                    const size_t span = n * std::max(p.fromSize, p.toSize) + 140;
                    Bytes plain(span);
                    fillSource(p, plain.data() + 10, n, rng);
                    GuardedBlock block(plain);
                    morven::convertElements(kernels(Isa::Portable), p.from, p.to, &plain[10],
                                            &plain[10 + shift], int64_t(n));
                    morven::convertElements(kernels(isa), p.from, p.to, block.data + 10,
                                            block.data + 10 + shift, int64_t(n));
                    ASSERT_EQ(bytesAt(block.data, span), plain)
                        << isaName(isa) << " " << p.from << "->" << p.to << " n " << n << " shift "
                        << shift;
                }
}
