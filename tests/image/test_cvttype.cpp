// Element-type conversion, range stretching and thresholding: worked values,
// argument checks, in-place conversion, and every (source, destination) pair
// cross-checked against per-element references written from the rules.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "support/image_fixtures.hpp"

using namespace morven_test;

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();

enum Op { Cvt, Range, Cut };

wzStatus run(Op op, const wzImage *src, wzImage *dst, double low, double high) {
    return op == Cvt     ? wzImageCvtType(src, dst)
           : op == Range ? wzImageCvtTypeGivenRange(src, dst, low, high)
                         : wzImageThreshold(src, dst, low, high);
}

bool isFloat(uint32_t t) { return t == wzType32F || t == wzType64F; }
double fullScaleOf(uint32_t t) {
    return t == wzType8U ? 255.0 : t == wzType32S24 ? 16777215.0 : isFloat(t) ? 1.0 : 65535.0;
}
int scaleBits(uint32_t t) { return t == wzType8U ? 8 : t == wzType32S24 ? 24 : 16; }

wzImage view(uint32_t type, uint32_t encoding, int32_t w, int32_t h, uint8_t *data) {
    return wzImage{type, encoding, h, w, data, wzRect{0, 0, w, h}, 0};
}

// The rule of one element, written from the rules of each operation, as the
// value to store (integer results wrap into the element through storeValue,
// NaN stores as 0).
double reference(Op op, uint32_t s, uint32_t d, double v, double low, double high) {
    if (op == Range) {
        const double t =
            std::isnan(v) ? v : std::fmin(std::fmax((v - low) / (high - low), 0.0), 1.0);
        return isFloat(d) ? t : std::trunc(t * fullScaleOf(d));
    }
    if (op == Cut) {
        const double r = v > high  ? fullScaleOf(d)
                         : v < low ? 0.0
                                   : v * (fullScaleOf(d) / fullScaleOf(s));
        return isFloat(d) ? r : std::trunc(r);
    }
    if (s == d || (isFloat(s) && isFloat(d))) return v;
    if (!isFloat(s) && !isFloat(d))  // the power of two between the bit scales
        return std::floor(std::ldexp(v, scaleBits(d) - scaleBits(s)));
    if (!isFloat(s))
        return d == wzType32F ? static_cast<float>(v) / static_cast<float>(fullScaleOf(s))
                              : v / fullScaleOf(s);
    // Truncated, saturated to 32 bits (NaN passes).
    return std::clamp<double>(
        std::trunc(s == wzType32F ? static_cast<float>(v) * static_cast<float>(fullScaleOf(d))
                                  : v * fullScaleOf(d)),
        INT32_MIN, INT32_MAX);
}

// n random elements after one spare byte, so that no element is aligned.
// Integers cover their range, with negative and beyond-scale values for the
// 32-bit types. Floats are k / FS in their own precision: their products with
// FS land on or next to integers, where the product's precision decides the
// truncated result; they stay within [-1, 2], except for a NaN and two values
// far beyond any integer range (integer results saturate, NaN gives 0).
std::vector<uint8_t> randomBlock(uint32_t t, int64_t n, std::mt19937 &rng) {
    std::vector<uint8_t> b(1 + n * typeSize(t));
    const int64_t fs = static_cast<int64_t>(fullScaleOf(t)), scales[3] = {255, 65535, 16777215};
    for (int64_t i = 0; i < n; ++i) {
        const int64_t r = static_cast<int32_t>(rng()), k = scales[i % 3];
        const int64_t q = static_cast<int64_t>(rng() % (3 * k + 1)) - k;
        double v = i % 3 == 0 ? (r & fs) : i % 3 == 1 ? r % (4 * fs) : r;
        if (t == wzType8U || t == wzType16U) v = r & fs;
        if (t == wzType32F) v = static_cast<float>(q) / static_cast<float>(k);
        if (t == wzType64F) v = static_cast<double>(q) / static_cast<double>(k);
        if (isFloat(t) && i < 3) v = 0.5 * i;  // 0, 0.5 and 1 exactly
        if (isFloat(t) && i >= 5 && i < 8) v = i == 5 ? kNaN : i == 6 ? 1e10 : -1e10;
        // The band edges of the test below (as near as 32F holds them).
        if (i == 3 || i == 4) v = (i == 3 ? 0.2 : 0.8) * fullScaleOf(t);
        storeValue(t, b.data() + 1 + i * typeSize(t), v);
    }
    return b;
}

}  // namespace

