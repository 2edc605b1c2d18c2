// Working colour spaces: full-range BT.601 Y'CbCr (the weights of the
// library's gray conversion) and CIELAB under D65 with sRGB primaries.
//
// Lab needs the sRGB transfer curve both ways and a cube root per channel.
// The decoding curve is tabulated per sample value; the cube root and the
// encoding curve are tabulated on a grid of 16384 steps over 0..1 and
// interpolated linearly, which stays within 3e-7 of the cube root and 2e-6
// of the encoding curve (a tenth of a 16-bit level at most), while the
// tables stay small enough to live in the cache.
#include "histogram/space.hpp"

#include <cmath>
#include <cstdlib>

#include "image/image_internal.hpp"

namespace morven {

namespace {

constexpr float kScale = 65535.0f;  // working values run over 0..65535
constexpr float kMid = 32767.5f;    // the working value of zero chroma

// Y'CbCr weights (BT.601, full range).
constexpr float kWr = 0.299f, kWg = 0.587f, kWb = 0.114f;
constexpr float kCb = 1.772f, kCr = 1.402f;  // 2 (1 - kWb), 2 (1 - kWr)

// sRGB primaries to XYZ, each row divided by the D65 white's component so
// that gray maps to x = y = z.
constexpr double kToXyz[3][3] = {
    {0.4124 / 0.9505, 0.3576 / 0.9505, 0.1805 / 0.9505},
    {0.2126, 0.7152, 0.0722},
    {0.0193 / 1.089, 0.1192 / 1.089, 0.9505 / 1.089},
};

constexpr int kGrid =
    16384;  // steps of the tabulated curves over 0..1 (64 KB each: they stay in cache)
constexpr double kDelta = 6.0 / 29.0;               // Lab's knee
constexpr double kKnee = kDelta * kDelta * kDelta;  // t below which f is linear

double labF(double t) {
    return t > kKnee ? std::cbrt(t) : t / (3.0 * kDelta * kDelta) + 4.0 / 29.0;
}

inline float labFInverse(float s) {
    constexpr float d = static_cast<float>(kDelta);
    constexpr float slope = static_cast<float>(3.0 * kDelta * kDelta);
    constexpr float offset = static_cast<float>(4.0 / 29.0);
    return s > d ? s * s * s : slope * (s - offset);
}

double srgbDecode(double c) {
    return c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
}

double srgbEncode(double l) {
    return l <= 0.0031308 ? 12.92 * l : 1.055 * std::pow(l, 1.0 / 2.4) - 0.055;
}

// A curve tabulated at kGrid + 1 points over 0..1, read with linear
// interpolation; outside 0..1 the caller decides.
inline float lookup(const float *table, float t) {
    const float x = t * static_cast<float>(kGrid);
    int i = static_cast<int>(x);
    if (i >= kGrid) i = kGrid - 1;
    const float frac = x - static_cast<float>(i);
    return table[i] + frac * (table[i + 1] - table[i]);
}

inline float sampleOf(const uint8_t *p, bool wide) {
    return wide ? static_cast<float>(loadElement<uint16_t>(p)) : static_cast<float>(*p);
}

// Stores v (in samples) clamped and rounded to the nearest level.
inline void storeSample(uint8_t *p, bool wide, float full, float v) {
    v = v > 0.0f ? v : 0.0f;  // NaN gives 0 as well
    v = v < full ? v : full;
    // NOLINTNEXTLINE(bugprone-incorrect-roundings): clamped to 0..full, rounds half up
    const auto level = static_cast<uint32_t>(v + 0.5f);
    if (wide)
        storeRaw<uint16_t>(p, static_cast<uint16_t>(level));
    else
        *p = static_cast<uint8_t>(level);
}

// Inverse of a 3 x 3 matrix by cofactors.
void invert3(const double m[3][3], float out[3][3]) {
    const double det = m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
                       m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
                       m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) {
            const int r1 = (c + 1) % 3, r2 = (c + 2) % 3, c1 = (r + 1) % 3, c2 = (r + 2) % 3;
            out[r][c] = static_cast<float>((m[r1][c1] * m[r2][c2] - m[r1][c2] * m[r2][c1]) / det);
        }
}

}  // namespace

PixelLayout pixelLayout(const wzImage &img) noexcept {
    const ChannelBytes o = channelBytes(img);
    return PixelLayout{img.type == wzType16U,
                       img.encoding == wzEncodingGray,
                       pixelStride(img),
                       {o.c[0], o.c[1], o.c[2]}};
}

