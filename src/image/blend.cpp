// Weighted blending of two images and masked substitution.
#include "image/extension_support.hpp"
#include "image/image_internal.hpp"
#include "morven/color.h"

using namespace morven;

namespace {

// (1 - w) * p + w * q in single precision, two separately rounded products
// (the library is built without contraction), clamped and truncated.
inline uint8_t blendLevel(float oneMinusW, float w, uint8_t p, uint8_t q) noexcept {
    const float wp = oneMinusW * static_cast<float>(p);
    const float wq = w * static_cast<float>(q);
    float r = wp + wq;
    r = r < 0.0f ? 0.0f : (r > 255.0f ? 255.0f : r);
    return static_cast<uint8_t>(r);
}

bool is8BitWithValidEncoding(const wzImage &img) {
    return img.type == wzType8U && isValidEncoding(img.encoding);
}

// Cursors of the three images of a blend: with a gray first image every image
// advances one byte per pixel, otherwise each by its own pixel stride.
struct BlendWalk {
    Cursor a, b, d;
    ChannelBytes oa, ob, od;
    bool gray;
};

BlendWalk blendWalk(const wzImage &a, const wzImage &b, const wzImage &dst) {
    BlendWalk w{};
    w.gray = pixelStride(a) == 1;
    if (w.gray) {
        w.a = regionCursor(a, 1);
        w.b = regionCursor(b, 1);
        w.d = regionCursor(dst, 1);
    } else {
        w.a = regionCursor(a);
        w.b = regionCursor(b);
        w.d = regionCursor(dst);
        w.oa = channelBytes(a);
        w.ob = channelBytes(b);
        w.od = channelBytes(dst);
    }
    return w;
}

// Runs the blend row by row; weightAt() yields the (1 - w, w) pair of the
// current pixel and advances whatever it reads the weight from.
template <typename WeightAt, typename EndRow>
void runBlend(BlendWalk w, int32_t rows, int32_t cols, WeightAt weightAt, EndRow endRow) {
    for (int32_t y = 0; y < rows; ++y) {
        for (int32_t x = 0; x < cols; ++x) {
            const auto [omw, wt] = weightAt();
            if (w.gray) {
                *w.d.p = blendLevel(omw, wt, *w.a.p, *w.b.p);
            } else {
                for (int k = 0; k < 3; ++k)
                    w.d.p[w.od.c[k]] = blendLevel(omw, wt, w.a.p[w.oa.c[k]], w.b.p[w.ob.c[k]]);
            }
            w.a.p += w.a.step;
            w.b.p += w.b.step;
            w.d.p += w.d.step;
        }
        w.a.p += w.a.gap;
        w.b.p += w.b.gap;
        w.d.p += w.d.gap;
        endRow();
    }
}

struct WeightPair {
    float oneMinusW;
    float w;
};

}  // namespace

