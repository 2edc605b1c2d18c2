// Colour conversion, region copy, transpose and channel moves.
#include <cstring>

#include "image/image_internal.hpp"
#include "image/kernels.hpp"
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

extern "C" MORVEN_API const int32_t wz_toGray_tab[768] = {
    WZ_X256(WZ_GRAY_B), WZ_X256(WZ_GRAY_G), WZ_X256(WZ_GRAY_R)};

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

// ---------------------------------------------------------------------------
// Gray conversion of 8-bit rows. The vector forms compute the same sum
// directly: T0[b] + T1[g] + T2[r] is by definition 8192 + 1868 b + 9617 g +
// 4899 r, whose terms are at most 4186112 (no wrap in 32 bits), and a 16-bit
// multiply-add of the word pairs (b, g) by (1868, 9617) and (r, 1) by
// (4899, 8192) forms exactly those products and sums in 32-bit lanes.

void grayRow8Portable(const uint8_t *p, int32_t stride, const ptrdiff_t o[3], uint8_t *dst,
                      size_t pixels) {
    for (size_t i = 0; i < pixels; ++i, p += stride)
        dst[i] = static_cast<uint8_t>((kGrayB[p[o[0]]] + kGrayG[p[o[1]]] + kGrayR[p[o[2]]]) >> 14);
}

#if MORVEN_X86_KERNELS

// Shuffle controls for one 16-byte lane holding four pixels from its byte 0:
// `pairs` puts b and g into the two words of each pixel's dword, `rest` puts
// r into the low word (the high word gets the 1 that carries the rounding).
struct GrayControls {
    alignas(16) uint8_t pairs[16];
    alignas(16) uint8_t rest[16];
};

GrayControls grayControls(int32_t stride, const ptrdiff_t o[3]) {
    GrayControls c;
    for (int i = 0; i < 4; ++i) {
        const int base = stride * i;
        const uint8_t px[4] = {static_cast<uint8_t>(base + o[0]), 0x80,
                               static_cast<uint8_t>(base + o[1]), 0x80};
        const uint8_t pr[4] = {static_cast<uint8_t>(base + o[2]), 0x80, 0x80, 0x80};
        for (int k = 0; k < 4; ++k) {
            c.pairs[4 * i + k] = px[k];
            c.rest[4 * i + k] = pr[k];
        }
    }
    return c;
}

constexpr int32_t kWeightsBG = 1868 | (9617 << 16);
constexpr int32_t kWeightsR1 = 4899 | (8192 << 16);

// Eight gray levels as dwords from a vector whose lanes hold four pixels each.
MORVEN_TARGET_AVX2 inline __m256i grayDwords256(__m256i v, __m256i pairs, __m256i rest) {
    const __m256i bg = _mm256_shuffle_epi8(v, pairs);
    const __m256i r1 = _mm256_or_si256(_mm256_shuffle_epi8(v, rest), _mm256_set1_epi32(1 << 16));
    const __m256i sum = _mm256_add_epi32(_mm256_madd_epi16(bg, _mm256_set1_epi32(kWeightsBG)),
                                         _mm256_madd_epi16(r1, _mm256_set1_epi32(kWeightsR1)));
    return _mm256_srli_epi32(sum, 14);
}

MORVEN_TARGET_AVX2 void grayRow8Avx2(const uint8_t *src, int32_t stride, const ptrdiff_t o[3],
                                     uint8_t *dst, size_t pixels) {
    const GrayControls c = grayControls(stride, o);
    const __m256i pairs =
        _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i *>(c.pairs)));
    const __m256i rest =
        _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i *>(c.rest)));
    const size_t lane = 4 * static_cast<size_t>(stride);  // bytes of four pixels
    // Each 16-byte half load reads 16 bytes from the start of four pixels:
    // 3-byte pixels need 4 bytes beyond the 16 pixels of a step.
    const size_t need = stride == 3 ? 18 : 16;
    size_t i = 0;
    for (; i + need <= pixels; i += 16) {
        const uint8_t *s = src + i * static_cast<size_t>(stride);
        __m256i half[2];
        for (int h = 0; h < 2; ++h) {
            const uint8_t *q = s + 2 * h * lane;
            const __m256i v = _mm256_inserti128_si256(
                _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(q))),
                _mm_loadu_si128(reinterpret_cast<const __m128i *>(q + lane)), 1);
            half[h] = grayDwords256(v, pairs, rest);
        }
        // Levels are 0..255, so the saturating packs are exact.
        const __m256i words = _mm256_permute4x64_epi64(_mm256_packus_epi32(half[0], half[1]), 0xD8);
        const __m128i bytes =
            _mm_packus_epi16(_mm256_castsi256_si128(words), _mm256_extracti128_si256(words, 1));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i), bytes);
    }
    grayRow8Portable(src + i * static_cast<size_t>(stride), stride, o, dst + i, pixels - i);
}

