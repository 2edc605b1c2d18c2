// Colour management through Little CMS 2: what an ICC profile describes,
// conversions between the colour spaces of two pictures (relative
// colorimetric), and CMYK to RGB. A picture without a profile is taken as
// sRGB (gray ones as gray with the sRGB tone curve).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/picture.hpp"

namespace morven::tool {

enum class ProfileKind { Unreadable, Gray, Rgb, Cmyk, Other };

ProfileKind profileKind(const std::vector<uint8_t> &icc);
// The profile's description ("Display P3", "Adobe RGB (1998)"), or
// "sRGB (assumed)" for none.
std::string profileDescription(const std::vector<uint8_t> &icc);

// Whether a picture's profile can describe its pixels (gray for gray, RGB
// for colour); an empty profile always can.
bool profileFits(const Picture &picture);

// The picture's pixels in another colour space: from picture.icc (empty:
// sRGB) to targetIcc (empty: sRGB, or sRGB gray for a gray picture), with
// 16-bit samples, alpha copied, relative colorimetric intent. A gray target
// profile gives a gray picture, an RGB one a colour picture. icc of the result is
// targetIcc. Throws std::runtime_error when Little CMS refuses the profiles.
Picture convertColours(const Picture &picture, const std::vector<uint8_t> &targetIcc);

// A picture of CMYK ink (decoders leave it so) as RGB through its profile,
// into sRGB; the result carries no profile. Throws FileError naming path
// when the picture has no usable CMYK profile.
void convertCmykToRgb(Picture &picture, const std::string &path);

}  // namespace morven::tool