extern "C" {

MORVEN_API wzStatus wzAddWeigthedS(const wzImage *a, const wzImage *b, wzImage *dst,
                                   uint32_t weight) {
    if (weight == 0) return wzImageCvtColor(a, dst);
    if (weight == 255) return wzImageCvtColor(b, dst);
    if (!is8BitWithValidEncoding(*a) || !is8BitWithValidEncoding(*b) ||
        !is8BitWithValidEncoding(*dst))
        return WZ_STATUS_ERROR;
    const float w = static_cast<float>(weight) / 255.0f;
    const WeightPair pair{1.0f - w, w};
    runBlend(
        blendWalk(*a, *b, *dst), a->roi.height, a->roi.width, [&] { return pair; }, [] {});
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzAddWeigthedM(const wzImage *a, const wzImage *b, wzImage *dst,
                                   const wzImage *mask) {
    if (!is8BitWithValidEncoding(*a) || !is8BitWithValidEncoding(*b) ||
        !is8BitWithValidEncoding(*dst) || !is8BitWithValidEncoding(*mask))
        return WZ_STATUS_ERROR;
    // The mask advances one byte per pixel plus its own region row gap.
    Cursor m = regionCursor(*mask, 1);
    runBlend(
        blendWalk(*a, *b, *dst), a->roi.height, a->roi.width,
        [&] {
            const float w = static_cast<float>(*m.p++) / 255.0f;
            return WeightPair{1.0f - w, w};
        },
        [&] { m.p += m.gap; });
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzAddWeigthedM16(const wzImage *a, const wzImage *b, wzImage *dst,
                                     const wzImage *mask) {
    return blendMasked16(*a, *b, *dst, *mask) ? WZ_STATUS_OK : WZ_STATUS_ERROR;
}

MORVEN_API wzStatus wzSubstitute(const wzImage *src, wzImage *dst, const wzImage *mask) {
    if (!is8BitWithValidEncoding(*src) || !is8BitWithValidEncoding(*dst) ||
        !is8BitWithValidEncoding(*mask))
        return WZ_STATUS_ERROR;
    const int32_t rows = src->roi.height;
    const int32_t cols = src->roi.width;
    const bool graySrc = pixelStride(*src) == 1;
    const bool grayMask = pixelStride(*mask) == 1;
    Cursor s = graySrc ? regionCursor(*src, 1) : regionCursor(*src);
    Cursor d = graySrc ? regionCursor(*dst, 1) : regionCursor(*dst);
    Cursor m = graySrc || grayMask ? regionCursor(*mask, 1) : regionCursor(*mask);
    const ChannelBytes os = channelBytes(*src);
    const ChannelBytes od = channelBytes(*dst);
    const ChannelBytes om = channelBytes(*mask);
    for (int32_t y = 0; y < rows; ++y) {
        for (int32_t x = 0; x < cols; ++x) {
            if (graySrc) {
                if (*m.p) *d.p = *s.p;
            } else if (grayMask) {
                if (*m.p)
                    for (int k = 0; k < 3; ++k) d.p[od.c[k]] = s.p[os.c[k]];
            } else {
                for (int k = 0; k < 3; ++k)
                    if (m.p[om.c[k]]) d.p[od.c[k]] = s.p[os.c[k]];
            }
            s.p += s.step;
            d.p += d.step;
            m.p += m.step;
        }
        s.p += s.gap;
        d.p += d.gap;
        m.p += m.gap;
    }
    return WZ_STATUS_OK;
}

}  // extern "C"

namespace morven {

bool blendMasked16(const wzImage &a, const wzImage &b, wzImage &dst, const wzImage &mask) noexcept {
    const auto sameLayout = [&](const wzImage &img) {
        return img.type == wzType16U && img.encoding == a.encoding;
    };
    if (!sameLayout(a) || !sameLayout(b) || !sameLayout(dst) || !isValidEncoding(a.encoding) ||
        mask.type != wzType8U || mask.encoding != wzEncodingGray)
        return false;
    const bool gray = a.encoding == wzEncodingGray;
    const ChannelBytes o = channelBytes(a);
    const int channels = gray ? 1 : 3;
    Cursor ca = regionCursor(a), cb = regionCursor(b), cd = regionCursor(dst);
    Cursor m = regionCursor(mask, 1);
    for (int32_t y = 0; y < a.roi.height; ++y) {
        for (int32_t x = 0; x < a.roi.width; ++x) {
            const double w = *m.p++ / 255.0;
            for (int k = 0; k < channels; ++k) {
                const double p = loadElement<uint16_t>(ca.p + o.c[k]);
                const double q = loadElement<uint16_t>(cb.p + o.c[k]);
                const double r = p + w * (q - p);  // stays within p..q
                // NOLINTNEXTLINE(bugprone-incorrect-roundings): r lies in 0..65535, rounds half up
                storeRaw<uint16_t>(cd.p + o.c[k], static_cast<uint16_t>(r + 0.5));
            }
            ca.p += ca.step;
            cb.p += cb.step;
            cd.p += cd.step;
        }
        ca.p += ca.gap;
        cb.p += cb.gap;
        cd.p += cd.gap;
        m.p += m.gap;
    }
    return true;
}

wzStatus blendMaskedAny(const wzImage &a, const wzImage &b, wzImage &dst,
                        const wzImage &mask) noexcept {
    if (a.type == wzType16U) return blendMasked16(a, b, dst, mask) ? WZ_STATUS_OK : WZ_STATUS_ERROR;
    return wzAddWeigthedM(&a, &b, &dst, &mask);
}

}  // namespace morven
