// Instruction sets and what this processor offers. One binary runs on any
// x86-64: the AVX2 and AVX-512 kernels are compiled with target attributes
// (x86.hpp) and chosen at run time from the processor model that the
// compiler runtime reads at start-up. ARM64 always has Advanced SIMD (NEON is
// part of the base architecture), so its kernels need no run-time check.
// Nothing here keeps state of its own.
#pragma once

namespace morven {

enum class Isa {
    Portable,  // the plain loops, on every processor
    Avx2,      // x86-64 AVX2
    Avx512,  // x86-64 AVX-512 F, BW, VL (and VBMI where a kernel needs it and the processor has it)
    Neon,    // ARM64 Advanced SIMD
};

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define MORVEN_X86 1
#else
#define MORVEN_X86 0
#endif

#if defined(__aarch64__) && defined(__ARM_NEON)
#define MORVEN_NEON 1
#else
#define MORVEN_NEON 0
#endif

inline bool cpuHasAvx2() noexcept {
#if MORVEN_X86
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
#else
    return false;
#endif
}

inline bool cpuHasAvx512() noexcept {
#if MORVEN_X86
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
           __builtin_cpu_supports("avx512vl");
#else
    return false;
#endif
}

inline bool cpuHasAvx512Vbmi() noexcept {
#if MORVEN_X86
    return cpuHasAvx512() && __builtin_cpu_supports("avx512vbmi");
#else
    return false;
#endif
}

// Whether kernels built for `isa` run here (tests use it to try every
// variant the machine has).
inline bool isaAvailable(Isa isa) noexcept {
    switch (isa) {
        case Isa::Portable: return true;
        case Isa::Avx2: return cpuHasAvx2();
        case Isa::Avx512: return cpuHasAvx512();
        case Isa::Neon: return MORVEN_NEON != 0;
    }
    return false;
}

// The best instruction set this processor runs.
inline Isa bestIsa() noexcept {
    if (MORVEN_NEON) return Isa::Neon;
    if (cpuHasAvx512()) return Isa::Avx512;
    if (cpuHasAvx2()) return Isa::Avx2;
    return Isa::Portable;
}

}  // namespace morven
