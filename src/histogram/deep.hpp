// Histogram matching at 16-bit precision: the engine behind the extended
// filters for 16-bit pictures, working colour spaces and deep targets.
//
// Every channel lives on a scale of 0..65535 ("levels"). A distribution is
// given by 256 bins (bin k spans the levels that round to the 8-bit level k,
// 257 k - 128.5 .. 257 k + 128.5) or 65536 bins (bin k spans k - 0.5 ..
// k + 0.5), and is taken as spread evenly inside each bin, so that its
// cumulative distribution is piecewise linear. The curve of a channel sends
// level u to the target level with the same cumulative share as u has in
// the source.
#pragma once

#include <cstddef>
#include <cstdint>

#include "histogram/space.hpp"
#include "morven/histogram.h"

namespace morven::deep {

constexpr int kLevels = 65536;

// One channel's distribution: `size` (256 or 65536) counts.
struct Bins {
    const double *count;
    int size;
};

// The parameters that shape a curve, as wzHistogramMatchParams holds them.
struct CurveShape {
    float strength;
    float fidelity;
    int32_t maxStep;
    bool chroma;  // a chroma plane: smoothing weighs away from neutral, not toward white
};

// Scratch memory of buildCurve: 2 * kLevels doubles.
constexpr size_t kCurveScratch = 2 * kLevels;

// One channel's curve, kLevels floats per array, every entry in 0..65535:
// centre[u] is where level u goes. For working values between levels the
// curve also says where the two ends of each level's bin go (lower[u] for
// u - 0.5, upper[u] for u + 0.5), so that values inside a bin keep their
// place: matching a picture to its own distribution then changes nothing.
// lower and upper are null where only whole levels are mapped.
struct Curve {
    const float *centre;
    const float *lower;
    const float *upper;
};

// Builds one channel's curve into centre, lower and upper (kLevels floats
// each; lower and upper may be null): the match of source onto target, then
// the step limit and smoothing of the shape (on the whole levels; the bin
// ends keep their offsets), then its strength. False when either
// distribution is empty.
bool buildCurve(Bins source, Bins target, const CurveShape &shape, double *scratch, float *centre,
                float *lower, float *upper) noexcept;

// Adds the pixels of the image's region that the mask selects into
// bins[2 - k] for channel (plane) k + 1: in wzSpaceChannels the samples
// themselves (an 8-bit sample v at 257 v; a gray image's one channel goes
// into all three arrays), otherwise their working values rounded to the
// nearest level (a gray image has the chroma of gray). The image is 8- or 16-bit; `ws` is prepared for `space`.
// Returns 0, or 2 when cancelled (read before every row).
wzStatus countLevels(const wzImage &image, const wzImage *mask, int32_t space,
                     const WorkingSpace &ws, double (*bins)[kLevels], float *rowPlanes,
                     const uint32_t *cancel) noexcept;

// Maps the source's region into the destination's region (same type and
// channel count; may be the same image): curves[k] serves channel k + 1 in
// wzSpaceChannels, working plane k otherwise; a null curve leaves its
// channel or plane as it is. A fourth channel is not written. `rowPlanes`
// holds 3 * the region's width floats. Returns 0, or 2 when cancelled.
wzStatus applyCurves(const Curve *const curves[3], int32_t space, const WorkingSpace &ws,
                     const wzImage &source, wzImage &destination, float *rowPlanes,
                     const uint32_t *cancel) noexcept;

// The 768-byte table of 8-bit levels that the curves give (identity where a
// curve is null): entry v of block k = curves[k][257 v] / 257, rounded.
void curvesToTable8(const Curve *const curves[3], uint8_t table[768]) noexcept;

}  // namespace morven::deep
