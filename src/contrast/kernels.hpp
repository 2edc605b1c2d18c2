// Kernels of contrast enhancement with vector variants chosen at run time;
// the instruction set is an argument so that tests can run each variant.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/cpu.hpp"

namespace morven {

// Brightness of `pixels` pixels of `stride` (3 or 4) bytes: out[i] = the
// largest of the bytes at offsets[0], [1], [2] of pixel i. The offsets are
// three distinct positions of the pixel (for 3-byte pixels, all of them).
void brightnessRow(Isa isa, const uint8_t *src, int32_t stride, const ptrdiff_t offsets[3],
                   uint8_t *out, size_t pixels);

}  // namespace morven
