// Contrast enhancement: parameter and statistics records, the brightness
// histogram and the levels tone curve.
//
// The curve is computed in single precision exactly as documented in
// contrast.h: sums from 0 in the documented order, strict comparisons,
// products rounded on their own (the library is built without fused
// multiply-adds).
#include <cstdlib>
#include <cstring>

#include "common/cancel.hpp"
#include "common/memory.hpp"
#include "contrast/kernels.hpp"
#include "image/image_internal.hpp"
#include "image/kernels.hpp"
#include "morven/contrast.h"

using namespace morven;

namespace {

// Pixel counts are kept as integers and turned into float bins at the end.
// A float bin grown by 1.0f stops at 2^24 (2^24 + 1 rounds back to even), so
// saturating there gives the same bins as counting in float.
void storeCounts(const uint64_t *counts, float *hist) {
    constexpr uint64_t kFloatLimit = uint64_t{1} << 24;
    for (int v = 0; v < 256; ++v)
        hist[v] = counts[v] >= kFloatLimit ? 16777216.0f : static_cast<float>(counts[v]);
}

// height * width as a wrapping signed 32-bit product, converted to float.
float pixelTotal(const wzImage &image) {
    const uint32_t product = static_cast<uint32_t>(image.height) * static_cast<uint32_t>(image.width);
    return static_cast<float>(static_cast<int32_t>(product));
}

void clearStats(wzContrastEnhanceStats &stats, const wzImage &image) {
    for (float &bin : stats.hist) bin = 0.0f;
    stats.total = pixelTotal(image);
}

inline uint8_t max3(uint8_t a, uint8_t b, uint8_t c) {
    const uint8_t ab = a > b ? a : b;
    return ab > c ? ab : c;
}

void brightnessPortable(const uint8_t *p, int32_t stride, const ptrdiff_t o[3], uint8_t *out,
                        size_t pixels) {
    for (size_t i = 0; i < pixels; ++i, p += stride) out[i] = max3(p[o[0]], p[o[1]], p[o[2]]);
}

#if MORVEN_X86_KERNELS

// Shuffle controls that gather byte p of each of the 16 three-byte pixels
// held in the same lane of three vectors (48 bytes).
struct Split3 {
    alignas(16) uint8_t c[3][3][16];  // [position][source vector]
    constexpr Split3() : c{} {
        for (int p = 0; p < 3; ++p)
            for (int v = 0; v < 3; ++v)
                for (int i = 0; i < 16; ++i) {
                    const int j = 3 * i + p - 16 * v;
                    c[p][v][i] = j >= 0 && j < 16 ? static_cast<uint8_t>(j) : 0x80;
                }
    }
};
constexpr Split3 kSplit3{};

MORVEN_TARGET_AVX2 inline __m256i load2x128(const uint8_t *lo, const uint8_t *hi) {
    return _mm256_inserti128_si256(
        _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(lo))),
        _mm_loadu_si128(reinterpret_cast<const __m128i *>(hi)), 1);
}

