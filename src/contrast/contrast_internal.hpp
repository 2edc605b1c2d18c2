// Pieces of contrast enhancement shared by the core filter and the extended
// one.
#pragma once

#include <cstdint>

#include "morven/contrast.h"

namespace morven {

// Applies a tone curve from source to destination and blends the result
// with the unprocessed pixels under the mask (null for none), keeping a copy
// of the source first when the two are the same image: the second half of
// wzContrastEnhanceFilter. The curve is the caller's until this returns.
wzStatus applyCurveMasked(const uint8_t curve[256], wzImage *source, const wzImage *mask,
                          wzImage *destination, const uint32_t *cancel) noexcept;

}  // namespace morven