// AVX-512: sixteen pixels per vector; for 3-byte pixels a dword permute
// first gives each lane the 16 bytes that start its four pixels. Masked
// loads and stores take the tail.
MORVEN_TARGET_AVX512 void grayRow8Avx512(const uint8_t *src, int32_t stride, const ptrdiff_t o[3],
                                         uint8_t *dst, size_t pixels) {
    const GrayControls c = grayControls(stride, o);
    const __m512i pairs =
        _mm512_broadcast_i32x4(_mm_load_si128(reinterpret_cast<const __m128i *>(c.pairs)));
    const __m512i rest =
        _mm512_broadcast_i32x4(_mm_load_si128(reinterpret_cast<const __m128i *>(c.rest)));
    const __m512i spread = _mm512_setr_epi32(0, 1, 2, 3, 3, 4, 5, 6, 6, 7, 8, 9, 9, 10, 11, 12);
    const __m512i one = _mm512_set1_epi32(1 << 16);
    const __m512i wBG = _mm512_set1_epi32(kWeightsBG);
    const __m512i wR1 = _mm512_set1_epi32(kWeightsR1);
    for (size_t i = 0; i < pixels; i += 16) {
        const size_t n = pixels - i < 16 ? pixels - i : 16;
        const size_t bytes = n * static_cast<size_t>(stride);
        const uint8_t *s = src + i * static_cast<size_t>(stride);
        __m512i v = bytes == 64 ? _mm512_loadu_si512(s)
                                : _mm512_maskz_loadu_epi8((__mmask64{1} << bytes) - 1, s);
        if (stride == 3) v = _mm512_permutexvar_epi32(spread, v);
        const __m512i bg = _mm512_shuffle_epi8(v, pairs);
        const __m512i r1 = _mm512_or_si512(_mm512_shuffle_epi8(v, rest), one);
        const __m512i sum =
            _mm512_add_epi32(_mm512_madd_epi16(bg, wBG), _mm512_madd_epi16(r1, wR1));
        const __m512i level = _mm512_srli_epi32(sum, 14);
        if (n == 16)
            _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i), _mm512_cvtepi32_epi8(level));
        else
            _mm512_mask_cvtepi32_storeu_epi8(dst + i, static_cast<__mmask16>((1u << n) - 1), level);
    }
}

#endif  // MORVEN_X86_KERNELS

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
void transposePixels(const uint8_t *src, ptrdiff_t srcRow, uint8_t *dst, int32_t dstW,
                     int32_t dstH, size_t pb) {
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

void morven::grayRow8(Isa isa, const uint8_t *src, int32_t stride, const ptrdiff_t offsets[3],
                      uint8_t *dst, size_t pixels) {
#if MORVEN_X86_KERNELS
    switch (kernelIsa(isa, false)) {
        case Isa::Avx512: grayRow8Avx512(src, stride, offsets, dst, pixels); return;
        case Isa::Avx2: grayRow8Avx2(src, stride, offsets, dst, pixels); return;
        case Isa::Portable: break;
    }
#else
    (void)isa;
#endif
    grayRow8Portable(src, stride, offsets, dst, pixels);
}

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
        for (int32_t y = 0; y < rows; ++y, sp += srcRow, dp += dstRow) std::memmove(dp, sp, rowBytes);
        return WZ_STATUS_OK;
    }

    const ChannelBytes os = channelBytes(*src);
    if (dst->encoding == wzEncodingGray && src->type == wzType8U) {
        // Row kernel, unless the destination row starts inside the source
        // row past its start: there the pixel order decides the result.
        const Isa isa = bestIsa();
        const size_t n = static_cast<size_t>(cols);
        const size_t srcBytes = n * static_cast<size_t>(s.step);
        Cursor sc = s;
        Cursor dc = d;
        for (int32_t y = 0; y < rows; ++y) {
            if (atOrBefore(dc.p, sc.p) || disjoint(sc.p, srcBytes, dc.p, n))
                grayRow8(isa, sc.p, static_cast<int32_t>(sc.step), os.c, dc.p, n);
            else
                grayRow8Portable(sc.p, static_cast<int32_t>(sc.step), os.c, dc.p, n);
            sc.p += srcBytes + sc.gap;
            dc.p += n + dc.gap;
        }
    } else if (dst->encoding == wzEncodingGray) {
        dispatchType(src->type, [&](auto tag) { toGray<decltype(tag)::code>(s, os, d, rows, cols); });
    } else {
        const ChannelBytes od = channelBytes(*dst);
        dispatchSize(es, [&](auto size) { moveChannels<decltype(size)::value>(s, os, d, od, rows, cols); });
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
        default: transposePixels<0>(src->data, srcRow, dst->data, dst->width, dst->height, n); break;
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
