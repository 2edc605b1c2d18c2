// Element-type conversion, range stretching and thresholding: worked values,
// argument checks, in-place conversion, and every (source, destination) pair
// cross-checked against per-element references written from the rules.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "morven/image.h"

namespace {

constexpr uint32_t kTypes[6] = {wzType8U, wzType32S, wzType16U, wzType32S24, wzType32F, wzType64F};

size_t sizeOf(uint32_t t) {
    return t == wzType8U ? 1 : t == wzType16U ? 2 : t == wzType64F ? 8 : 4;
}
bool isFloat(uint32_t t) { return t == wzType32F || t == wzType64F; }
double fullScaleOf(uint32_t t) {
    return t == wzType8U ? 255.0 : t == wzType32S24 ? 16777215.0 : isFloat(t) ? 1.0 : 65535.0;
}
// Bits of the integer scale: 255 is 8 bits, 65535 is 16, 16777215 is 24.
int scaleBits(uint32_t t) { return t == wzType8U ? 8 : t == wzType32S24 ? 24 : 16; }

wzImage header(uint32_t type, uint32_t encoding, int32_t w, int32_t h, uint8_t *data) {
    return wzImage{type, encoding, h, w, data, wzRect{0, 0, w, h}, 0};
}

template <typename T>
T load(const uint8_t *p) {
    T v;
    std::memcpy(&v, p, sizeof(T));
    return v;
}
template <typename T>
void put(uint8_t *p, T v) {
    std::memcpy(p, &v, sizeof(T));
}

// An element value held exactly: integers as int64, floats as double.
struct Value {
    int64_t i;
    double f;
};

Value readValue(uint32_t t, const uint8_t *p) {
    switch (t) {
        case wzType8U: return {p[0], 0.0};
        case wzType16U: return {load<uint16_t>(p), 0.0};
        case wzType32F: return {0, load<float>(p)};
        case wzType64F: return {0, load<double>(p)};
        default: return {load<int32_t>(p), 0.0};
    }
}

// Writes an integer into an integer element, keeping the low bits it holds.
void writeWrapped(uint32_t t, int64_t x, uint8_t *p) {
    const uint64_t u = static_cast<uint64_t>(x);
    if (t == wzType8U) put(p, static_cast<uint8_t>(u & 0xFF));
    if (t == wzType16U) put(p, static_cast<uint16_t>(u & 0xFFFF));
    if (t == wzType32S || t == wzType32S24) put(p, static_cast<uint32_t>(u & 0xFFFFFFFFu));
}

void writeFloat(uint32_t t, double x, uint8_t *p) {
    if (t == wzType32F) put(p, static_cast<float>(x));
    if (t == wzType64F) put(p, x);
}

int64_t floorDiv(int64_t a, int64_t b) { return a >= 0 ? a / b : -((-a + b - 1) / b); }

// The conversion rule of one element, written from the table of pairs.
void referenceConvert(uint32_t s, uint32_t d, const uint8_t *sp, uint8_t *dp) {
    const Value v = readValue(s, sp);
    if (s == d) {
        std::memcpy(dp, sp, sizeOf(s));
        return;
    }
    if (!isFloat(s) && !isFloat(d)) {
        // Scale by the power of two between the bit scales, then wrap.
        const int shift = scaleBits(d) - scaleBits(s);
        writeWrapped(
            d, shift >= 0 ? v.i * (int64_t{1} << shift) : floorDiv(v.i, int64_t{1} << -shift), dp);
    } else if (!isFloat(s)) {
        if (d == wzType32F)
            writeFloat(d, static_cast<float>(v.i) / static_cast<float>(fullScaleOf(s)), dp);
        else
            writeFloat(d, static_cast<double>(v.i) / fullScaleOf(s), dp);
    } else if (!isFloat(d)) {
        const double product =
            s == wzType32F
                ? static_cast<double>(static_cast<float>(v.f) * static_cast<float>(fullScaleOf(d)))
                : v.f * fullScaleOf(d);
        writeWrapped(d, static_cast<int64_t>(std::trunc(product)), dp);
    } else {
        writeFloat(d, v.f, dp);
    }
}

// Random element of each type: integer types get negative and out-of-scale
// values too; floats lie in [-2, 2] so that every product stays in int32.
void fillRandom(uint32_t t, uint8_t *p, int64_t n, std::mt19937 &rng) {
    std::uniform_int_distribution<int64_t> pick(0, 2);
    for (int64_t i = 0; i < n; ++i, p += sizeOf(t)) {
        const int64_t k = pick(rng);
        if (t == wzType8U || t == wzType16U) {
            writeWrapped(
                t, std::uniform_int_distribution<int64_t>(0, t == wzType8U ? 255 : 65535)(rng), p);
        } else if (t == wzType32S || t == wzType32S24) {
            const int64_t fs = static_cast<int64_t>(fullScaleOf(t));
            const int64_t lo = k == 0 ? 0 : k == 1 ? -4 * fs : INT32_MIN;
            const int64_t hi = k == 0 ? fs : k == 1 ? 4 * fs : INT32_MAX;
            writeWrapped(t, std::uniform_int_distribution<int64_t>(lo, hi)(rng), p);
        } else if (i < 3 || k == 0) {
            const double specials[3] = {0.0, 1.0, 0.5};
            writeFloat(
                t, i < 3 ? specials[i] : std::uniform_real_distribution<double>(-2.0, 2.0)(rng), p);
        } else {
            // Quotients k / FS in the element's precision: their products with
            // FS land on or next to integers, where the product's precision
            // decides the truncated result.
            const double scales[3] = {255.0, 65535.0, 16777215.0};
            const double fs = scales[i % 3];
            const double q = static_cast<double>(std::uniform_int_distribution<int64_t>(
                -static_cast<int64_t>(fs), 2 * static_cast<int64_t>(fs))(rng));
            writeFloat(t,
                       t == wzType32F
                           ? static_cast<double>(static_cast<float>(q) / static_cast<float>(fs))
                           : q / fs,
                       p);
        }
    }
}

// A block with guard bytes around it, placed at an odd offset so that no
// element is aligned.
struct Block {
    std::vector<uint8_t> bytes;
    static constexpr size_t kPad = 16, kOffset = 3;
    explicit Block(size_t size) : bytes(size + 2 * kPad + kOffset, 0xA5) {}
    uint8_t *data() { return bytes.data() + kPad + kOffset; }
    bool guardsIntact(size_t size) const {
        for (size_t i = 0; i < bytes.size(); ++i)
            if ((i < kPad + kOffset || i >= kPad + kOffset + size) && bytes[i] != 0xA5)
                return false;
        return true;
    }
};

std::string pairName(uint32_t s, uint32_t d) {
    return std::to_string(s) + "->" + std::to_string(d);
}

}  // namespace

