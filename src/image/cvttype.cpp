// Element-type conversion, range stretching and thresholding over whole
// blocks. Each operation dispatches once on the (source, destination) type
// pair and then runs a tight loop over the flat block with the pair's rule.
#include <cstring>

#include "common/memory.hpp"
#include "image/image_internal.hpp"
#include "image/kernels.hpp"

using namespace morven;

namespace {

// Elements to process for rows * columns * channels, in 64 bits. Zero when any
// factor is below 1, and also when the count times the widest element size
// involved could not be the size of any block (so that a corrupt header can
// neither loop backwards nor form out-of-range offsets).
int64_t elementCount(int32_t rows, int32_t columns, int32_t channels, int64_t widest) {
    if (rows < 1 || columns < 1 || channels < 1) return 0;
    int64_t n = 0, bytes = 0;
    if (!checkedMul(int64_t{rows} * columns, channels, n) || !checkedMul(n, widest, bytes) ||
        static_cast<uint64_t>(bytes) > static_cast<uint64_t>(PTRDIFF_MAX))
        return 0;
    return n;
}

int64_t widerSize(uint32_t a, uint32_t b) {
    return elementSize(a) > elementSize(b) ? elementSize(a) : elementSize(b);
}

// The per-element rule of wzImageCvtType for a pair of distinct types.
template <class S, class D>
inline typename D::T convertElement(typename S::T v) {
    using ST = typename S::T;
    using DT = typename D::T;
    constexpr uint32_t s = S::code;
    constexpr uint32_t d = D::code;
    if constexpr (std::is_floating_point_v<DT>) {
        if constexpr (std::is_floating_point_v<ST>) {
            return static_cast<DT>(v);  // widen to double or round to single
        } else {
            // Convert the integer first, then divide in the destination's precision.
            return static_cast<DT>(v) / static_cast<DT>(S::fullScale);
        }
    } else if constexpr (std::is_floating_point_v<ST>) {
        // Product in the source's precision, then the integer store rule.
        return storeInteger<DT>(v * static_cast<ST>(D::fullScale));
    } else {
        // Integer to integer: shifts and bit extractions, wrapping, never saturating.
        // Unsigned intermediates keep shifts of negative values well defined.
        const uint32_t u = static_cast<uint32_t>(v);
        if constexpr (s == wzType8U) {
            return static_cast<DT>(u << (d == wzType32S24 ? 16 : 8));
        } else if constexpr (s == wzType32S) {
            if constexpr (d == wzType8U) return static_cast<DT>(u >> 8);     // bits 8-15
            if constexpr (d == wzType16U) return static_cast<DT>(u);         // bits 0-15
            if constexpr (d == wzType32S24) return static_cast<DT>(u << 8);  // * 256, wrapping
        } else if constexpr (s == wzType16U) {
            if constexpr (d == wzType8U) return static_cast<DT>(u >> 8);
            if constexpr (d == wzType32S) return static_cast<DT>(u);
            if constexpr (d == wzType32S24) return static_cast<DT>(u << 8);
        } else {
            static_assert(s == wzType32S24);
            if constexpr (d == wzType8U) return static_cast<DT>(u >> 16);  // bits 16-23
            if constexpr (d == wzType32S) return static_cast<DT>(v >> 8);  // arithmetic shift
            if constexpr (d == wzType16U) return static_cast<DT>(u >> 8);  // bits 8-23
        }
    }
}

// Converts n elements. A wider destination runs from the last element to the
// first and a narrower one from the first, so that a destination block that
// starts where the source block starts is converted in place: every source
// element is read before any store reaches its bytes.
template <class S, class D>
void convertBlock(const uint8_t *src, uint8_t *dst, int64_t n) {
    using ST = typename S::T;
    using DT = typename D::T;
    constexpr int64_t ss = sizeof(ST);
    constexpr int64_t ds = sizeof(DT);
    if constexpr (ds > ss) {
        const uint8_t *sp = src + n * ss;
        uint8_t *dp = dst + n * ds;
        for (int64_t i = 0; i < n; ++i) {
            sp -= ss;
            dp -= ds;
            storeRaw<DT>(dp, convertElement<S, D>(loadElement<ST>(sp)));
        }
    } else {
        for (int64_t i = 0; i < n; ++i, src += ss, dst += ds)
            storeRaw<DT>(dst, convertElement<S, D>(loadElement<ST>(src)));
    }
}

// ---------------------------------------------------------------------------
// Vector forms of the pairs 8U <-> 32F and 8U <-> 16U. Each step loads all of
// its source elements before it stores anything, widening steps walk from
// the end and narrowing ones from the start (as the element loop does), and
// the few elements left over run the element loop in the same direction.
// Exactness: integer to float conversion of a byte is exact and the division
// by 255 is the same correctly rounded IEEE division; the float product
// v * 255 is the same single-precision product. Truncation returns
// 0x80000000 for NaN and for products beyond the 32-bit range, which already
// has the low byte of the saturated result except for products at or above
// 2^31 (saturated to INT32_MAX, low byte 0xFF): those lanes are set apart.

#if MORVEN_X86_KERNELS

using U8 = TypeTag<wzType8U>;
using U16 = TypeTag<wzType16U>;
using F32 = TypeTag<wzType32F>;

MORVEN_TARGET_AVX2 void u8ToF32Avx2(const uint8_t *src, uint8_t *dst, int64_t n) {
    const __m256 scale = _mm256_set1_ps(255.0f);
    int64_t i = n;
    while (i >= 32) {
        i -= 32;
        __m256 f[4];
        for (int k = 0; k < 4; ++k) {
            const __m128i b = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(src + i + 8 * k));
            f[k] = _mm256_div_ps(_mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(b)), scale);
        }
        for (int k = 0; k < 4; ++k)
            _mm256_storeu_ps(reinterpret_cast<float *>(dst + 4 * (i + 8 * k)), f[k]);
    }
    convertBlock<U8, F32>(src, dst, i);
}

