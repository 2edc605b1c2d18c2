// The parts of selective smoothing of 8-bit images and how they meet:
//   tables.cpp    the support object and the per-call view of its tables
//   scalar.cpp    the table-driven pass over whole working planes
//   pipeline.cpp  the row-pipelined pass, with the row kernels of a table
//   smoothing.cpp the interface: parameters and the choice between the two
// (16-bit images: smoothing16.cpp.)
#pragma once

#include <cstdint>

#include "common/memory.hpp"
#include "kernels/kernels.hpp"
#include "morven/smoothing.h"

namespace morven {

// wzSelectiveSmooth with the row kernels of `kernels`, or with the
// table-driven pass when it is null (the pass every other one is held
// against). With kernels, the row-pipelined pass runs when the support's
// tables give exactly d = |i - j| and accept = (d < t && e > 2d) and no
// image partly overlaps the output (the same block with the same layout is
// fine); otherwise the table-driven pass. The results are identical either
// way.
wzStatus selectiveSmoothWith(const Kernels *kernels, const wzSelectiveSmoothParams *params,
                             const wzSelectiveSmoothSupport *support, const wzImage *guide,
                             const wzImage *input, wzImage *output, const uint32_t *cancel);

constexpr int32_t kLevels = 256;

// The per-call integer view of the support's tables, read once through their
// row pointers. A difference table depends on i - j only, so it is kept as
// one diagonal per value of i - j, which stays in the first-level cache:
//   valueDiff[i - j + 255] = absDiff[i][j] as an integer (0..255);
//   guideDiff[i - j + 255] = the same, capped at cap = min(t, 256);
//   accept[d * 256 + e]    = 1 when a pair with guide difference d and input
//                            difference e is smoothed (d < t, e >= 1 and
//                            ratio[d][e] < 0.5), else 0; row cap is all 0,
//                            so capping d keeps the table at cap + 1 rows.
// A pair is then two difference look-ups and one acceptance look-up.
struct PairTables {
    uint8_t valueDiff[2 * kLevels - 1];
    uint8_t guideDiff[2 * kLevels - 1];
    FreePtr<uint8_t> accept;
};

// Builds the view for threshold t (>= 1); false when an allocation fails or
// when the support does not hold such tables (too small, or a difference
// outside 0..255 or not a function of i - j: a support not made by
// wzSelectiveSmoothSupportCreate).
bool buildPairTables(const wzSelectiveSmoothSupport &support, int32_t t, PairTables &out);

// Whether the tables give exactly what the row kernels compute:
// absDiff[i][j] = |i - j| and, for d < t, acceptance exactly when e > 2d.
// Tables made by wzSelectiveSmoothSupportCreate always do (ratio[d][e] is a
// rounded float quotient, below 0.5 exactly when e > 2d).
bool closedFormHolds(const PairTables &tables, int32_t t);

// The table-driven pass: `passes` passes over channels 1-3 of whole images
// (w, h >= 2), channel after channel through working planes. The cancel
// flag is read before every pass of every channel.
wzStatus smoothWithTables(const PairTables &tables, int32_t passes, const wzImage &guide,
                          const wzImage &input, const wzImage &output, const uint32_t *cancel);

// Whether the row-pipelined pass can take these images: sizes far from the
// counters' limits, and guide and input each either the output's own block
// with its layout or apart from it.
bool pipelineFits(const wzImage &guide, const wzImage &input, const wzImage &output);

// The row-pipelined pass (w, h >= 2, t >= 1, passes >= 1) with the row
// kernels of `kernels`. The cancel flag is read before the first row of
// each pass of each channel is made.
wzStatus smoothPipelined(const Kernels &kernels, int32_t t, int32_t passes, const wzImage &guide,
                         const wzImage &input, const wzImage &output, const uint32_t *cancel);

}  // namespace morven