TEST(CvtType, WorkedValues) {
    uint8_t u8[2] = {255, 128};
    uint16_t u16[2] = {};
    float f32[2] = {};
    wzImage a = header(wzType8U, wzEncodingGray, 2, 1, u8);
    wzImage b = header(wzType16U, wzEncodingGray, 2, 1, reinterpret_cast<uint8_t *>(u16));
    wzImage c = header(wzType32F, wzEncodingGray, 2, 1, reinterpret_cast<uint8_t *>(f32));
    ASSERT_EQ(wzImageCvtType(&a, &b), 0u);
    EXPECT_EQ(u16[0], 65280);
    ASSERT_EQ(wzImageCvtType(&a, &c), 0u);
    EXPECT_EQ(f32[1], 128.0f / 255.0f);

    u16[0] = 65535;
    ASSERT_EQ(wzImageCvtType(&b, &a), 0u);
    EXPECT_EQ(u8[0], 255);

    f32[0] = 1.0f;
    f32[1] = 0.999f;
    ASSERT_EQ(wzImageCvtType(&c, &a), 0u);
    EXPECT_EQ(u8[0], 255);
    EXPECT_EQ(u8[1], 254);

    int32_t s16[2] = {70000, 0}, s24[2] = {-256, 0};
    wzImage d = header(wzType32S, wzEncodingGray, 2, 1, reinterpret_cast<uint8_t *>(s16));
    wzImage e = header(wzType32S24, wzEncodingGray, 2, 1, reinterpret_cast<uint8_t *>(s24));
    ASSERT_EQ(wzImageCvtType(&d, &a), 0u);
    EXPECT_EQ(u8[0], 17);
    ASSERT_EQ(wzImageCvtType(&e, &d), 0u);
    EXPECT_EQ(s16[0], -1);
}