MORVEN_TARGET_AVX512 void u8ToF32Avx512(const uint8_t *src, uint8_t *dst, int64_t n) {
    const __m512 scale = _mm512_set1_ps(255.0f);
    int64_t i = n;
    while (i >= 64) {
        i -= 64;
        __m512 f[4];
        for (int k = 0; k < 4; ++k) {
            const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i + 16 * k));
            f[k] = _mm512_div_ps(_mm512_cvtepi32_ps(_mm512_cvtepu8_epi32(b)), scale);
        }
        for (int k = 0; k < 4; ++k) _mm512_storeu_ps(dst + 4 * (i + 16 * k), f[k]);
    }
    convertBlock<U8, F32>(src, dst, i);
}

// Low bytes of the saturated truncations of v * 255.
MORVEN_TARGET_AVX2 inline __m256i f32ToLowBytes256(__m256 v) {
    const __m256 p = _mm256_mul_ps(v, _mm256_set1_ps(255.0f));
    const __m256i t = _mm256_cvttps_epi32(p);
    const __m256 big = _mm256_cmp_ps(p, _mm256_set1_ps(2147483648.0f), _CMP_GE_OQ);
    const __m256i low = _mm256_set1_epi32(0xFF);
    return _mm256_or_si256(_mm256_and_si256(t, low),
                           _mm256_and_si256(_mm256_castps_si256(big), low));
}

MORVEN_TARGET_AVX2 void f32ToU8Avx2(const uint8_t *src, uint8_t *dst, int64_t n) {
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    int64_t i = 0;
    for (; i + 32 <= n; i += 32) {
        __m256i b[4];
        for (int k = 0; k < 4; ++k)
            b[k] = f32ToLowBytes256(
                _mm256_loadu_ps(reinterpret_cast<const float *>(src + 4 * (i + 8 * k))));
        // Values are 0..255: the saturating packs are exact.
        const __m256i bytes =
            _mm256_packus_epi16(_mm256_packus_epi32(b[0], b[1]), _mm256_packus_epi32(b[2], b[3]));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i),
                            _mm256_permutevar8x32_epi32(bytes, order));
    }
    convertBlock<F32, U8>(src + 4 * i, dst + i, n - i);
}

MORVEN_TARGET_AVX512 void f32ToU8Avx512(const uint8_t *src, uint8_t *dst, int64_t n) {
    const __m512 scale = _mm512_set1_ps(255.0f);
    const __m512 limit = _mm512_set1_ps(2147483648.0f);
    const __m512i ones = _mm512_set1_epi32(0xFF);
    int64_t i = 0;
    for (; i + 64 <= n; i += 64) {
        __m128i b[4];
        for (int k = 0; k < 4; ++k) {
            const __m512 p = _mm512_mul_ps(_mm512_loadu_ps(src + 4 * (i + 16 * k)), scale);
            const __m512i t = _mm512_mask_mov_epi32(_mm512_cvttps_epi32(p),
                                                    _mm512_cmp_ps_mask(p, limit, _CMP_GE_OQ), ones);
            b[k] = _mm512_cvtepi32_epi8(t);
        }
        for (int k = 0; k < 4; ++k)
            _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i + 16 * k), b[k]);
    }
    convertBlock<F32, U8>(src + 4 * i, dst + i, n - i);
}

