// Pieces of contrast enhancement shared by the core filter and the extended
// one.
#pragma once

#include <cstdint>

#include "morven/contrast.h"

namespace morven {

class ByteCounter;

// The statistics that wzContrastEnhanceStatsRetrieve gives for a colour
// image whose brightness (every pixel's) was counted elsewhere.
void statsFromBrightness(ByteCounter &brightness, const wzImage &image,
                         wzContrastEnhanceStats &stats) noexcept;

// wzContrastEnhanceFilter of a colour 8-bit image onto itself without a
// mask, its brightness already counted: the same records, flag reads and
// results, without reading the image for the statistics.
wzStatus contrastFilterCounted(const wzContrastEnhanceParams *params, ByteCounter &brightness,
                               wzImage *image, const uint32_t *cancel) noexcept;

// Applies a tone curve from source to destination and blends the result
// with the unprocessed pixels under the mask (null for none), keeping a copy
// of the source first when the two are the same image: the second half of
// wzContrastEnhanceFilter. The curve is the caller's until this returns.
wzStatus applyCurveMasked(const uint8_t curve[256], wzImage *source, const wzImage *mask,
                          wzImage *destination, const uint32_t *cancel) noexcept;

}  // namespace morven
