// Helpers of the tool's tests: pictures made and read here through libpng,
// libjpeg, libtiff and libwebp directly (never through the tool's own code),
// metadata through Exiv2, colour profiles through Little CMS, and the
// library called directly for the expected results.
#pragma once

#include <morven/morven.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tooltest {

#ifdef MORVEN_TOOL_TEST_EXIV2
constexpr bool kHaveExiv2 = true;
#else
constexpr bool kHaveExiv2 = false;  // the tool was built without it; so are these helpers
#endif

// Interleaved samples: 1 gray, 2 gray + alpha, 3 RGB, 4 RGBA; 8 or 16 bits.
struct Pic {
    int w = 0, h = 0, c = 0, depth = 8;
    std::vector<uint16_t> px;
    uint16_t &at(int x, int y, int ch) { return px[(size_t(y) * w + x) * c + ch]; }
    uint16_t at(int x, int y, int ch) const { return px[(size_t(y) * w + x) * c + ch]; }
    bool operator==(const Pic &o) const = default;
};

// A smooth pattern with noise, every colour channel holding 0 and its full
// scale somewhere (so a stretch leaves it as it is); alpha, when there is
// one, is never 0.
Pic pattern(int w, int h, int c, int depth, unsigned seed);
// Turned by EXIF orientation 1..8 (what a viewer shows).
Pic oriented(const Pic &p, int orientation);
// A rectangle, with the first `channels` channels.
Pic crop(const Pic &p, int x, int y, int w, int h, int channels);

// Writers. icc is embedded when not empty.
void writePng(const std::string &path, const Pic &p, const std::vector<uint8_t> &icc = {});
// cmyk: p has 4 channels of ink (written Adobe-style inverted).
void writeJpeg(const std::string &path, const Pic &p, const std::vector<uint8_t> &icc = {},
               bool cmyk = false);
void writeTiff(const std::string &path, const Pic &p, uint16_t compression, bool tiled, bool planes,
               const std::vector<uint8_t> &icc = {});
void writeWebP(const std::string &path, const Pic &p, bool lossless);

std::string slurp(const std::string &path);
// An 8-bit gray picture of a plane (a mask).
Pic grayPic(int w, int h, const std::vector<uint8_t> &plane);

// Readers, by the file's signature.
Pic readPic(const std::string &path);
std::vector<uint8_t> iccOf(const std::string &path);
// The compression tag of a TIFF file (0 when it cannot be read).
uint16_t tiffCompression(const std::string &path);

// Metadata through Exiv2: key -> value as text ("Exif.Image.Make", ...).
void addMetadata(const std::string &path, const std::map<std::string, std::string> &values);
std::map<std::string, std::string> metadataOf(const std::string &path);

// ICC profiles made by Little CMS: RGB with the primaries of Display P3 or
// Adobe RGB, a gray one, and a CMYK one from a simple ink model.
std::vector<uint8_t> p3Profile();
std::vector<uint8_t> adobeProfile();
std::vector<uint8_t> cmykProfile();
// The picture converted between two profiles (empty: sRGB) as the tool is
// asked to: relative colorimetric, 16-bit result, alpha copied.
Pic convert(const Pic &p, const std::vector<uint8_t> &from, const std::vector<uint8_t> &to);
// CMYK (4 channels of ink, 0 is none) to sRGB through a CMYK profile.
Pic cmykToSrgb(const Pic &ink, const std::vector<uint8_t> &profile);

// The library called directly. Masks are 8-bit gray planes (empty: none).
struct Transfer {
    float strength = 1, fidelity = 0.9f, highTail = 9, lowTail = 50, threshold = 0.1f;
    int maxStep = 255, iterations = 2;
    bool contrast = false, smooth = false;
    wzWorkingSpace space = wzSpaceLab;
    std::vector<uint8_t> statsMask, referenceMask, blendMask;
};
Pic libraryTransfer(const Pic &source, const Pic &reference, const Transfer &t);
// "equalize", "stretch" or "contrast" (with its tails).
Pic libraryFilter(const std::string &command, const Pic &p, float highTail = 9, float lowTail = 4);
Pic librarySmooth(const Pic &guide, const Pic &input, float threshold, int iterations);
// 255 where alpha is not 0, empty without alpha.
std::vector<uint8_t> opaque(const Pic &p);

}  // namespace tooltest
