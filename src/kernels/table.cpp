// The kernel tables, one per instruction set, and their choice. They are
// constants: a call picks one from what the processor offers and keeps it
// for the call. A form that an instruction set lacks takes the next best
// (the AVX-512 table without VBMI, for instance, looks up tables with AVX2).
#include "kernels/variants.hpp"

namespace morven {
namespace {

using namespace kernels;

constexpr SvdKernels kSvdPlain{columnDotsPlain, vectorDotsPlain, columnUpdatesPlain,
                               reflectRowsPlain, rotatePlain};

constexpr Kernels kPlain{Isa::Portable,  lutRowPlain,    grayRowPlain,     brightnessRowPlain,
                         u8ToF32Plain,   f32ToU8Plain,   u8ToU16Plain,     u16ToU8Plain,
                         smoothRowPlain, quotientsPlain, readChannelPlain, writeChannelPlain,
                         productPlain,   kSvdPlain};

#if MORVEN_X86
constexpr SvdKernels kSvdAvx2{columnDotsAvx2, vectorDotsAvx2, columnUpdatesAvx2, reflectRowsAvx2,
                              rotateAvx2};

constexpr Kernels kAvx2{Isa::Avx2,     lutRowAvx2,    grayRowAvx2,     brightnessRowAvx2,
                        u8ToF32Avx2,   f32ToU8Avx2,   u8ToU16Avx2,     u16ToU8Avx2,
                        smoothRowAvx2, quotientsAvx2, readChannelAvx2, writeChannelAvx2,
                        productAvx2,   kSvdAvx2};

// AVX-512 F, BW, VL; table look-ups and the brightness of 3-byte pixels
// need VBMI as well.
constexpr Kernels kAvx512{Isa::Avx512,     lutRowAvx2,      grayRowAvx512,   brightnessRowAvx2,
                          u8ToF32Avx512,   f32ToU8Avx512,   u8ToU16Avx512,   u16ToU8Avx512,
                          smoothRowAvx512, quotientsAvx512, readChannelAvx2, writeChannelAvx2,
                          productAvx2,     kSvdAvx2};

constexpr Kernels kAvx512Vbmi{
    Isa::Avx512,     lutRowAvx512Vbmi, grayRowAvx512,   brightnessRowAvx512Vbmi,
    u8ToF32Avx512,   f32ToU8Avx512,    u8ToU16Avx512,   u16ToU8Avx512,
    smoothRowAvx512, quotientsAvx512,  readChannelAvx2, writeChannelAvx2,
    productAvx2,     kSvdAvx2};
#endif

#if MORVEN_NEON
// The matrix loops are the plain ones: on ARM64 their 128-bit vectors are
// Advanced SIMD already.
constexpr Kernels kNeon{Isa::Neon,     lutRowNeon,    grayRowNeon,     brightnessRowNeon,
                        u8ToF32Neon,   f32ToU8Neon,   u8ToU16Neon,     u16ToU8Neon,
                        smoothRowNeon, quotientsNeon, readChannelNeon, writeChannelNeon,
                        productPlain,  kSvdPlain};
#endif

}  // namespace

const Kernels &kernelsFor(Isa isa) noexcept {
    if (!isaAvailable(isa)) return kPlain;
    switch (isa) {
#if MORVEN_X86
        case Isa::Avx2: return kAvx2;
        case Isa::Avx512: return cpuHasAvx512Vbmi() ? kAvx512Vbmi : kAvx512;
#endif
#if MORVEN_NEON
        case Isa::Neon: return kNeon;
#endif
        default: return kPlain;
    }
}

}  // namespace morven
