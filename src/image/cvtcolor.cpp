// Colour conversion, region copy, transpose and channel moves.
#include <cstring>

#include "image/image_internal.hpp"
#include "kernels/kernels.hpp"
#include "morven/color.h"

using namespace morven;

// 14-bit fixed-point luma weights 0.114, 0.587, 0.299 (1868, 9617, 4899 of
// 16384); the blue block carries the rounding half.
#define WZ_GRAY_B(i) (8192 + 1868 * (i))
#define WZ_GRAY_G(i) (9617 * (i))
#define WZ_GRAY_R(i) (4899 * (i))
#define WZ_X4(F, i) F(i), F((i) + 1), F((i) + 2), F((i) + 3)
#define WZ_X16(F, i) WZ_X4(F, i), WZ_X4(F, (i) + 4), WZ_X4(F, (i) + 8), WZ_X4(F, (i) + 12)
#define WZ_X64(F, i) WZ_X16(F, i), WZ_X16(F, (i) + 16), WZ_X16(F, (i) + 32), WZ_X16(F, (i) + 48)
#define WZ_X256(F) WZ_X64(F, 0), WZ_X64(F, 64), WZ_X64(F, 128), WZ_X64(F, 192)

extern "C" MORVEN_API const int32_t wz_toGray_tab[768] = {WZ_X256(WZ_GRAY_B), WZ_X256(WZ_GRAY_G),
                                                          WZ_X256(WZ_GRAY_R)};

namespace {

const int32_t *const kGrayB = wz_toGray_tab;
const int32_t *const kGrayG = wz_toGray_tab + 256;
const int32_t *const kGrayR = wz_toGray_tab + 512;

// Table index of one level, per element type: the level's top 8 bits on the
// type's own scale.
template <uint32_t Code>
inline int32_t grayIndex(typename TypeInfo<Code>::T v) noexcept {
    if constexpr (Code == wzType8U) {
        return v;
    } else if constexpr (Code == wzType16U) {
        return v >> 8;
    } else if constexpr (Code == wzType32S) {
        return v < 0 ? 0 : (v >> 8 > 255 ? 255 : v >> 8);
    } else if constexpr (Code == wzType32S24) {
        return v < 0 ? 0 : (v >> 16 > 255 ? 255 : v >> 16);
    } else {
        // Float types: trunc(v * 255) in the type's precision, clamped; NaN
        // and values beyond the integer range take the nearer end (NaN 0).
        using F = typename TypeInfo<Code>::T;
        const F p = v * static_cast<F>(255.0);
        if (!(p > 0)) return 0;
        if (p >= static_cast<F>(255.0)) return 255;
        return static_cast<int32_t>(p);
    }
}

// Gray level of the table sum, on the type's own scale.
template <uint32_t Code>
inline typename TypeInfo<Code>::T grayLevel(int32_t sum) noexcept {
    using T = typename TypeInfo<Code>::T;
    if constexpr (Code == wzType8U) {
        return static_cast<T>(sum >> 14);
    } else if constexpr (Code == wzType16U || Code == wzType32S) {
        return static_cast<T>(sum >> 6);
    } else if constexpr (Code == wzType32S24) {
        return static_cast<T>(sum * 4);
    } else {
        return static_cast<T>(sum) * static_cast<T>(1.0 / 4194304.0);  // 2^-22, exact
    }
}

template <uint32_t Code>
void toGray(Cursor s, const ChannelBytes &o, Cursor d, int32_t rows, int32_t cols) {
    using T = typename TypeInfo<Code>::T;
    for (int32_t y = 0; y < rows; ++y) {
        for (int32_t x = 0; x < cols; ++x) {
            const int32_t sum = kGrayB[grayIndex<Code>(loadElement<T>(s.p + o.c[0]))] +
                                kGrayG[grayIndex<Code>(loadElement<T>(s.p + o.c[1]))] +
                                kGrayR[grayIndex<Code>(loadElement<T>(s.p + o.c[2]))];
            storeRaw<T>(d.p, grayLevel<Code>(sum));
            s.p += s.step;
            d.p += d.step;
        }
        s.p += s.gap;
        d.p += d.gap;
    }
}

// Moves channels 1-3 element by element, each side by its own offsets.
template <size_t ES>
void moveChannels(Cursor s, const ChannelBytes &os, Cursor d, const ChannelBytes &od, int32_t rows,
                  int32_t cols) {
    for (int32_t y = 0; y < rows; ++y) {
        for (int32_t x = 0; x < cols; ++x) {
            // Read all three first: a gray source reads one element thrice.
            uint8_t e[3][ES];
            for (int k = 0; k < 3; ++k) std::memcpy(e[k], s.p + os.c[k], ES);
            for (int k = 0; k < 3; ++k) std::memcpy(d.p + od.c[k], e[k], ES);
            s.p += s.step;
            d.p += d.step;
        }
        s.p += s.gap;
        d.p += d.gap;
    }
}

// Calls f(std::integral_constant<size_t, ES>) for an element size of 1, 2, 4 or 8.
template <typename Fn>
bool dispatchSize(int32_t es, Fn &&f) {
    switch (es) {
        case 1: f(std::integral_constant<size_t, 1>{}); return true;
        case 2: f(std::integral_constant<size_t, 2>{}); return true;
        case 4: f(std::integral_constant<size_t, 4>{}); return true;
        case 8: f(std::integral_constant<size_t, 8>{}); return true;
        default: return false;
    }
}

// Copies one element of ES bytes from each source pixel at offset `from` to
// each destination pixel at offset `to`, over the source region.
template <size_t ES>
void moveElement(Cursor s, ptrdiff_t from, Cursor d, ptrdiff_t to, int32_t rows, int32_t cols) {
    for (int32_t y = 0; y < rows; ++y) {
        for (int32_t x = 0; x < cols; ++x) {
            std::memcpy(d.p + to, s.p + from, ES);
            s.p += s.step;
            d.p += d.step;
        }
        s.p += s.gap;
        d.p += d.gap;
    }
}

// Shared checks of the channel moves; false when the move must be refused.
bool channelMoveAllowed(const wzImage &src, const wzImage &dst) {
    return isValidEncoding(src.encoding) && isValidEncoding(dst.encoding) &&
           elementSize(src.type) == elementSize(dst.type);
}

template <size_t PB>
void transposePixels(const uint8_t *src, ptrdiff_t srcRow, uint8_t *dst, int32_t dstW, int32_t dstH,
                     size_t pb) {
    // Destination row r is source column r, read top to bottom.
    const size_t n = PB ? PB : pb;
    for (int32_t r = 0; r < dstH; ++r) {
        const uint8_t *s = src + static_cast<ptrdiff_t>(r) * static_cast<ptrdiff_t>(n);
        for (int32_t c = 0; c < dstW; ++c) {
            std::memcpy(dst, s, n);
            dst += n;
            s += srcRow;
        }
    }
}

}  // namespace