// 3-byte pixels hold channels 1 to 3 in some order and nothing else, so the
// brightness is the largest of the three bytes whatever the offsets. 4-byte
// pixels: the largest of the three bytes at the channel offsets, taken in
// 32-bit lanes (byte p of a pixel is the low byte of the lane shifted by 8 p).
MORVEN_TARGET_AVX2 void brightnessAvx2(const uint8_t *src, int32_t stride, const ptrdiff_t o[3],
                                       uint8_t *out, size_t pixels) {
    size_t i = 0;
    if (stride == 3) {
        __m256i ctl[3][3];
        for (int p = 0; p < 3; ++p)
            for (int v = 0; v < 3; ++v)
                ctl[p][v] = _mm256_broadcastsi128_si256(
                    _mm_load_si128(reinterpret_cast<const __m128i *>(kSplit3.c[p][v])));
        for (; i + 32 <= pixels; i += 32) {
            const uint8_t *s = src + 3 * i;
            const __m256i v0 = load2x128(s, s + 48);
            const __m256i v1 = load2x128(s + 16, s + 64);
            const __m256i v2 = load2x128(s + 32, s + 80);
            __m256i m = _mm256_setzero_si256();
            for (int p = 0; p < 3; ++p) {
                const __m256i plane =
                    _mm256_or_si256(_mm256_or_si256(_mm256_shuffle_epi8(v0, ctl[p][0]),
                                                    _mm256_shuffle_epi8(v1, ctl[p][1])),
                                    _mm256_shuffle_epi8(v2, ctl[p][2]));
                m = _mm256_max_epu8(m, plane);
            }
            _mm256_storeu_si256(reinterpret_cast<__m256i *>(out + i), m);
        }
    } else if (stride == 4) {
        const __m128i s0 = _mm_cvtsi32_si128(static_cast<int>(8 * o[0]));
        const __m128i s1 = _mm_cvtsi32_si128(static_cast<int>(8 * o[1]));
        const __m128i s2 = _mm_cvtsi32_si128(static_cast<int>(8 * o[2]));
        const __m256i low = _mm256_set1_epi32(0xFF);
        // packs interleave the lanes: put the 4-pixel groups back in order.
        const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
        for (; i + 32 <= pixels; i += 32) {
            __m256i m[4];
            for (int k = 0; k < 4; ++k) {
                const __m256i v =
                    _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + 4 * (i + 8 * k)));
                const __m256i a = _mm256_max_epu8(_mm256_srl_epi32(v, s0), _mm256_srl_epi32(v, s1));
                m[k] = _mm256_and_si256(_mm256_max_epu8(a, _mm256_srl_epi32(v, s2)), low);
            }
            const __m256i bytes = _mm256_packus_epi16(_mm256_packus_epi32(m[0], m[1]),
                                                      _mm256_packus_epi32(m[2], m[3]));
            _mm256_storeu_si256(reinterpret_cast<__m256i *>(out + i),
                                _mm256_permutevar8x32_epi32(bytes, order));
        }
    }
    brightnessPortable(src + i * static_cast<size_t>(stride), stride, o, out + i, pixels - i);
}

