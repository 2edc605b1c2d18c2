// Table look-ups on x86-64 (the plain loop and the plan are in lut.cpp).
//
// AVX-512 VBMI indexes a 256-entry table held in four registers with two
// 128-byte two-source permutes and picks by the index's top bit; AVX2 runs
// sixteen 16-entry shuffles over slices of the table, half a table at a time
// over chunks of a row. Interleaved pixels whose channels use different
// tables are looked up per table and merged by lane masks (AVX-512) or split
// into planes first (AVX2).
#include <algorithm>

#include "kernels/variants.hpp"
#include "kernels/x86.hpp"

#if MORVEN_X86

namespace morven::kernels {
namespace {

using namespace x86;

// ----------------------------------------------------------------- AVX-512

struct Table512 {
    __m512i q[4];
};

MORVEN_AVX512VBMI inline Table512 loadTable512(const uint8_t *t) {
    return Table512{{_mm512_loadu_si512(t), _mm512_loadu_si512(t + 64), _mm512_loadu_si512(t + 128),
                     _mm512_loadu_si512(t + 192)}};
}

// t[idx] for 64 indices: entries 0..127 and 128..255 by 7-bit permutes,
// chosen by bit 7 of each index.
MORVEN_AVX512VBMI inline __m512i lookup512(const Table512 &t, __m512i idx) {
    const __m512i lo = _mm512_permutex2var_epi8(t.q[0], idx, t.q[1]);
    const __m512i hi = _mm512_permutex2var_epi8(t.q[2], idx, t.q[3]);
    return _mm512_mask_blend_epi8(_mm512_movepi8_mask(idx), lo, hi);
}

// Lane masks of one call: byte j of vector q of a group lies at byte
// 64 q + j, so at pixel position (64 q + j) % stride. A group is three vectors
// for 3-byte pixels and one otherwise.
struct Masks512 {
    int period;
    __mmask64 use[3][3];  // [phase][table]: lanes that take that table
    __mmask64 write[3];   // [phase]: lanes with a table
    bool writeAll;
};

Masks512 masksOf(const LutLayout &layout, const LutPlan &plan) {
    Masks512 m{};
    m.period = layout.stride == 3 ? 3 : 1;
    m.writeAll = !plan.keeps;
    for (int q = 0; q < m.period; ++q)
        for (int j = 0; j < 64; ++j) {
            const int slot = plan.slot[(64 * q + j) % layout.stride];
            if (slot < 0) continue;
            m.use[q][slot] |= __mmask64{1} << j;
            m.write[q] |= __mmask64{1} << j;
        }
    return m;
}

template <int NT>
MORVEN_AVX512VBMI inline __m512i lutVector512(const Table512 *t, const __mmask64 *use,
                                              __m512i idx) {
    __m512i r = lookup512(t[0], idx);
    for (int k = 1; k < NT; ++k) r = _mm512_mask_blend_epi8(use[k], r, lookup512(t[k], idx));
    return r;
}

template <int NT>
MORVEN_AVX512VBMI void lutBytes512(const Table512 *t, const Masks512 &m, const uint8_t *src,
                                   uint8_t *dst, size_t bytes) {
    const size_t group = 64 * static_cast<size_t>(m.period);
    size_t off = 0;
    for (; off + group <= bytes; off += group)
        for (int q = 0; q < m.period; ++q) {
            const size_t o = off + 64 * static_cast<size_t>(q);
            const __m512i r = lutVector512<NT>(t, m.use[q], _mm512_loadu_si512(src + o));
            if (m.writeAll)
                _mm512_storeu_si512(dst + o, r);
            else
                _mm512_mask_storeu_epi8(dst + o, m.write[q], r);
        }
    // The last partial group, vector by vector; masked loads and stores touch
    // no byte past the row.
    for (int q = 0; off < bytes; ++q, off += 64) {
        const __mmask64 live = firstBytes(bytes - off);
        const __m512i r = lutVector512<NT>(t, m.use[q], _mm512_maskz_loadu_epi8(live, src + off));
        _mm512_mask_storeu_epi8(dst + off, live & m.write[q], r);
    }
}

// -------------------------------------------------------------------- AVX2

// Sixteen slices of 16 entries, each in both lanes. Within each half of the
// table the slices are stored as differences (slice k xor slice k - 1), so
// that xor-ing the shuffles of slices 0..h gives slice h.
struct Table256 {
    __m256i d[16];
};

MORVEN_AVX2 inline Table256 loadTable256(const uint8_t *t) {
    Table256 out;
    __m128i prev = _mm_setzero_si128();
    for (int k = 0; k < 16; ++k) {
        const __m128i s = load128(t + 16 * k);
        if (k == 8) prev = _mm_setzero_si128();
        out.d[k] = _mm256_broadcastsi128_si256(_mm_xor_si128(s, prev));
        prev = s;
    }
    return out;
}

// One half of a look-up: slices[0..7] of one half of the table for the
// indices idx (x, or x ^ 0x80 for the upper half). A shuffle yields 0 where
// its index has bit 7 set, so with idx - 16 k a lane of idx < 128 picks up
// the slices k = 0 .. idx / 16 and nothing else.
MORVEN_AVX2 inline __m256i lookupHalf(const __m256i *slices, __m256i idx) {
    const __m256i sixteen = _mm256_set1_epi8(16);
    __m256i a = _mm256_shuffle_epi8(slices[0], idx);
    for (int k = 1; k < 8; ++k) {
        idx = _mm256_sub_epi8(idx, sixteen);
        a = _mm256_xor_si256(a, _mm256_shuffle_epi8(slices[k], idx));
    }
    return a;
}

// Bytes are looked up in chunks: a whole table does not fit in the sixteen
// vector registers, so each half of it stays in registers over the chunk
// (the lower half into a scratch row, then the upper half, chosen by bit 7
// of the index). A chunk holds whole 3- and 4-byte pixels in whole vectors.
constexpr size_t kChunk = 1536;

// dst[i] = t[src[i]] for n bytes (a multiple of 32, at most kChunk); dst
// may be src.
MORVEN_AVX2 void lookupBytes256(const Table256 &t, const uint8_t *src, uint8_t *dst, size_t n) {
    alignas(32) uint8_t low[kChunk];
    {
        __m256i slices[8];
        for (int k = 0; k < 8; ++k) slices[k] = t.d[k];
        for (size_t i = 0; i < n; i += 32) store256(low + i, lookupHalf(slices, load256(src + i)));
    }
    __m256i slices[8];
    for (int k = 0; k < 8; ++k) slices[k] = t.d[8 + k];
    const __m256i top = _mm256_set1_epi8(static_cast<char>(0x80));
    for (size_t i = 0; i < n; i += 32) {
        const __m256i x = load256(src + i);
        const __m256i high = lookupHalf(slices, _mm256_xor_si256(x, top));
        store256(dst + i, _mm256_blendv_epi8(load256(low + i), high, x));
    }
}

// 0xFF in the lanes whose destination byte stays: byte j of the vector lies
// at offset off + j of the row (off + j % 16 when both lanes cover the same
// positions).
MORVEN_AVX2 inline __m256i keepMask256(const LutPlan &plan, int stride, size_t off,
                                       bool sameLanes) {
    alignas(32) uint8_t m[32];
    for (int j = 0; j < 32; ++j)
        m[j] = plan.slot[(off + (sameLanes ? j % 16 : j)) % stride] < 0 ? 0xFF : 0;
    return load256(m);
}

// One table for every looked-up byte: the row is a plain byte stream, with
// the kept bytes restored from the destination. Returns the bytes done, a
// whole number of pixels.
MORVEN_AVX2 size_t lutBytesOneTable256(const Table256 &t, const LutPlan &plan, int stride,
                                       const uint8_t *src, uint8_t *dst, size_t bytes) {
    // With kept bytes a step is 32 bytes of 4-byte pixels or 96 bytes of
    // 3-byte ones (whole pixels, over which the keep masks repeat); kChunk
    // is a whole number of steps.
    const int period = stride == 3 ? 3 : 1;
    const size_t step = plan.keeps ? 32 * static_cast<size_t>(period) : 32;
    __m256i keep[3];
    for (int q = 0; q < period; ++q)
        keep[q] = keepMask256(plan, stride, 32 * static_cast<size_t>(q), false);
    alignas(32) uint8_t out[kChunk];
    size_t off = 0;
    while (bytes - off >= step) {
        const size_t n = std::min(kChunk, (bytes - off) / step * step);
        if (!plan.keeps) {
            lookupBytes256(t, src + off, dst + off, n);
        } else {
            lookupBytes256(t, src + off, out, n);
            for (size_t i = 0; i < n; i += 32)
                store256(dst + off + i, _mm256_blendv_epi8(load256(out + i), load256(dst + off + i),
                                                           keep[(i / 32) % period]));
        }
        off += n;
    }
    // Without kept bytes, byte by byte to the end (the vector part need not
    // stop between pixels); with them the caller finishes the pixels.
    if (!plan.keeps)
        for (; off < bytes; ++off) dst[off] = plan.tables[0][src[off]];
    return off;
}

// 3-byte pixels with several tables: chunks of 512 pixels are split into
// three planes, each plane is looked up through its table, and the planes
// are merged back (kept positions from the destination). Returns the
// pixels done.
MORVEN_AVX2 size_t lutPixels3Split256(const Table256 *tabs, const LutPlan &plan, const uint8_t *src,
                                      uint8_t *dst, size_t pixels) {
    constexpr size_t kPixels = kChunk / 3;
    // Both lanes of output vector o cover bytes 16 o .. 16 o + 15 of a
    // 48-byte group.
    __m256i keep[3];
    for (int o = 0; o < 3; ++o)
        keep[o] = plan.keeps ? keepMask256(plan, 3, 16 * static_cast<size_t>(o), true)
                             : _mm256_setzero_si256();
    alignas(32) uint8_t planes[3][kPixels];
    size_t done = 0;
    while (pixels - done >= 32) {
        const size_t n = std::min(kPixels, (pixels - done) & ~size_t{31});
        const uint8_t *s = src + 3 * done;
        uint8_t *d = dst + 3 * done;
        for (size_t i = 0; i < n; i += 32) {
            __m256i v[3];
            loadPixels3(s + 3 * i, v);
            for (int p = 0; p < 3; ++p) store256(planes[p] + i, plane3(v, p));
        }
        for (int p = 0; p < 3; ++p)
            if (plan.slot[p] >= 0) lookupBytes256(tabs[plan.slot[p]], planes[p], planes[p], n);
        for (size_t i = 0; i < n; i += 32) {
            const __m256i plane[3] = {load256(planes[0] + i), load256(planes[1] + i),
                                      load256(planes[2] + i)};
            uint8_t *q = d + 3 * i;
            for (int o = 0; o < 3; ++o) {
                __m256i r = merge3(plane, o);
                if (plan.keeps)
                    r = _mm256_blendv_epi8(r, load2x128(q + 16 * o, q + 48 + 16 * o), keep[o]);
                store2x128(q + 16 * o, q + 48 + 16 * o, r);
            }
        }
        done += n;
    }
    return done;
}

// 4-byte pixels with several tables: each lane's four pixels are gathered
// by position into dwords, then a 4 x 4 dword transpose across four vectors
// gives one plane per position (and undoes itself); chunks of 384 pixels
// go through planes as with 3-byte pixels.
MORVEN_AVX2 inline void transpose4(__m256i &a, __m256i &b, __m256i &c, __m256i &d) {
    const __m256i t0 = _mm256_unpacklo_epi32(a, b);
    const __m256i t1 = _mm256_unpackhi_epi32(a, b);
    const __m256i t2 = _mm256_unpacklo_epi32(c, d);
    const __m256i t3 = _mm256_unpackhi_epi32(c, d);
    a = _mm256_unpacklo_epi64(t0, t2);
    b = _mm256_unpackhi_epi64(t0, t2);
    c = _mm256_unpacklo_epi64(t1, t3);
    d = _mm256_unpackhi_epi64(t1, t3);
}

MORVEN_AVX2 size_t lutPixels4Split256(const Table256 *tabs, const LutPlan &plan, const uint8_t *src,
                                      uint8_t *dst, size_t pixels) {
    constexpr size_t kPixels = kChunk / 4;
    // Byte transpose of a 4 x 4 block: its own inverse.
    const __m256i gather = _mm256_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15, 0,
                                            4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
    const __m256i keep = plan.keeps ? keepMask256(plan, 4, 0, false) : _mm256_setzero_si256();
    alignas(32) uint8_t planes[4][kPixels];
    size_t done = 0;
    while (pixels - done >= 32) {
        const size_t n = std::min(kPixels, (pixels - done) & ~size_t{31});
        const uint8_t *s = src + 4 * done;
        uint8_t *d = dst + 4 * done;
        for (size_t i = 0; i < n; i += 32) {
            __m256i p[4];
            for (int k = 0; k < 4; ++k)
                p[k] = _mm256_shuffle_epi8(load256(s + 4 * i + 32 * k), gather);
            transpose4(p[0], p[1], p[2], p[3]);
            for (int k = 0; k < 4; ++k) store256(planes[k] + i, p[k]);
        }
        for (int k = 0; k < 4; ++k)
            if (plan.slot[k] >= 0) lookupBytes256(tabs[plan.slot[k]], planes[k], planes[k], n);
        for (size_t i = 0; i < n; i += 32) {
            __m256i p[4];
            for (int k = 0; k < 4; ++k) p[k] = load256(planes[k] + i);
            transpose4(p[0], p[1], p[2], p[3]);
            for (int k = 0; k < 4; ++k) {
                __m256i r = _mm256_shuffle_epi8(p[k], gather);
                if (plan.keeps) r = _mm256_blendv_epi8(r, load256(d + 4 * i + 32 * k), keep);
                store256(d + 4 * i + 32 * k, r);
            }
        }
        done += n;
    }
    return done;
}

}  // namespace

MORVEN_AVX512VBMI void lutRowAvx512Vbmi(const LutLayout &layout, const uint8_t *src, uint8_t *dst,
                                        size_t pixels) {
    const LutPlan plan = planOf(layout);
    if (plan.count == 0) return;
    if (plan.count > 3) {  // four tables: no vector form
        lutRowPlain(layout, src, dst, pixels);
        return;
    }
    const Masks512 m = masksOf(layout, plan);
    Table512 t[3];
    for (int k = 0; k < plan.count; ++k) t[k] = loadTable512(plan.tables[k]);
    const size_t bytes = pixels * static_cast<size_t>(layout.stride);
    switch (plan.count) {
        case 1: lutBytes512<1>(t, m, src, dst, bytes); break;
        case 2: lutBytes512<2>(t, m, src, dst, bytes); break;
        default: lutBytes512<3>(t, m, src, dst, bytes); break;
    }
}

MORVEN_AVX2 void lutRowAvx2(const LutLayout &layout, const uint8_t *src, uint8_t *dst,
                            size_t pixels) {
    const LutPlan plan = planOf(layout);
    if (plan.count == 0) return;
    const size_t stride = static_cast<size_t>(layout.stride);
    size_t done = 0;  // pixels
    if (plan.count == 1) {
        const Table256 t = loadTable256(plan.tables[0]);
        done = lutBytesOneTable256(t, plan, layout.stride, src, dst, pixels * stride) / stride;
    } else if (plan.count <= 3 && (stride == 3 || stride == 4)) {
        Table256 t[3];
        for (int k = 0; k < plan.count; ++k) t[k] = loadTable256(plan.tables[k]);
        done = stride == 3 ? lutPixels3Split256(t, plan, src, dst, pixels)
                           : lutPixels4Split256(t, plan, src, dst, pixels);
    }
    if (done < pixels) lutRowPlain(layout, src + done * stride, dst + done * stride, pixels - done);
}

}  // namespace morven::kernels

#endif  // MORVEN_X86
