// The comparison picture of a transfer.
#pragma once

#include <string>

#include "core/picture.hpp"

namespace morven::tool {

struct ComparePanel {
    const Picture *picture;  // any layout and depth, shown as sRGB
    std::string title;       // "source", "reference", "result"
};

// One 8-bit RGB picture: the panels side by side, each titled and scaled to
// a common height, and under each the histograms of its colour channels
// (from the library's colour profile, fully transparent pixels left out):
// red, green and blue for a colour picture, one gray chart for a gray one.
// Each chart has its channel named, its axes drawn and its levels marked,
// and is scaled to its fourth-highest bin (taller spikes are clipped).
// With manageColour, pictures with an ICC profile are converted to sRGB
// for display.
Picture composeComparison(const ComparePanel (&panels)[3], bool manageColour);

}  // namespace morven::tool