// AVX-512: 3-byte pixels are split into planes with two-source byte permutes
// (VBMI), 64 pixels from 192 bytes; 4-byte pixels as with AVX2, 16 per
// vector, narrowed with a truncating move. Tails use masked loads and stores.
MORVEN_TARGET_AVX512VBMI void brightnessAvx512(const uint8_t *src, int32_t stride,
                                               const ptrdiff_t o[3], uint8_t *out, size_t pixels) {
    if (stride == 3) {
        alignas(64) uint8_t lo[3][64], hi[3][64];
        __mmask64 fromC[3] = {0, 0, 0};
        for (int p = 0; p < 3; ++p)
            for (int i = 0; i < 64; ++i) {
                const int j = 3 * i + p;
                lo[p][i] = static_cast<uint8_t>(j & 127);
                hi[p][i] = static_cast<uint8_t>(j >= 128 ? j - 128 : 0);
                if (j >= 128) fromC[p] |= __mmask64{1} << i;
            }
        __m512i ilo[3], ihi[3];
        for (int p = 0; p < 3; ++p) {
            ilo[p] = _mm512_load_si512(lo[p]);
            ihi[p] = _mm512_load_si512(hi[p]);
        }
        for (size_t i = 0; i < pixels; i += 64) {
            const size_t n = pixels - i < 64 ? pixels - i : 64;
            const size_t bytes = 3 * n;
            const uint8_t *s = src + 3 * i;
            auto live = [](size_t k) { return k >= 64 ? ~__mmask64{0} : (__mmask64{1} << k) - 1; };
            const __m512i a = _mm512_maskz_loadu_epi8(live(bytes), s);
            const __m512i b = _mm512_maskz_loadu_epi8(live(bytes > 64 ? bytes - 64 : 0), s + 64);
            const __m512i c = _mm512_maskz_loadu_epi8(live(bytes > 128 ? bytes - 128 : 0), s + 128);
            __m512i m = _mm512_setzero_si512();
            for (int p = 0; p < 3; ++p) {
                __m512i plane = _mm512_permutex2var_epi8(a, ilo[p], b);
                plane = _mm512_mask_permutexvar_epi8(plane, fromC[p], ihi[p], c);
                m = _mm512_max_epu8(m, plane);
            }
            _mm512_mask_storeu_epi8(out + i, live(n), m);
        }
        return;
    }
    if (stride != 4) {
        brightnessPortable(src, stride, o, out, pixels);
        return;
    }
    const __m128i s0 = _mm_cvtsi32_si128(static_cast<int>(8 * o[0]));
    const __m128i s1 = _mm_cvtsi32_si128(static_cast<int>(8 * o[1]));
    const __m128i s2 = _mm_cvtsi32_si128(static_cast<int>(8 * o[2]));
    for (size_t i = 0; i < pixels; i += 16) {
        const size_t n = pixels - i < 16 ? pixels - i : 16;
        const __mmask16 live = static_cast<__mmask16>((1u << n) - 1);
        const __m512i v = _mm512_maskz_loadu_epi32(live, src + 4 * i);
        const __m512i a = _mm512_max_epu8(_mm512_srl_epi32(v, s0), _mm512_srl_epi32(v, s1));
        _mm512_mask_cvtepi32_storeu_epi8(out + i, live,
                                         _mm512_max_epu8(a, _mm512_srl_epi32(v, s2)));
    }
}

#endif  // MORVEN_X86_KERNELS

// Truncation toward zero clamped to 0..255 (NaN gives 0).
inline uint8_t curveEntry(float v) {
    if (!(v > 0.0f)) return 0;
    if (v >= 255.0f) return 255;
    return static_cast<uint8_t>(v);
}

}  // namespace

void morven::brightnessRow(Isa isa, const uint8_t *src, int32_t stride, const ptrdiff_t offsets[3],
                           uint8_t *out, size_t pixels) {
#if MORVEN_X86_KERNELS
    switch (kernelIsa(isa, true)) {
        case Isa::Avx512: brightnessAvx512(src, stride, offsets, out, pixels); return;
        case Isa::Avx2: brightnessAvx2(src, stride, offsets, out, pixels); return;
        case Isa::Portable: break;
    }
#else
    (void)isa;
#endif
    brightnessPortable(src, stride, offsets, out, pixels);
}

