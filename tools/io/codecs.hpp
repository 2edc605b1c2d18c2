// The four file formats, each through the library the field uses for it:
// libpng, libjpeg-turbo, libtiff and libwebp. Decoders and encoders work on
// memory; they know pixels, ICC profiles and resolution. EXIF, XMP and IPTC
// are left to io/metadata.hpp.
//
// Decoders check the declared size against core/limits.hpp before any pixel
// memory is allocated and throw FileError(path, reason) for anything they
// cannot read; the picture they return has format, fileDepth, icc and
// resolution set (CMYK JPEG and TIFF come back as 4 channels of ink with
// cmyk set, for io/read.cpp to convert).
//
// Encoders take a picture the format can hold (8-bit for JPEG and WebP,
// no gray + alpha for WebP) and embed its icc and resolution when present.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "core/picture.hpp"

namespace morven::tool {

using Bytes = std::span<const uint8_t>;

// The format of a file from its first bytes, or nothing.
std::optional<Format> sniffFormat(Bytes bytes);

Picture decodePng(const std::string &path, Bytes bytes);
Picture decodeJpeg(const std::string &path, Bytes bytes);
Picture decodeTiff(const std::string &path, Bytes bytes);
Picture decodeWebP(const std::string &path, Bytes bytes);

enum class TiffCompression { None, Lzw, Deflate };

struct EncodeSettings {
    int quality = 90;       // JPEG and lossy WebP, 1..100
    bool lossless = false;  // WebP
    TiffCompression tiffCompression = TiffCompression::Deflate;
};

// "none", "lzw", "deflate"; from name throws std::invalid_argument.
const char *tiffCompressionName(TiffCompression compression);
TiffCompression tiffCompressionNamed(const std::string &name);

std::vector<uint8_t> encodePng(const Picture &picture);
std::vector<uint8_t> encodeJpeg(const Picture &picture, int quality);
std::vector<uint8_t> encodeTiff(const Picture &picture, TiffCompression compression);
std::vector<uint8_t> encodeWebP(const Picture &picture, const EncodeSettings &settings);

}  // namespace morven::tool
