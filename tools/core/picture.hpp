// A picture as the tool holds it: interleaved 8-bit or 16-bit samples, rows
// packed, 1 channel (gray), 2 (gray, alpha), 3 (red, green, blue) or 4 (red,
// green, blue, alpha), plus what its file said about it (format, colour
// profile, resolution, metadata).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace morven::tool {

enum class Format { Png, Jpeg, Tiff, WebP };

// Pixel density as the file gives it; unknown when x or y is 0.
struct Resolution {
    enum class Unit { None, Inch, Centimetre };  // None: only the aspect ratio is known
    double x = 0, y = 0;
    Unit unit = Unit::None;
    bool known() const { return x > 0 && y > 0; }
};

// EXIF, XMP and IPTC of a file, opaque outside io/metadata.cpp.
struct EmbeddedMetadata;

struct Picture {
    int width = 0;
    int height = 0;
    int channels = 0;  // 1 gray, 2 gray + alpha, 3 RGB, 4 RGBA (CMYK while being decoded)
    int depth = 8;     // bits per sample: 8 (samples8) or 16 (samples16)
    std::vector<uint8_t> samples8;
    std::vector<uint16_t> samples16;

    // From the file.
    Format format = Format::Png;
    int fileDepth = 8;         // bits per sample in the file (1..16)
    std::vector<uint8_t> icc;  // ICC profile, empty for none
    Resolution resolution;
    std::shared_ptr<const EmbeddedMetadata> metadata;  // null when there is none
    int orientation = 1;                               // the EXIF orientation applied on reading
    bool cmyk = false;                                 // decoders only: 4 channels of ink, not RGBA
    bool cmykInverted = false;                         // Adobe CMYK JPEG: 0 is full ink

    bool hasAlpha() const { return !cmyk && (channels == 2 || channels == 4); }
    bool isGray() const { return channels <= 2; }
    int colourChannels() const { return isGray() ? 1 : 3; }
    size_t pixelCount() const { return size_t(width) * size_t(height); }
    size_t sampleCount() const { return pixelCount() * size_t(channels); }
    // Largest sample value: 255 or 65535.
    uint32_t maxValue() const { return depth == 8 ? 255u : 65535u; }

    // Sizes the sample vector of the current depth (the other one is freed).
    void allocate(int w, int h, int c, int bits);
    uint32_t sample(size_t i) const { return depth == 8 ? samples8[i] : samples16[i]; }
    void setSample(size_t i, uint32_t v) {
        if (depth == 8)
            samples8[i] = uint8_t(v);
        else
            samples16[i] = uint16_t(v);
    }
    void *data() { return depth == 8 ? (void *)samples8.data() : (void *)samples16.data(); }
    const void *data() const {
        return depth == 8 ? (const void *)samples8.data() : (const void *)samples16.data();
    }
};

const char *formatName(Format format);
// The usual extension of a format, with the dot.
const char *formatExtension(Format format);
// The output format named by a file's extension (.png, .jpg, .jpeg, .tif,
// .tiff, .webp; any case), or nothing.
std::optional<Format> formatForPath(const std::string &path);
// "gray", "gray+alpha", "RGB" or "RGBA".
const char *layoutName(int channels);

// The same picture with 8-bit samples: v becomes (v + 128) / 257, the
// nearest 8-bit level. An 8-bit picture is returned as it is.
Picture toEightBits(Picture picture);
// The same picture with 16-bit samples: v becomes v * 257.
Picture toSixteenBits(Picture picture);
// The same picture with other channels: alpha added (opaque) or dropped,
// gray widened to RGB. Colour is never narrowed to gray.
Picture withChannels(Picture picture, int channels);

// The picture turned upright from EXIF orientation 1..8 (2 mirrored, 3
// turned 180 degrees, 4 flipped, 5 transposed, 6 turned 90 degrees
// clockwise, 7 transverse, 8 turned 90 degrees anticlockwise); 1 or any other
// value leaves it as it is. Resolution follows the turn.
void applyOrientation(Picture &picture, int orientation);
// "normal", "rotated 90 degrees clockwise", ...: what applyOrientation does.
const char *describeOrientation(int orientation);

// A statistics mask from the alpha channel: 255 where alpha is above 0, 0
// where it is 0. Empty when the picture has no alpha or no pixel is fully
// transparent.
std::vector<uint8_t> opaqueMask(const Picture &picture);

}  // namespace morven::tool
