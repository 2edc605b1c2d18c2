// Table look-ups on x86-64 (the plain loop and the plan are in lut.cpp).
//
// AVX-512 VBMI indexes a 256-entry table held in four registers with two
// 128-byte two-source permutes and picks by the index's top bit; AVX2 runs
// sixteen 16-entry shuffles over slices of the table. Interleaved pixels
// whose channels use different tables are looked up per table and merged by
// lane masks (AVX-512) or split into planes first (AVX2).
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
MORVEN_AVX512VBMI inline __m512i lutVector512(const Table512 *t, const __mmask64 *use, __m512i idx) {
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

// t[x] for 32 indices. A shuffle yields 0 where its index has bit 7 set, so
// with t = x - 16 k a lane of x < 128 picks up the slices k = 0 .. x / 16 and
// nothing else; the same walk over x ^ 0x80 serves the upper half. Bit 7 of
// x chooses between the two.
MORVEN_AVX2 inline __m256i lookup256(const Table256 &t, __m256i x) {
    const __m256i sixteen = _mm256_set1_epi8(16);
    __m256i lo = x;
    __m256i hi = _mm256_xor_si256(x, _mm256_set1_epi8(static_cast<char>(0x80)));
    __m256i a = _mm256_shuffle_epi8(t.d[0], lo);
    __m256i b = _mm256_shuffle_epi8(t.d[8], hi);
    for (int k = 1; k < 8; ++k) {
        lo = _mm256_sub_epi8(lo, sixteen);
        hi = _mm256_sub_epi8(hi, sixteen);
        a = _mm256_xor_si256(a, _mm256_shuffle_epi8(t.d[k], lo));
        b = _mm256_xor_si256(b, _mm256_shuffle_epi8(t.d[8 + k], hi));
    }
    return _mm256_blendv_epi8(a, b, x);
}

// 0xFF in the lanes whose destination byte stays: byte j of the vector lies
// at offset off + j of the row (off + j % 16 when both lanes cover the same
// positions).
MORVEN_AVX2 inline __m256i keepMask256(const LutPlan &plan, int stride, size_t off, bool sameLanes) {
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
    size_t off = 0;
    if (!plan.keeps) {
        for (; off + 64 <= bytes; off += 64) {
            const __m256i r0 = lookup256(t, load256(src + off));
            const __m256i r1 = lookup256(t, load256(src + off + 32));
            store256(dst + off, r0);
            store256(dst + off + 32, r1);
        }
        for (; off + 32 <= bytes; off += 32) store256(dst + off, lookup256(t, load256(src + off)));
        // Byte by byte to the end: the vector part need not stop between pixels.
        for (; off < bytes; ++off) dst[off] = plan.tables[0][src[off]];
        return off;
    }
    // 32 bytes hold whole 4-byte pixels, 96 bytes whole 3-byte ones.
    const int period = stride == 3 ? 3 : 1;
    __m256i keep[3];
    for (int q = 0; q < period; ++q) keep[q] = keepMask256(plan, stride, 32 * static_cast<size_t>(q), false);
    const size_t group = 32 * static_cast<size_t>(period);
    for (; off + group <= bytes; off += group)
        for (int q = 0; q < period; ++q) {
            const size_t o = off + 32 * static_cast<size_t>(q);
            const __m256i r = lookup256(t, load256(src + o));
            store256(dst + o, _mm256_blendv_epi8(r, load256(dst + o), keep[q]));
        }
    return off;
}

// 3-byte pixels with several tables: 32 pixels per step, split into planes
// in two 48-byte lanes.
MORVEN_AVX2 size_t lutPixels3Split256(const Table256 *tabs, const LutPlan &plan, const uint8_t *src,
                                      uint8_t *dst, size_t pixels) {
    // Both lanes of output vector o cover bytes 16 o .. 16 o + 15 of a
    // 48-byte group.
    __m256i keep[3];
    for (int o = 0; o < 3; ++o)
        keep[o] = plan.keeps ? keepMask256(plan, 3, 16 * static_cast<size_t>(o), true) : _mm256_setzero_si256();
    size_t i = 0;
    for (; i + 32 <= pixels; i += 32) {
        const uint8_t *s = src + 3 * i;
        uint8_t *d = dst + 3 * i;
        __m256i v[3], plane[3];
        loadPixels3(s, v);
        for (int p = 0; p < 3; ++p) {
            plane[p] = plane3(v, p);
            if (plan.slot[p] >= 0) plane[p] = lookup256(tabs[plan.slot[p]], plane[p]);
        }
        for (int o = 0; o < 3; ++o) {
            __m256i r = merge3(plane, o);
            if (plan.keeps) r = _mm256_blendv_epi8(r, load2x128(d + 16 * o, d + 48 + 16 * o), keep[o]);
            store2x128(d + 16 * o, d + 48 + 16 * o, r);
        }
    }
    return i;
}

// 4-byte pixels with several tables: 32 pixels per step; each lane's four
// pixels are gathered by position into dwords, then a 4 x 4 dword transpose
// across the four vectors gives one plane per position (and undoes itself).
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
    // Byte transpose of a 4 x 4 block: its own inverse.
    const __m256i gather = _mm256_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15, 0,
                                            4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
    const __m256i keep = plan.keeps ? keepMask256(plan, 4, 0, false) : _mm256_setzero_si256();
    size_t i = 0;
    for (; i + 32 <= pixels; i += 32) {
        const uint8_t *s = src + 4 * i;
        uint8_t *d = dst + 4 * i;
        __m256i p[4];
        for (int k = 0; k < 4; ++k) p[k] = _mm256_shuffle_epi8(load256(s + 32 * k), gather);
        transpose4(p[0], p[1], p[2], p[3]);
        for (int k = 0; k < 4; ++k)
            if (plan.slot[k] >= 0) p[k] = lookup256(tabs[plan.slot[k]], p[k]);
        transpose4(p[0], p[1], p[2], p[3]);
        for (int k = 0; k < 4; ++k) {
            __m256i r = _mm256_shuffle_epi8(p[k], gather);
            if (plan.keeps) r = _mm256_blendv_epi8(r, load256(d + 32 * k), keep);
            store256(d + 32 * k, r);
        }
    }
    return i;
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

MORVEN_AVX2 void lutRowAvx2(const LutLayout &layout, const uint8_t *src, uint8_t *dst, size_t pixels) {
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
