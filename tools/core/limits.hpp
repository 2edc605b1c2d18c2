// The largest inputs the tool accepts. Every decoder checks the size a file
// declares against these before it allocates any pixel memory.
#pragma once

#include <cstdint>
#include <string>

#include "common.hpp"

namespace morven::tool {

// Each side at most 65535 pixels and at most 2^28 pixels in all (1 GiB of
// 8-bit RGBA samples, 2 GiB of 16-bit ones).
constexpr uint32_t kMaxSide = 65535;
constexpr uint64_t kMaxPixels = uint64_t{1} << 28;
// Largest file read into memory.
constexpr uint64_t kMaxFileBytes = uint64_t{1} << 31;
// Largest ICC profile or metadata block kept from a file.
constexpr uint64_t kMaxEmbeddedBytes = uint64_t{1} << 24;

// "65535 pixels per side, 2^28 pixels in all", for messages and help.
inline std::string describeLimits() { return "65535 pixels per side, 2^28 pixels in all"; }

// Throws FileError naming path when the declared size is empty or over the
// limits.
inline void checkDeclaredSize(const std::string &path, uint64_t width, uint64_t height) {
    const std::string size = std::to_string(width) + " x " + std::to_string(height);
    if (width == 0 || height == 0) throw FileError(path, "corrupt image: it declares a size of " + size);
    if (width > kMaxSide || height > kMaxSide || width * height > kMaxPixels)
        throw FileError(path, "image size " + size + " is over the limit (" + describeLimits() + ")");
}

}  // namespace morven::tool
