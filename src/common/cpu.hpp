// Run-time instruction-set selection. Vector kernels sit beside the plain
// loop they must equal and are chosen per call from what the processor
// offers, so one binary runs on any x86-64 (and ARM64 takes the portable
// path). The query reads the compiler runtime's processor model; the library
// caches nothing itself.
#pragma once

namespace morven {

enum class Isa {
    Portable,  // the plain loop
    Avx2,      // x86-64 AVX2
    Avx512,    // x86-64 AVX-512 F, BW, VL (and VBMI where a kernel says so)
};

inline bool cpuHasAvx2() noexcept {
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
#else
    return false;
#endif
}

inline bool cpuHasAvx512() noexcept {
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
           __builtin_cpu_supports("avx512vl");
#else
    return false;
#endif
}

inline bool cpuHasAvx512Vbmi() noexcept {
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
    return cpuHasAvx512() && __builtin_cpu_supports("avx512vbmi");
#else
    return false;
#endif
}

// The best instruction set of the three that this processor runs.
inline Isa bestIsa() noexcept {
    if (cpuHasAvx512()) return Isa::Avx512;
    if (cpuHasAvx2()) return Isa::Avx2;
    return Isa::Portable;
}

// Whether a kernel built for `isa` may run here (tests use it to try every
// variant the machine has).
inline bool isaAvailable(Isa isa) noexcept {
    switch (isa) {
        case Isa::Portable: return true;
        case Isa::Avx2: return cpuHasAvx2();
        case Isa::Avx512: return cpuHasAvx512();
    }
    return false;
}

}  // namespace morven
