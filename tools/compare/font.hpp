// Text for the comparison picture.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "core/picture.hpp"

namespace morven::tool {

constexpr int kGlyphAdvance = 6;  // columns per character at scale 1 (5 + 1 apart)
constexpr int kGlyphHeight = 7;

int textWidth(const std::string &text, int scale);
// Draws text with its top-left corner at (x, y) into an 8-bit RGB canvas,
// each font pixel a scale x scale square; clipped at the edges.
void drawText(Picture &canvas, int x, int y, const std::string &text, int scale,
              const std::array<uint8_t, 3> &colour);

}  // namespace morven::tool
