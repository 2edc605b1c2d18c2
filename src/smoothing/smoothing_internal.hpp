// Internal entry points of selective smoothing: the filter with its pass
// chosen by the caller, and the vector quotient step, so that tests can hold
// every variant against the scalar pass.
#pragma once

#include <cstdint>

#include "common/cpu.hpp"
#include "morven/smoothing.h"

namespace morven {

// wzSelectiveSmooth with the pass chosen by the caller. Isa::Portable runs
// the scalar pass over whole working planes. A vector isa runs the
// row-pipelined vector pass when this processor has it, the support's tables
// give exactly d = |i - j| and accept = (d < t && e > 2d), and no image
// partly overlaps the output (the same block with the same layout is fine);
// otherwise the scalar pass. The results are identical either way.
wzStatus selectiveSmoothWith(Isa isa, const wzSelectiveSmoothParams *params,
                             const wzSelectiveSmoothSupport *support, const wzImage *guide,
                             const wzImage *input, wzImage *output, const uint32_t *cancel);

// The quotient step of the vector pass for `isa` (Avx2 or Avx512, available
// here): q[i] = low 8 bits of num[i] / count[i] truncated toward zero, for
// num[i] in -2040..4335 and count[i] in 1..9; len a multiple of 32. False
// (nothing written) when the isa is not a vector one available here.
bool smoothQuotients(Isa isa, const int16_t *num, const uint16_t *count, uint8_t *q, int32_t len);

}  // namespace morven
