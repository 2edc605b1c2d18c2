// Pieces of histogram matching shared by the core filter and the extended
// one.
#pragma once

#include <cstdint>

#include "morven/histogram.h"

namespace morven {

class ByteCounter;

// The smoothing radius of a fidelity: trunc((1 - fidelity) * 50) in float;
// anything from 255 up averages a whole 8-bit block, so larger radii (and
// out-of-range products) become 255.
inline int32_t smoothingRadius(float fidelity) noexcept {
    const float r = (1.0f - fidelity) * 50.0f;
    if (!(r < 255.0f)) return 255;
    return r < 0.0f ? 0 : static_cast<int32_t>(r);
}

// wzHistogramMatchApply; with a counter, the brightness (the largest of
// channels 1-3) of every destination pixel written is counted into it as
// the rows are written (for a colour destination).
wzStatus applyTable(const uint8_t table[768], const wzImage *source, wzImage *destination,
                    ByteCounter *brightness, const uint32_t *cancel) noexcept;

// wzHistogramMatchFilter without a mask, counting the brightness of the
// destination pixels written as applyTable does.
wzStatus matchFilterCounting(const wzHistogramMatchParams *params, wzImage *source,
                             wzImage *destination, ByteCounter &brightness,
                             const uint32_t *cancel) noexcept;

// Applies a match table from source to destination and blends the result
// with the unmatched values under the mask (null for none), copying the
// source's region first when the two are the same image: the second half
// of wzHistogramMatchFilter. Returns the status of the apply step or the
// blend, or 1 when the copy cannot be allocated.
wzStatus applyTableMasked(const uint8_t table[768], wzImage *source, const wzImage *mask,
                          wzImage *destination, const uint32_t *cancel) noexcept;

// Normalises the profile of source and applies to source the table that
// matches it to the flat distribution: the 8-bit equalisation.
void applyEqualization(wzImageColorProfile &profile, const wzImage *source,
                       wzImage *destination) noexcept;

// Fills the profile of source and computes the table that matches it under
// params; the status of the fill.
wzStatus matchTable(const wzHistogramMatchParams *params, const wzImage *source,
                    uint8_t table[768]) noexcept;

// The linear stretch of every channel's occupied range onto 0..255 (block
// b from profile array 2 - b); a channel that is empty or holds one value
// maps to itself. Says whether any channel was occupied and stretched.
enum class Stretch { Empty, Flat, Done };
Stretch stretchTable8(const wzImageColorProfile &profile, uint8_t table[768]) noexcept;

}  // namespace morven