TEST(CvtType, OutOfRangeFloatsSaturateAndNaNIsZero) {
    const double in[4] = {1e10, -1e10, std::numeric_limits<double>::quiet_NaN(), 0.5};
    wzImage src = header(wzType64F, wzEncodingGray, 4, 1,
                         reinterpret_cast<uint8_t *>(const_cast<double *>(in)));
    uint8_t u8[4];
    int32_t s32[4];
    wzImage d8 = header(wzType8U, wzEncodingGray, 4, 1, u8);
    wzImage d32 = header(wzType32S, wzEncodingGray, 4, 1, reinterpret_cast<uint8_t *>(s32));
    ASSERT_EQ(wzImageCvtType(&src, &d8), 0u);
    EXPECT_EQ(u8[0], 255);
    EXPECT_EQ(u8[1], 0);
    EXPECT_EQ(u8[2], 0);
    EXPECT_EQ(u8[3], 127);
    ASSERT_EQ(wzImageCvtType(&src, &d32), 0u);
    EXPECT_EQ(s32[0], INT32_MAX);
    EXPECT_EQ(s32[1], INT32_MIN);
    EXPECT_EQ(s32[2], 0);
    EXPECT_EQ(s32[3], 32767);
}

TEST(CvtType, RejectionsAndEmptyCountsWriteNothing) {
    uint8_t src[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    Block out(64);
    wzImage s = header(wzType8U, wzEncodingBGR, 2, 2, src);
    wzImage d = header(wzType16U, wzEncodingRGB, 2, 2, out.data());
    EXPECT_EQ(wzImageCvtType(&s, &d), 1u);  // encodings differ
    d.encoding = wzEncodingBGR;
    d.type = 99;
    EXPECT_EQ(wzImageCvtType(&s, &d), 0u);  // unknown type converts nothing
    d.type = wzType64F;
    s.height = 0;
    EXPECT_EQ(wzImageCvtType(&s, &d), 0u);
    s.height = 2;
    s.width = -3;
    EXPECT_EQ(wzImageCvtType(&s, &d), 0u);
    s.width = s.height = INT32_MAX;  // count beyond any block
    s.encoding = d.encoding = wzEncodingRGBA;
    EXPECT_EQ(wzImageCvtType(&s, &d), 0u);
    s.encoding = d.encoding = 7;  // invalid encoding on both sides: no channels
    EXPECT_EQ(wzImageCvtType(&s, &d), 0u);
    EXPECT_TRUE(out.guardsIntact(0));
}

// Every pair, on unaligned blocks with guard bytes, against the reference.
TEST(CvtType, AllPairsMatchReference) {
    std::mt19937 rng(1234);
    const int32_t w = 37, h = 5;
    const int64_t n = int64_t{w} * h * 3;
    for (uint32_t s : kTypes) {
        Block in(n * sizeOf(s));
        fillRandom(s, in.data(), n, rng);
        for (uint32_t d : kTypes) {
            SCOPED_TRACE(pairName(s, d));
            Block out(n * sizeOf(d)), expected(n * sizeOf(d));
            for (int64_t i = 0; i < n; ++i)
                referenceConvert(s, d, in.data() + i * sizeOf(s), expected.data() + i * sizeOf(d));
            wzImage a = header(s, wzEncodingBGR, w, h, in.data());
            wzImage b = header(d, wzEncodingBGR, w, h, out.data());
            ASSERT_EQ(wzImageCvtType(&a, &b), 0u);
            EXPECT_EQ(std::memcmp(out.data(), expected.data(), n * sizeOf(d)), 0);
            EXPECT_TRUE(out.guardsIntact(n * sizeOf(d)));
        }
    }
}

// A destination header over the source's own block converts in place, for
// widening and narrowing alike.
TEST(CvtType, InPlaceEveryPair) {
    std::mt19937 rng(99);
    const int32_t w = 11, h = 7;
    const int64_t n = int64_t{w} * h;
    for (uint32_t s : kTypes) {
        for (uint32_t d : kTypes) {
            SCOPED_TRACE(pairName(s, d));
            const size_t room = n * std::max(sizeOf(s), sizeOf(d));
            Block block(room);
            fillRandom(s, block.data(), n, rng);
            std::vector<uint8_t> original(block.data(), block.data() + n * sizeOf(s));
            std::vector<uint8_t> expected(n * sizeOf(d));
            for (int64_t i = 0; i < n; ++i)
                referenceConvert(s, d, original.data() + i * sizeOf(s),
                                 expected.data() + i * sizeOf(d));
            wzImage a = header(s, wzEncodingGray, w, h, block.data());
            wzImage b = header(d, wzEncodingGray, w, h, block.data());
            ASSERT_EQ(wzImageCvtType(&a, &b), 0u);
            EXPECT_EQ(std::memcmp(block.data(), expected.data(), expected.size()), 0);
            EXPECT_TRUE(block.guardsIntact(room));
        }
    }
}

TEST(CvtType, InPlace8UTo64F) {
    const uint8_t values[5] = {0, 1, 128, 254, 255};
    std::vector<double> storage(5);  // room for the doubles, source bytes at its start
    uint8_t *block = reinterpret_cast<uint8_t *>(storage.data());
    std::memcpy(block, values, 5);
    wzImage a = header(wzType8U, wzEncodingGray, 5, 1, block);
    wzImage b = header(wzType64F, wzEncodingGray, 5, 1, block);
    ASSERT_EQ(wzImageCvtType(&a, &b), 0u);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(storage[i], values[i] / 255.0) << i;
}

TEST(CvtTypeGivenRange, WorkedValues) {
    uint8_t src[5] = {50, 100, 150, 200, 10}, dst[5] = {};
    wzImage a = header(wzType8U, wzEncodingGray, 5, 1, src);
    wzImage b = header(wzType8U, wzEncodingGray, 5, 1, dst);
    ASSERT_EQ(wzImageCvtTypeGivenRange(&a, &b, 50, 150), 0u);
    const uint8_t expected[5] = {0, 127, 255, 255, 0};
    EXPECT_EQ(std::memcmp(dst, expected, 5), 0);

    float f[5];
    wzImage c = header(wzType32F, wzEncodingGray, 5, 1, reinterpret_cast<uint8_t *>(f));
    ASSERT_EQ(wzImageCvtTypeGivenRange(&a, &c, 50, 150), 0u);
    EXPECT_EQ(f[1], 0.5f);
    EXPECT_EQ(f[3], 1.0f);
    EXPECT_EQ(f[4], 0.0f);
}

TEST(CvtTypeGivenRange, RejectionsWriteNothing) {
    uint8_t src[12] = {};
    Block out(48);
    wzImage a = header(wzType8U, wzEncodingBGR, 2, 2, src);
    wzImage b = header(wzType32F, wzEncodingBGR, 2, 2, out.data());
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(wzImageCvtTypeGivenRange(&a, &b, 10, 10), 1u);
    EXPECT_EQ(wzImageCvtTypeGivenRange(&a, &b, 20, 10), 1u);
    EXPECT_EQ(wzImageCvtTypeGivenRange(&a, &b, nan, 10), 1u);
    EXPECT_EQ(wzImageCvtTypeGivenRange(&a, &b, 0, nan), 1u);
    b.width = 3;
    EXPECT_EQ(wzImageCvtTypeGivenRange(&a, &b, 0, 1), 1u);
    b.width = 2;
    b.height = 1;
    EXPECT_EQ(wzImageCvtTypeGivenRange(&a, &b, 0, 1), 1u);
    b.height = 2;
    b.type = 7;
    EXPECT_EQ(wzImageCvtTypeGivenRange(&a, &b, 0, 1), 1u);
    b.type = wzType32F;
    b.encoding = wzEncodingGray;  // fewer channels than the source
    EXPECT_EQ(wzImageCvtTypeGivenRange(&a, &b, 0, 1), 1u);
    EXPECT_TRUE(out.guardsIntact(0));
}

// Every pair: a gray source stretched into a colour destination (which has
// room to spare), the band being [0.2, 0.8] of the source's full scale.
TEST(CvtTypeGivenRange, AllPairsMatchReference) {
    std::mt19937 rng(77);
    const int32_t w = 23, h = 9;
    const int64_t n = int64_t{w} * h;
    for (uint32_t s : kTypes) {
        Block in(n * sizeOf(s));
        fillRandom(s, in.data(), n, rng);
        const double low = 0.2 * fullScaleOf(s), high = 0.8 * fullScaleOf(s);
        for (uint32_t d : kTypes) {
            SCOPED_TRACE(pairName(s, d));
            Block out(3 * n * sizeOf(d));
            std::vector<uint8_t> expected(n * sizeOf(d));
            for (int64_t i = 0; i < n; ++i) {
                const Value v = readValue(s, in.data() + i * sizeOf(s));
                const double x = isFloat(s) ? v.f : static_cast<double>(v.i);
                const double t = std::fmin(std::fmax((x - low) / (high - low), 0.0), 1.0);
                if (isFloat(d))
                    writeFloat(d, t, expected.data() + i * sizeOf(d));
                else
                    writeWrapped(d, static_cast<int64_t>(std::trunc(t * fullScaleOf(d))),
                                 expected.data() + i * sizeOf(d));
            }
            wzImage a = header(s, wzEncodingGray, w, h, in.data());
            wzImage b = header(d, wzEncodingRGBA, w, h, out.data());
            ASSERT_EQ(wzImageCvtTypeGivenRange(&a, &b, low, high), 0u);
            EXPECT_EQ(std::memcmp(out.data(), expected.data(), expected.size()), 0);
            // Only the source's element count is written.
            for (size_t i = expected.size(); i < 3 * n * sizeOf(d); ++i)
                ASSERT_EQ(out.data()[i], 0xA5);
        }
    }
}

TEST(CvtTypeThreshold, WorkedValues) {
    // The band's ends belong to the band.
    uint8_t src[5] = {20, 100, 151, 50, 150}, dst[5] = {};
    uint16_t d16[3] = {};
    wzImage a = header(wzType8U, wzEncodingGray, 5, 1, src);
    wzImage b = header(wzType8U, wzEncodingGray, 5, 1, dst);
    ASSERT_EQ(wzImageThreshold(&a, &b, 50, 150), 0u);
    const uint8_t expected[5] = {0, 100, 255, 50, 150};
    EXPECT_EQ(std::memcmp(dst, expected, 5), 0);
    a.width = 3;
    b.width = 3;
    wzImage c = header(wzType16U, wzEncodingGray, 3, 1, reinterpret_cast<uint8_t *>(d16));
    ASSERT_EQ(wzImageThreshold(&a, &c, 50, 150), 0u);
    EXPECT_EQ(d16[0], 0);
    EXPECT_EQ(d16[1], 25700);
    EXPECT_EQ(d16[2], 65535);
    // low > high: everything is white or black.
    ASSERT_EQ(wzImageThreshold(&a, &b, 150, 50), 0u);
    EXPECT_EQ(dst[0], 0);
    EXPECT_EQ(dst[1], 255);
    EXPECT_EQ(dst[2], 255);
}

TEST(CvtTypeThreshold, RejectionsWriteNothing) {
    uint8_t src[4] = {};
    Block out(16);
    wzImage a = header(wzType8U, wzEncodingGray, 2, 2, src);
    wzImage b = header(wzType32F, wzEncodingGray, 3, 2, out.data());
    EXPECT_EQ(wzImageThreshold(&a, &b, 0, 1), 1u);
    b.width = 2;
    b.height = 3;
    EXPECT_EQ(wzImageThreshold(&a, &b, 0, 1), 1u);
    b.height = 2;
    a.type = 3;
    EXPECT_EQ(wzImageThreshold(&a, &b, 0, 1), 1u);
    EXPECT_TRUE(out.guardsIntact(0));
}

TEST(CvtTypeThreshold, AllPairsMatchReference) {
    std::mt19937 rng(5);
    const int32_t w = 31, h = 6;
    const int64_t n = int64_t{w} * h;
    for (uint32_t s : kTypes) {
        Block in(n * sizeOf(s));
        fillRandom(s, in.data(), n, rng);
        const double low = 0.2 * fullScaleOf(s), high = 0.8 * fullScaleOf(s);
        for (uint32_t d : kTypes) {
            SCOPED_TRACE(pairName(s, d));
            Block out(n * sizeOf(d));
            std::vector<uint8_t> expected(n * sizeOf(d));
            for (int64_t i = 0; i < n; ++i) {
                const Value v = readValue(s, in.data() + i * sizeOf(s));
                const double x = isFloat(s) ? v.f : static_cast<double>(v.i);
                const double r = x > high  ? fullScaleOf(d)
                                 : x < low ? 0.0
                                           : x * (fullScaleOf(d) / fullScaleOf(s));
                if (isFloat(d))
                    writeFloat(d, r, expected.data() + i * sizeOf(d));
                else
                    writeWrapped(d, static_cast<int64_t>(std::trunc(r)),
                                 expected.data() + i * sizeOf(d));
            }
            wzImage a = header(s, wzEncodingGray, w, h, in.data());
            wzImage b = header(d, wzEncodingGray, w, h, out.data());
            ASSERT_EQ(wzImageThreshold(&a, &b, low, high), 0u);
            EXPECT_EQ(std::memcmp(out.data(), expected.data(), expected.size()), 0);
            EXPECT_TRUE(out.guardsIntact(expected.size()));
        }
    }
}

TEST(CvtTypeGivenRange, NaNElements) {
    const float in[2] = {std::numeric_limits<float>::quiet_NaN(), 0.75f};
    wzImage a = header(wzType32F, wzEncodingGray, 2, 1,
                       reinterpret_cast<uint8_t *>(const_cast<float *>(in)));
    uint8_t u8[2];
    float f32[2];
    wzImage b = header(wzType8U, wzEncodingGray, 2, 1, u8);
    wzImage c = header(wzType32F, wzEncodingGray, 2, 1, reinterpret_cast<uint8_t *>(f32));
    ASSERT_EQ(wzImageCvtTypeGivenRange(&a, &b, 0.5, 1.0), 0u);
    EXPECT_EQ(u8[0], 0);
    EXPECT_EQ(u8[1], 127);
    ASSERT_EQ(wzImageCvtTypeGivenRange(&a, &c, 0.5, 1.0), 0u);
    EXPECT_TRUE(std::isnan(f32[0]));
    EXPECT_EQ(f32[1], 0.5f);
    ASSERT_EQ(wzImageThreshold(&a, &b, 0.0, 1.0), 0u);
    EXPECT_EQ(u8[0], 0);
    EXPECT_EQ(u8[1], 191);
}
