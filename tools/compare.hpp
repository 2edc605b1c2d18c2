// The comparison picture of a transfer.
#pragma once

#include "image_io.hpp"

namespace morven::tool {

// One RGB picture: source, reference and result side by side (left to
// right), each scaled to a common height, and under each its red, green and
// blue histograms (from the library's colour profile), one chart per
// channel, each scaled to its fourth-highest bin (taller spikes are clipped).
Picture composeComparison(const Picture &source, const Picture &reference, const Picture &result);

}  // namespace morven::tool
