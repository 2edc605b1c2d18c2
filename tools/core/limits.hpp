// The largest inputs the tool accepts. Every decoder checks the size a file
// declares against these before it allocates any pixel memory.
#pragma once

#include <bit>
#include <cstdint>
#include <string>

#include "common.hpp"

namespace morven::tool {

// Each side at most 65535 pixels and at most 2^28 pixels in all (1 GiB of
// 8-bit RGBA samples, 2 GiB of 16-bit ones).
constexpr uint32_t kMaxSide = 65535;
#ifndef FUZZING_BUILD_MODE_UNSAFE_FOR_PRODUCTION
constexpr uint64_t kMaxPixels = uint64_t{1} << 28;
#else
// Fuzzing runs under a 2 GiB memory limit, which a legal 16-bit RGBA picture
// would exceed; the decoders' checks are the same at a sixteenth of the size.
constexpr uint64_t kMaxPixels = uint64_t{1} << 24;
#endif
// Largest file read into memory.
constexpr uint64_t kMaxFileBytes = uint64_t{1} << 31;
// Largest ICC profile or metadata block kept from a file.
constexpr uint64_t kMaxEmbeddedBytes = uint64_t{1} << 24;

// "65535 pixels per side, 2^28 pixels in all", for messages and help.
inline std::string describeLimits() {
    return std::to_string(kMaxSide) + " pixels per side, 2^" +
           std::to_string(std::countr_zero(kMaxPixels)) + " pixels in all";
}

// Throws FileError naming path when the declared size is empty or over the
// limits.
inline void checkDeclaredSize(const std::string &path, uint64_t width, uint64_t height) {
    const std::string size = std::to_string(width) + " x " + std::to_string(height);
    if (width == 0 || height == 0)
        throw FileError(path, "corrupt image: it declares a size of " + size);
    if (width > kMaxSide || height > kMaxSide || width * height > kMaxPixels)
        throw FileError(path,
                        "image size " + size + " is over the limit (" + describeLimits() + ")");
}

// Deflate expands its input at most about 1032 times; a file that would need
// more to hold the samples it declares is cut short or hostile, and is refused
// before its pixel memory is allocated.
constexpr uint64_t kMaxDeflateRatio = 1032;

// Throws FileError naming path when fileBytes of deflate data cannot hold
// sampleBytes of samples.
inline void checkDeflateCanHold(const std::string &path, const char *format, uint64_t sampleBytes,
                                uint64_t fileBytes) {
    if (sampleBytes / kMaxDeflateRatio > fileBytes)
        throw FileError(path, std::string("truncated ") + format + " file (" +
                                  std::to_string(fileBytes) + " bytes cannot hold the " +
                                  std::to_string(sampleBytes) + " bytes of samples it declares)");
}

}  // namespace morven::tool