bool WorkingSpace::init(int32_t space, bool wide) noexcept {
    lab_ = space == wzSpaceLab;
    full_ = wide ? 65535.0f : 255.0f;
    if (!lab_) return true;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) toXyz_[r][c] = static_cast<float>(kToXyz[r][c]);
    invert3(kToXyz, fromXyz_);
    const int levels = wide ? 65536 : 256;
    decode_ = allocArray<float>(levels);
    cbrt_ = allocArray<float>(kGrid + 1);
    encode_ = allocArray<float>(kGrid + 1);
    if (!decode_ || !cbrt_ || !encode_) return false;
    for (int v = 0; v < levels; ++v)
        decode_.get()[v] = static_cast<float>(srgbDecode(v / static_cast<double>(levels - 1)));
    for (int i = 0; i <= kGrid; ++i) {
        const double t = i / static_cast<double>(kGrid);
        cbrt_.get()[i] = static_cast<float>(labF(t));
        encode_.get()[i] = static_cast<float>(srgbEncode(t) * full_);
    }
    return true;
}

void WorkingSpace::forward(const uint8_t *row, const PixelLayout &layout, size_t n,
                           float *const w[3]) const noexcept {
    const bool wide = layout.wide;
    if (!lab_) {
        const float k = kScale / full_;
        for (size_t i = 0; i < n; ++i, row += layout.stride) {
            if (layout.gray) {
                w[0][i] = sampleOf(row, wide) * k;
                w[1][i] = kMid;
                w[2][i] = kMid;
                continue;
            }
            const float b = sampleOf(row + layout.c[0], wide) * k;
            const float g = sampleOf(row + layout.c[1], wide) * k;
            const float r = sampleOf(row + layout.c[2], wide) * k;
            const float y = kWr * r + kWg * g + kWb * b;
            w[0][i] = y;
            w[1][i] = (b - y) / kCb + kMid;
            w[2][i] = (r - y) / kCr + kMid;
        }
        return;
    }
    const float(&m)[3][3] = toXyz_;
    const float *dec = decode_.get();
    const auto f = [this](float t) {
        if (t >= 0.0f && t <= 1.0f) return lookup(cbrt_.get(), t);
        return static_cast<float>(labF(t));
    };
    const auto level = [wide](const uint8_t *p) {
        return wide ? loadElement<uint16_t>(p) : static_cast<uint32_t>(*p);
    };
    for (size_t i = 0; i < n; ++i, row += layout.stride) {
        float fx, fy, fz;
        if (layout.gray) {
            fx = fy = fz = f(dec[level(row)]);
        } else {
            const float lb = dec[level(row + layout.c[0])];
            const float lg = dec[level(row + layout.c[1])];
            const float lr = dec[level(row + layout.c[2])];
            fx = f(m[0][0] * lr + m[0][1] * lg + m[0][2] * lb);
            fy = f(m[1][0] * lr + m[1][1] * lg + m[1][2] * lb);
            fz = f(m[2][0] * lr + m[2][1] * lg + m[2][2] * lb);
        }
        w[0][i] = (116.0f * fy - 16.0f) * (kScale / 100.0f);
        w[1][i] = (500.0f * (fx - fy) + 128.0f) * (kScale / 256.0f);
        w[2][i] = (200.0f * (fy - fz) + 128.0f) * (kScale / 256.0f);
    }
}

void WorkingSpace::inverse(const float *const w[3], const PixelLayout &layout, size_t n,
                           uint8_t *row) const noexcept {
    const bool wide = layout.wide;
    const float full = full_;
    if (!lab_) {
        const float k = full / kScale;
        for (size_t i = 0; i < n; ++i, row += layout.stride) {
            const float y = w[0][i];
            if (layout.gray) {
                storeSample(row, wide, full, y * k);
                continue;
            }
            const float cb = w[1][i] - kMid;
            const float cr = w[2][i] - kMid;
            const float r = y + kCr * cr;
            const float b = y + kCb * cb;
            const float g = (y - kWr * r - kWb * b) / kWg;
            storeSample(row + layout.c[0], wide, full, b * k);
            storeSample(row + layout.c[1], wide, full, g * k);
            storeSample(row + layout.c[2], wide, full, r * k);
        }
        return;
    }
    const float(&m)[3][3] = fromXyz_;
    const auto encode = [this, full](float l) {
        if (!(l > 0.0f)) return 0.0f;
        if (l >= 1.0f) return full;
        return lookup(encode_.get(), l);
    };
    for (size_t i = 0; i < n; ++i, row += layout.stride) {
        const float fy = (w[0][i] * (100.0f / kScale) + 16.0f) / 116.0f;
        if (layout.gray) {
            storeSample(row, wide, full, encode(labFInverse(fy)));
            continue;
        }
        const float fx = fy + (w[1][i] * (256.0f / kScale) - 128.0f) / 500.0f;
        const float fz = fy - (w[2][i] * (256.0f / kScale) - 128.0f) / 200.0f;
        const float x = labFInverse(fx), y = labFInverse(fy), z = labFInverse(fz);
        const float lr = m[0][0] * x + m[0][1] * y + m[0][2] * z;
        const float lg = m[1][0] * x + m[1][1] * y + m[1][2] * z;
        const float lb = m[2][0] * x + m[2][1] * y + m[2][2] * z;
        storeSample(row + layout.c[0], wide, full, encode(lb));
        storeSample(row + layout.c[1], wide, full, encode(lg));
        storeSample(row + layout.c[2], wide, full, encode(lr));
    }
}

}  // namespace morven
