// Reading a picture file as the rest of the tool needs it, and writing one.
#pragma once

#include <string>
#include <vector>

#include "core/picture.hpp"
#include "io/codecs.hpp"

namespace morven::tool {

// Reads a picture: format found from the content, pixels decoded, CMYK
// converted to RGB through its profile, EXIF/XMP/IPTC read, and turned
// upright by its EXIF orientation. What a user should know (a profile that
// does not fit and is ignored, metadata that cannot be read) is added to
// *notes. Throws FileError.
Picture readPicture(const std::string &path, std::vector<std::string> *notes = nullptr);

struct WriteSettings {
    EncodeSettings encode;
    bool strip = false;  // write no ICC profile, resolution or metadata
};

// Encodes a picture into a format: 16-bit samples become 8 bits where the
// format holds no more (JPEG, WebP), alpha is dropped for JPEG, gray becomes
// RGB for WebP, each with a note; the ICC profile, resolution and metadata
// go in unless settings.strip.
std::vector<uint8_t> encodePicture(const Picture &picture, Format format,
                                   const WriteSettings &settings,
                                   std::vector<std::string> *notes = nullptr);

}  // namespace morven::tool
