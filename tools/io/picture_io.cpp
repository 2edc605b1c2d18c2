#include "picture_io.hpp"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "colour/colour.hpp"
#include "core/common.hpp"
#include "io/files.hpp"
#include "io/metadata.hpp"

namespace morven::tool {

std::optional<Format> sniffFormat(Bytes bytes) {
    const auto starts = [&](std::string_view magic, size_t at = 0) {
        return bytes.size() >= at + magic.size() &&
               std::memcmp(bytes.data() + at, magic.data(), magic.size()) == 0;
    };
    if (starts("\x89PNG\r\n\x1a\n")) return Format::Png;
    if (starts("\xFF\xD8\xFF")) return Format::Jpeg;
    if (starts(std::string_view("II*\0", 4)) || starts(std::string_view("MM\0*", 4)) ||
        starts(std::string_view("II+\0", 4)) || starts(std::string_view("MM\0+", 4)))
        return Format::Tiff;
    if (starts("RIFF") && starts("WEBP", 8)) return Format::WebP;
    return std::nullopt;
}

Picture readPicture(const std::string &path, std::vector<std::string> *notes) {
    const auto note = [&](const std::string &text) {
        if (notes) notes->push_back(text);
    };
    const std::vector<uint8_t> bytes = readFileBytes(path);
    if (bytes.empty()) throw FileError(path, "empty file");
    const std::optional<Format> format = sniffFormat(bytes);
    if (!format) {
        const auto starts = [&](std::string_view magic) {
            return bytes.size() >= magic.size() &&
                   std::memcmp(bytes.data(), magic.data(), magic.size()) == 0;
        };
        // A file cut short inside its signature.
        if (std::string_view("\x89PNG\r\n\x1a\n")
                .starts_with(std::string_view((const char *)bytes.data(),
                                              std::min<size_t>(bytes.size(), 8))))
            throw FileError(path, "truncated PNG file (the data ends early)");
        const char *other = starts("GIF8") ? "GIF" : starts("BM") ? "BMP" : nullptr;
        if (other)
            throw FileError(path, std::string("unsupported format: ") + other +
                                      " (PNG, JPEG, TIFF and WebP are)");
        throw FileError(path, "not a PNG, JPEG, TIFF or WebP image");
    }
    Picture picture;
    switch (*format) {
        case Format::Png: picture = decodePng(path, bytes); break;
        case Format::Jpeg: picture = decodeJpeg(path, bytes); break;
        case Format::Tiff: picture = decodeTiff(path, bytes); break;
        case Format::WebP: picture = decodeWebP(path, bytes); break;
    }
    if (picture.cmyk) {
        convertCmykToRgb(picture, path);
        note("CMYK converted to sRGB through its ICC profile");
    }
    if (!profileFits(picture)) {
        note("its ICC profile (" + profileDescription(picture.icc) + ") does not describe a " +
             (picture.isGray() ? "gray" : "colour") + " picture; ignored");
        picture.icc.clear();
    }
    std::string problem;
    picture.metadata = readMetadata(bytes, &problem);
    if (!problem.empty()) note(problem);
    if (picture.metadata) {
        if (!picture.resolution.known()) picture.resolution = resolutionOf(*picture.metadata);
        applyOrientation(picture, orientationOf(*picture.metadata));
    }
    return picture;
}

std::vector<uint8_t> encodePicture(const Picture &source, Format format,
                                   const WriteSettings &settings, std::vector<std::string> *notes) {
    const auto note = [&](const std::string &text) {
        if (notes) notes->push_back(text);
    };
    const Picture *picture = &source;
    Picture shaped;
    const auto reshape = [&](Picture p) {
        shaped = std::move(p);
        picture = &shaped;
    };
    if (picture->depth == 16 && (format == Format::Jpeg || format == Format::WebP)) {
        note(std::string(formatName(format)) +
             " holds 8 bits per sample: written with 8-bit samples");
        reshape(toEightBits(*picture));
    }
    if (format == Format::Jpeg && picture->hasAlpha())
        note("JPEG has no alpha channel; alpha dropped");
    if (format == Format::WebP && picture->isGray())
        reshape(withChannels(*picture, picture->hasAlpha() ? 4 : 3));
    if (settings.strip && (!picture->icc.empty() || picture->resolution.known())) {
        Picture bare = *picture;
        bare.icc.clear();
        bare.resolution = {};
        reshape(std::move(bare));
    }
    // A gray profile cannot describe the RGB a gray WebP picture becomes.
    if (format == Format::WebP && source.isGray() && !picture->icc.empty()) {
        Picture bare = *picture;
        bare.icc.clear();
        reshape(std::move(bare));
        note("WebP holds no gray pictures: written as RGB without the gray ICC profile");
    }

    std::vector<uint8_t> bytes;
    switch (format) {
        case Format::Png: bytes = encodePng(*picture); break;
        case Format::Jpeg: bytes = encodeJpeg(*picture, settings.encode.quality); break;
        case Format::Tiff: bytes = encodeTiff(*picture); break;
        case Format::WebP: bytes = encodeWebP(*picture, settings.encode); break;
    }
    if (!settings.strip && source.metadata)
        embedMetadata(bytes, format, *source.metadata, *picture, notes);
    return bytes;
}

}  // namespace morven::tool