MORVEN_TARGET_AVX2 void u8ToU16Avx2(const uint8_t *src, uint8_t *dst, int64_t n) {
    int64_t i = n;
    while (i >= 32) {
        i -= 32;
        const __m128i lo = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i));
        const __m128i hi = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i + 16));
        const __m256i a = _mm256_slli_epi16(_mm256_cvtepu8_epi16(lo), 8);
        const __m256i b = _mm256_slli_epi16(_mm256_cvtepu8_epi16(hi), 8);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + 2 * i), a);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + 2 * i + 32), b);
    }
    convertBlock<U8, U16>(src, dst, i);
}

MORVEN_TARGET_AVX512 void u8ToU16Avx512(const uint8_t *src, uint8_t *dst, int64_t n) {
    int64_t i = n;
    while (i >= 64) {
        i -= 64;
        const __m256i lo = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + i));
        const __m256i hi = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + i + 32));
        const __m512i a = _mm512_slli_epi16(_mm512_cvtepu8_epi16(lo), 8);
        const __m512i b = _mm512_slli_epi16(_mm512_cvtepu8_epi16(hi), 8);
        _mm512_storeu_si512(dst + 2 * i, a);
        _mm512_storeu_si512(dst + 2 * i + 64, b);
    }
    convertBlock<U8, U16>(src, dst, i);
}

MORVEN_TARGET_AVX2 void u16ToU8Avx2(const uint8_t *src, uint8_t *dst, int64_t n) {
    int64_t i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i a = _mm256_srli_epi16(
            _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + 2 * i)), 8);
        const __m256i b = _mm256_srli_epi16(
            _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + 2 * i + 32)), 8);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i),
                            _mm256_permute4x64_epi64(_mm256_packus_epi16(a, b), 0xD8));
    }
    convertBlock<U16, U8>(src + 2 * i, dst + i, n - i);
}

MORVEN_TARGET_AVX512 void u16ToU8Avx512(const uint8_t *src, uint8_t *dst, int64_t n) {
    int64_t i = 0;
    for (; i + 64 <= n; i += 64) {
        const __m512i a = _mm512_srli_epi16(_mm512_loadu_si512(src + 2 * i), 8);
        const __m512i b = _mm512_srli_epi16(_mm512_loadu_si512(src + 2 * i + 64), 8);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i), _mm512_cvtepi16_epi8(a));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i + 32), _mm512_cvtepi16_epi8(b));
    }
    convertBlock<U16, U8>(src + 2 * i, dst + i, n - i);
}

// Runs the vector form of a pair when there is one; false otherwise.
bool convertVector(Isa isa, uint32_t srcType, uint32_t dstType, const uint8_t *src, uint8_t *dst,
                   int64_t n) {
    using Fn = void (*)(const uint8_t *, uint8_t *, int64_t);
    Fn avx2 = nullptr;
    Fn avx512 = nullptr;
    if (srcType == wzType8U && dstType == wzType32F) {
        avx2 = u8ToF32Avx2;
        avx512 = u8ToF32Avx512;
    } else if (srcType == wzType32F && dstType == wzType8U) {
        avx2 = f32ToU8Avx2;
        avx512 = f32ToU8Avx512;
    } else if (srcType == wzType8U && dstType == wzType16U) {
        avx2 = u8ToU16Avx2;
        avx512 = u8ToU16Avx512;
    } else if (srcType == wzType16U && dstType == wzType8U) {
        avx2 = u16ToU8Avx2;
        avx512 = u16ToU8Avx512;
    } else {
        return false;
    }
    // The vector walk equals the element loop when neither can read a byte
    // that the conversion has already written: disjoint blocks, or a
    // destination that starts at or after the source when widening (the
    // walk runs backwards) and at or before it when narrowing.
    const int64_t ss = elementSize(srcType);
    const int64_t ds = elementSize(dstType);
    const bool ordered = ds > ss ? atOrBefore(src, dst) : atOrBefore(dst, src);
    if (!ordered && !disjoint(src, static_cast<size_t>(n * ss), dst, static_cast<size_t>(n * ds)))
        return false;
    switch (kernelIsa(isa, false)) {
        case Isa::Avx512: avx512(src, dst, n); return true;
        case Isa::Avx2: avx2(src, dst, n); return true;
        case Isa::Portable: return false;
    }
    return false;
}