// Refused arguments (status 1) and empty counts (status 0) write nothing.
TEST(CvtType, RefusalsAndEmptyCountsWriteNothing) {
    using Change = void (*)(wzImage &, wzImage &);
    const Change same = [](wzImage &, wzImage &) {};
    const struct {
        Op op;
        double low, high;
        Change change;
        wzStatus want;
    } cases[] = {
        // clang-format off
        {Cvt, 0, 1, [](wzImage &, wzImage &d) { d.encoding = wzEncodingRGB; }, 1},
        {Cvt, 0, 1, [](wzImage &, wzImage &d) { d.type = 99; }, 0},  // unknown: nothing to do
        {Cvt, 0, 1, [](wzImage &s, wzImage &) { s.height = 0; }, 0},
        {Cvt, 0, 1, [](wzImage &s, wzImage &) { s.width = -3; }, 0},
        {Cvt, 0, 1, [](wzImage &s, wzImage &d) { s.encoding = d.encoding = 7; }, 0},  // no channels
        {Cvt, 0, 1, [](wzImage &s, wzImage &d) { s.height = s.width = INT32_MAX, d.type = 30; }, 0},
        {Range, 10, 10, same, 1}, {Range, 20, 10, same, 1}, {Range, kNaN, 10, same, 1},
        {Range, 0, kNaN, same, 1},
        {Range, 0, 1, [](wzImage &, wzImage &d) { d.width = 3; }, 1},
        {Cut, 0, 1, [](wzImage &, wzImage &d) { d.width = 3; }, 1},
        {Range, 0, 1, [](wzImage &, wzImage &d) { d.height = 1; }, 1},
        {Cut, 0, 1, [](wzImage &, wzImage &d) { d.height = 3; }, 1},
        {Range, 0, 1, [](wzImage &, wzImage &d) { d.type = 7; }, 1},
        {Range, 0, 1, [](wzImage &, wzImage &d) { d.encoding = wzEncodingGray; }, 1},
        {Cut, 0, 1, [](wzImage &s, wzImage &) { s.type = 3; }, 1},
        // clang-format on
    };
    uint8_t src[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, out[96] = {};
    for (const auto &c : cases) {
        wzImage s = view(wzType8U, wzEncodingBGR, 2, 2, src);
        wzImage d = view(wzType16U, wzEncodingBGR, 2, 2, out);
        c.change(s, d);
        EXPECT_EQ(run(c.op, &s, &d, c.low, c.high), c.want) << "case " << &c - cases;
    }
    EXPECT_EQ(std::count(out, out + 96, 0), 96);
}

// Every operation and (source, destination) pair on random gray blocks. The
// range and threshold band is [0.2, 0.8] of the source's full scale (the
// threshold also runs with the two reversed, from half the sources); the range
// conversion writes a colour destination with room to spare, of which only the
// source's element count may change. Type conversions run a second time in
// place, through a destination header over the source's own block: widening
// and narrowing alike (8-bit to doubles included).
TEST(CvtType, AllPairsOfEveryOperationMatchReference) {
    std::mt19937 rng(1234);
    const int32_t w = 37, h = 5;
    const int64_t n = int64_t{w} * h;
    for (Op op : {Cvt, Range, Cut}) {
        const uint32_t dstEncoding = op == Range ? wzEncodingRGBA : wzEncodingGray;
        for (uint32_t s : kAllTypes) {
            const std::vector<uint8_t> in = randomBlock(s, n, rng);
            double low = 0.2 * fullScaleOf(s), high = 0.8 * fullScaleOf(s);
            if (op == Cut && (s == wzType16U || s == wzType32S24 || s == wzType32F))
                std::swap(low, high);
            for (uint32_t d : kAllTypes) {
                const size_t ds = typeSize(d), room = n * ds * (op == Range ? 4 : 1);
                std::vector<uint8_t> out(room + 1, 0xA5), want(room + 1, 0xA5);
                for (int64_t i = 0; i < n; ++i) {
                    const double v = loadValue(s, in.data() + 1 + i * typeSize(s));
                    const double r = reference(op, s, d, v, low, high);
                    storeValue(d, want.data() + 1 + i * ds, std::isnan(r) && !isFloat(d) ? 0 : r);
                }
                wzImage a = view(s, wzEncodingGray, w, h, const_cast<uint8_t *>(in.data()) + 1);
                wzImage b = view(d, dstEncoding, w, h, out.data() + 1);
                ASSERT_EQ(run(op, &a, &b, low, high), 0u);
                EXPECT_EQ(out, want) << "op " << op << ": " << s << "->" << d;
                if (op != Cvt) continue;
                std::vector<uint8_t> block = in;
                block.resize(1 + n * std::max(typeSize(s), ds));
                a.data = b.data = block.data() + 1;
                ASSERT_EQ(wzImageCvtType(&a, &b), 0u);
                EXPECT_EQ(std::memcmp(b.data, want.data() + 1, n * ds), 0)
                    << "in place " << s << "->" << d;
            }
        }
    }
}