extern "C" {

MORVEN_API wzContrastEnhanceParams *wzContrastEnhanceParamsDefault(void) {
    FreePtr<wzContrastEnhanceParams> p = allocZeroed<wzContrastEnhanceParams>();
    if (!p) return nullptr;
    p->highTail = 9.0f;
    p->lowTail = 4.0f;
    p->manual = 0;
    p->manualHigh = 255;
    p->manualLow = 0;
    return p.release();
}

MORVEN_API void wzContrastEnhanceParamsRelease(wzContrastEnhanceParams **params) {
    if (!params || !*params) return;
    std::free(*params);
    *params = nullptr;
}

MORVEN_API wzContrastEnhanceStats *wzContrastEnhanceStatsCreate(void) {
    return allocZeroed<wzContrastEnhanceStats>().release();
}

MORVEN_API void wzContrastEnhanceStatsRelease(wzContrastEnhanceStats **stats) {
    if (!stats || !*stats) return;
    std::free(*stats);
    *stats = nullptr;
}

MORVEN_API void wzContrastEnhanceStatsInit(wzContrastEnhanceStats *stats, const wzImage *image) {
    clearStats(*stats, *image);
}

MORVEN_API wzStatus wzContrastEnhanceStatsRetrieve(wzContrastEnhanceStats *stats,
                                                   const wzImage *image, const uint32_t *cancel) {
    clearStats(*stats, *image);
    const int32_t n = channelCount(image->encoding);
    if (n < 1) return WZ_STATUS_ERROR;
    // An unknown type has an empty block: there is nothing to read.
    if (!isKnownType(image->type)) return WZ_STATUS_ERROR;

    // Whole block, rows packed: row y starts at y * width * n bytes.
    const int32_t rows = image->height;
    const int32_t cols = image->width > 0 ? image->width : 0;
    const size_t rowBytes = static_cast<size_t>(cols) * static_cast<size_t>(n);
    const uint8_t *row = image->data;
    ByteCounter counter;

    if (n == 1) {
        for (int32_t y = 0; y < rows; ++y, row += rowBytes) {
            if (cancelRequested(cancel)) {
                storeCounts(counter.totals(), stats->hist);
                return WZ_STATUS_CANCELLED;
            }
            counter.add(row, rowBytes);
        }
        storeCounts(counter.totals(), stats->hist);
        return WZ_STATUS_OK;
    }

    const ChannelBytes o = channelBytes(*image);
    if (rows < 1) return WZ_STATUS_OK;
    if (cancelRequested(cancel)) return WZ_STATUS_CANCELLED;
    // The rows are contiguous: brightness of a stretch of pixels into a
    // buffer, then counted.
    const Isa isa = bestIsa();
    const size_t pixels = static_cast<size_t>(rows) * static_cast<size_t>(cols);
    constexpr size_t kChunk = 4096;
    uint8_t bright[kChunk];
    for (size_t done = 0; done < pixels;) {
        const size_t k = pixels - done < kChunk ? pixels - done : kChunk;
        brightnessRow(isa, row + done * static_cast<size_t>(n), n, o.c, bright, k);
        counter.add(bright, k);
        done += k;
    }
    storeCounts(counter.totals(), stats->hist);
    return WZ_STATUS_OK;
}

MORVEN_API void wzContrastEnhanceStatsUpdate(const wzContrastEnhanceStats *from,
                                             wzContrastEnhanceStats *into) {
    for (int v = 0; v < 256; ++v) into->hist[v] += from->hist[v];
}

MORVEN_API void wzContrastEnhanceAddParamsCompute(const wzContrastEnhanceStats *stats,
                                                  const wzContrastEnhanceParams *params,
                                                  uint8_t curve[256]) {
    float low;
    float high;
    if (params->manual != 0) {
        high = static_cast<float>(params->manualHigh);
        low = static_cast<float>(params->manualLow);
    } else {
        const float highCount = (params->highTail * stats->total) / 1000.0f;
        const float lowCount = (stats->total * params->lowTail) / 1000.0f;

        int lowBin = 255;
        float sum = 0.0f;
        for (int k = 0; k < 255; ++k) {
            sum += stats->hist[k];
            if (sum > lowCount) {
                lowBin = k;
                break;
            }
        }
        int highBin = 0;
        sum = 0.0f;
        for (int k = 255; k > 0; --k) {
            sum += stats->hist[k];
            if (sum > highCount) {
                highBin = k;
                break;
            }
        }
        low = static_cast<float>(lowBin);
        high = static_cast<float>(highBin);
    }

    // Equal levels make the scale infinite: +inf above low, -inf below it and
    // NaN (0 * inf) at low itself. Spelled out rather than divided by zero,
    // with the same entries: 255 above low, 0 at or below it.
    if (high == low) {
        for (int v = 0; v < 256; ++v) curve[v] = static_cast<float>(v) > low ? 255 : 0;
        return;
    }
    const float scale = 255.0f / (high - low);
    for (int v = 0; v < 256; ++v) curve[v] = curveEntry((static_cast<float>(v) - low) * scale);
}

}  // extern "C"