#endif  // MORVEN_X86_KERNELS

// Calls f(sourceTag, destinationTag) once for a pair of known type codes.
template <typename Fn>
void dispatchPair(uint32_t srcType, uint32_t dstType, Fn &&f) {
    dispatchType(srcType, [&](auto s) { dispatchType(dstType, [&](auto d) { f(s, d); }); });
}

}  // namespace

void morven::convertElements(Isa isa, uint32_t srcType, uint32_t dstType, const uint8_t *src,
                             uint8_t *dst, int64_t n) {
#if MORVEN_X86_KERNELS
    if (convertVector(isa, srcType, dstType, src, dst, n)) return;
#else
    (void)isa;
#endif
    dispatchPair(srcType, dstType, [&](auto s, auto d) {
        using S = decltype(s);
        using D = decltype(d);
        if constexpr (S::code != D::code) convertBlock<S, D>(src, dst, n);
    });
}

extern "C" {

MORVEN_API wzStatus wzImageCvtType(const wzImage *src, wzImage *dst) {
    if (src->encoding != dst->encoding) return WZ_STATUS_ERROR;
    const int64_t n = elementCount(src->height, src->width, channelCount(src->encoding),
                                   widerSize(src->type, dst->type));
    if (n < 1) return WZ_STATUS_OK;
    if (src->type == dst->type) {
        // The blocks may be one and the same. An unknown type copies nothing.
        if (isKnownType(src->type))
            std::memmove(dst->data, src->data, static_cast<size_t>(n * elementSize(src->type)));
        return WZ_STATUS_OK;
    }
    convertElements(bestIsa(), src->type, dst->type, src->data, dst->data, n);
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzImageCvtTypeGivenRange(const wzImage *src, wzImage *dst, double low,
                                             double high) {
    if (src->width != dst->width || !(high > low) || src->height != dst->height ||
        !isKnownType(src->type) || !isKnownType(dst->type))
        return WZ_STATUS_ERROR;
    const int32_t channels = channelCount(src->encoding);
    if (channelCount(dst->encoding) < channels) return WZ_STATUS_ERROR;
    const int64_t n =
        elementCount(src->height, src->width, channels, widerSize(src->type, dst->type));
    if (n < 1) return WZ_STATUS_OK;
    const double span = high - low;
    dispatchPair(src->type, dst->type, [&](auto s, auto d) {
        using ST = typename decltype(s)::T;
        using DT = typename decltype(d)::T;
        const uint8_t *sp = src->data;
        uint8_t *dp = dst->data;
        if constexpr (std::is_floating_point_v<DT>) {
            for (int64_t i = 0; i < n; ++i, sp += sizeof(ST), dp += sizeof(DT)) {
                double t = (static_cast<double>(loadElement<ST>(sp)) - low) / span;
                t = t < 0.0 ? 0.0 : (t > 1.0 ? 1.0 : t);
                storeRaw<DT>(dp, static_cast<DT>(t));
            }
        } else {
            constexpr double fs = decltype(d)::fullScale;
            for (int64_t i = 0; i < n; ++i, sp += sizeof(ST), dp += sizeof(DT)) {
                double r = (static_cast<double>(loadElement<ST>(sp)) - low) / span * fs;
                r = r < 0.0 ? 0.0 : (r > fs ? fs : r);
                storeRaw<DT>(dp, storeInteger<DT>(r));
            }
        }
    });
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzImageThreshold(const wzImage *src, wzImage *dst, double low, double high) {
    if (src->width != dst->width || src->height != dst->height || !isKnownType(src->type) ||
        !isKnownType(dst->type))
        return WZ_STATUS_ERROR;
    const int64_t n = elementCount(dst->height, dst->width, 1, widerSize(src->type, dst->type));
    if (n < 1) return WZ_STATUS_OK;
    dispatchPair(src->type, dst->type, [&](auto s, auto d) {
        using S = decltype(s);
        using D = decltype(d);
        using ST = typename S::T;
        using DT = typename D::T;
        constexpr double white = D::fullScale;
        constexpr double ratio = D::fullScale / S::fullScale;
        const uint8_t *sp = src->data;
        uint8_t *dp = dst->data;
        for (int64_t i = 0; i < n; ++i, sp += sizeof(ST), dp += sizeof(DT)) {
            const double v = static_cast<double>(loadElement<ST>(sp));
            const double r = v > high ? white : (v < low ? 0.0 : v * ratio);
            storeRaw<DT>(dp, storeElement<DT>(r));
        }
    });
    return WZ_STATUS_OK;
}

}  // extern "C"