extern "C" {

MORVEN_API wzStatus wzImageCvtColor(const wzImage *src, wzImage *dst) {
    if (src->type != dst->type) return WZ_STATUS_ERROR;
    if (!isValidEncoding(src->encoding) || !isValidEncoding(dst->encoding)) return WZ_STATUS_ERROR;
    const int32_t rows = src->roi.height;
    const int32_t cols = src->roi.width;
    if (rows <= 0 || cols <= 0) return WZ_STATUS_OK;
    const Cursor s = regionCursor(*src);
    const Cursor d = regionCursor(*dst);
    const int32_t es = elementSize(src->type);

    if (src->encoding == dst->encoding) {
        // One block per region row; each side advances by its full row stride.
        const size_t rowBytes = static_cast<size_t>(cols) * static_cast<size_t>(s.step);
        const ptrdiff_t srcRow = s.step * src->width;
        const ptrdiff_t dstRow = d.step * dst->width;
        const uint8_t *sp = s.p;
        uint8_t *dp = d.p;
        for (int32_t y = 0; y < rows; ++y, sp += srcRow, dp += dstRow)
            std::memmove(dp, sp, rowBytes);
        return WZ_STATUS_OK;
    }

    const ChannelBytes os = channelBytes(*src);
    if (dst->encoding == wzEncodingGray && src->type == wzType8U) {
        // Row kernel, unless the destination row starts inside the source
        // row past its start: there the pixel order decides the result.
        const Kernels &kernels = bestKernels();
        const size_t n = static_cast<size_t>(cols);
        const size_t srcBytes = n * static_cast<size_t>(s.step);
        Cursor sc = s;
        Cursor dc = d;
        for (int32_t y = 0; y < rows; ++y) {
            if (atOrBefore(dc.p, sc.p) || disjoint(sc.p, srcBytes, dc.p, n))
                kernels.grayRow(sc.p, static_cast<int32_t>(sc.step), os.c, dc.p, n);
            else
                plainKernels().grayRow(sc.p, static_cast<int32_t>(sc.step), os.c, dc.p, n);
            sc.p += srcBytes + sc.gap;
            dc.p += n + dc.gap;
        }
    } else if (dst->encoding == wzEncodingGray) {
        dispatchType(src->type,
                     [&](auto tag) { toGray<decltype(tag)::code>(s, os, d, rows, cols); });
    } else {
        const ChannelBytes od = channelBytes(*dst);
        dispatchSize(
            es, [&](auto size) { moveChannels<decltype(size)::value>(s, os, d, od, rows, cols); });
    }
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzCopy(const wzImage *src, wzImage *dst) { return wzImageCvtColor(src, dst); }

MORVEN_API wzStatus wzTranspose(const wzImage *src, wzImage *dst) {
    const ptrdiff_t pb = pixelStride(*src);
    if (pb <= 0) return WZ_STATUS_OK;
    const ptrdiff_t srcRow = pb * src->width;
    const size_t n = static_cast<size_t>(pb);
    switch (n) {
        case 1: transposePixels<1>(src->data, srcRow, dst->data, dst->width, dst->height, n); break;
        case 3: transposePixels<3>(src->data, srcRow, dst->data, dst->width, dst->height, n); break;
        case 4: transposePixels<4>(src->data, srcRow, dst->data, dst->width, dst->height, n); break;
        default:
            transposePixels<0>(src->data, srcRow, dst->data, dst->width, dst->height, n);
            break;
    }
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzImageExtractChannel(const wzImage *src, wzImage *dst, int32_t channel) {
    const int32_t offset = channelOffset(src->encoding, channel);
    if (offset < 0 || !channelMoveAllowed(*src, *dst)) return WZ_STATUS_ERROR;
    const int32_t es = elementSize(src->type);
    dispatchSize(es, [&](auto size) {
        moveElement<decltype(size)::value>(regionCursor(*src), offset * es, regionCursor(*dst), 0,
                                           src->roi.height, src->roi.width);
    });
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzImageInsertChannel(const wzImage *src, wzImage *dst, int32_t channel) {
    const int32_t offset = channelOffset(dst->encoding, channel);
    if (offset < 0 || !channelMoveAllowed(*src, *dst)) return WZ_STATUS_ERROR;
    const int32_t es = elementSize(dst->type);
    dispatchSize(es, [&](auto size) {
        moveElement<decltype(size)::value>(regionCursor(*src), 0, regionCursor(*dst), offset * es,
                                           src->roi.height, src->roi.width);
    });
    return WZ_STATUS_OK;
}

}  // extern "C"
