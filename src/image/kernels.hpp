// Row and block kernels of the image core, with vector variants chosen at run
// time. Each kernel takes the instruction set to use: the library passes
// bestIsa(), tests pass every set the processor has. Every variant writes
// exactly the bytes of the portable loop; a set that a kernel has no variant
// for (or that the processor lacks a needed extension of) runs the nearest
// lower variant.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/cpu.hpp"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
// GCC 12 reports the deliberately undefined pass-through operands inside the
// AVX-512 intrinsics as uninitialised; the reports point into the header.
#if !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>
#if !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#define MORVEN_X86_KERNELS 1
#define MORVEN_TARGET_AVX2 __attribute__((target("avx2")))
#define MORVEN_TARGET_AVX512 __attribute__((target("avx2,avx512f,avx512bw,avx512vl")))
#define MORVEN_TARGET_AVX512VBMI \
    __attribute__((target("avx2,avx512f,avx512bw,avx512vl,avx512vbmi")))
#else
#define MORVEN_X86_KERNELS 0
#endif

namespace morven {

// The variant that `isa` selects for a kernel with portable, AVX2 and
// AVX-512 (VBMI when `needsVbmi`) forms: falls back when the processor lacks
// what the requested form needs.
inline Isa kernelIsa(Isa isa, bool needsVbmi) noexcept {
    if (isa == Isa::Avx512 && (!cpuHasAvx512() || (needsVbmi && !cpuHasAvx512Vbmi())))
        isa = Isa::Avx2;
    if (isa == Isa::Avx2 && !cpuHasAvx2()) isa = Isa::Portable;
    return isa;
}

// True when the byte ranges [a, a + na) and [b, b + nb) share no byte.
inline bool disjoint(const uint8_t *a, size_t na, const uint8_t *b, size_t nb) noexcept {
    const auto pa = reinterpret_cast<uintptr_t>(a);
    const auto pb = reinterpret_cast<uintptr_t>(b);
    return pa + na <= pb || pb + nb <= pa;
}

// True when address a is at or before address b (blocks of one buffer or not).
inline bool atOrBefore(const uint8_t *a, const uint8_t *b) noexcept {
    return reinterpret_cast<uintptr_t>(a) <= reinterpret_cast<uintptr_t>(b);
}

// ---------------------------------------------------------------------------
// Table look-up over interleaved 8-bit pixels (lut.cpp).

// Byte k of every pixel (k < stride) goes through table[k], a 256-entry
// table; a null table leaves that destination byte as it was.
struct LutLayout {
    int32_t stride;  // bytes per pixel: 1, 3 or 4
    const uint8_t *table[4];
};

// dst = table[src] byte by byte over `pixels` pixels of the layout. The two
// rows are the same bytes (in place) or do not overlap at all.
void lutRow(Isa isa, const LutLayout &layout, const uint8_t *src, uint8_t *dst, size_t pixels);

// Histogram of byte values. Byte j (in counting order) goes to 16-bit
// table j % 8, so that runs of one value do not wait on their own stores;
// the tables are flushed into 64-bit totals every 8 * 65535 bytes, before
// any entry could wrap.
class ByteCounter {
public:
    void add(const uint8_t *p, size_t n) noexcept;
    // The totals of everything added so far.
    const uint64_t *totals() noexcept;

private:
    static constexpr unsigned kTables = 8;
    static constexpr uint32_t kWindow = kTables * 65535;
    void flush() noexcept;
    uint16_t sub_[kTables][256] = {};
    uint64_t total_[256] = {};
    uint32_t used_ = 0;  // bytes counted since the last flush
};

// ---------------------------------------------------------------------------
// Gray conversion of 8-bit pixels (cvtcolor.cpp).

// dst[i] = (T0[b] + T1[g] + T2[r]) >> 14 for `pixels` pixels of `stride`
// (3 or 4) bytes, b, g, r being the bytes at offsets[0], [1], [2] of the pixel
// and T the gray table; the destination is packed one byte per pixel.
void grayRow8(Isa isa, const uint8_t *src, int32_t stride, const ptrdiff_t offsets[3], uint8_t *dst,
              size_t pixels);

// ---------------------------------------------------------------------------
// Element-type conversion (cvttype.cpp).

// Converts n elements from srcType to dstType (distinct known type codes) by
// the rule of wzImageCvtType, in its order: wider destinations from the last
// element to the first, narrower ones from the first. Pairs 8U <-> 32F and
// 8U <-> 16U have vector forms; they run only when the order of the vector
// walk cannot change the result (the blocks do not overlap, or the
// destination starts at or after the source when widening, at or before it
// when narrowing); other cases run the element loop.
void convertElements(Isa isa, uint32_t srcType, uint32_t dstType, const uint8_t *src, uint8_t *dst,
                     int64_t n);

}  // namespace morven
