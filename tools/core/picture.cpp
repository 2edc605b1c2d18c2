#include "picture.hpp"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <utility>

namespace morven::tool {

void Picture::allocate(int w, int h, int c, int bits) {
    width = w;
    height = h;
    channels = c;
    depth = bits;
    const size_t n = size_t(w) * size_t(h) * size_t(c);
    if (bits == 8) {
        samples16 = {};
        samples8.assign(n, 0);
    } else {
        samples8 = {};
        samples16.assign(n, 0);
    }
}

const char *formatName(Format format) {
    switch (format) {
        case Format::Png: return "PNG";
        case Format::Jpeg: return "JPEG";
        case Format::Tiff: return "TIFF";
        case Format::WebP: return "WebP";
    }
    return "?";
}

const char *formatExtension(Format format) {
    switch (format) {
        case Format::Png: return ".png";
        case Format::Jpeg: return ".jpg";
        case Format::Tiff: return ".tif";
        case Format::WebP: return ".webp";
    }
    return "";
}

std::optional<Format> formatForPath(const std::string &path) {
    std::string ext = std::filesystem::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    if (ext == ".png") return Format::Png;
    if (ext == ".jpg" || ext == ".jpeg") return Format::Jpeg;
    if (ext == ".tif" || ext == ".tiff") return Format::Tiff;
    if (ext == ".webp") return Format::WebP;
    return std::nullopt;
}

const char *layoutName(int channels) {
    static const char *const names[] = {"?", "gray", "gray+alpha", "RGB", "RGBA"};
    return names[channels >= 1 && channels <= 4 ? channels : 0];
}

Picture toEightBits(Picture picture) {
    if (picture.depth == 8) return picture;
    std::vector<uint8_t> narrow(picture.samples16.size());
    for (size_t i = 0; i < narrow.size(); ++i)
        narrow[i] = uint8_t((picture.samples16[i] + 128u) / 257u);
    picture.samples8 = std::move(narrow);
    picture.samples16 = {};
    picture.depth = 8;
    return picture;
}

Picture toSixteenBits(Picture picture) {
    if (picture.depth == 16) return picture;
    picture.samples16.assign(picture.samples8.begin(), picture.samples8.end());
    for (uint16_t &v : picture.samples16) v = uint16_t(v * 257u);
    picture.samples8 = {};
    picture.depth = 16;
    return picture;
}

namespace {

template <class T>
std::vector<T> relaid(const std::vector<T> &in, size_t pixels, int from, int to, T opaque) {
    std::vector<T> out(pixels * size_t(to));
    const int colours = to <= 2 ? 1 : 3;
    for (size_t i = 0; i < pixels; ++i) {
        const T *s = &in[i * size_t(from)];
        T *d = &out[i * size_t(to)];
        for (int c = 0; c < colours; ++c) d[c] = s[from <= 2 ? 0 : c];
        if (to % 2 == 0) d[to - 1] = from % 2 == 0 ? s[from - 1] : opaque;
    }
    return out;
}

template <class T>
std::vector<T> oriented(const std::vector<T> &in, int w, int h, int channels, int orientation) {
    std::vector<T> out(in.size());
    const bool turned = orientation >= 5;
    const size_t outWidth = size_t(turned ? h : w);
    for (size_t y = 0; y < size_t(h); ++y)
        for (size_t x = 0; x < size_t(w); ++x) {
            const size_t W = size_t(w), H = size_t(h);
            size_t tx = x, ty = y;
            switch (orientation) {
                case 2: tx = W - 1 - x; break;
                case 3: tx = W - 1 - x, ty = H - 1 - y; break;
                case 4: ty = H - 1 - y; break;
                case 5: tx = y, ty = x; break;
                case 6: tx = H - 1 - y, ty = x; break;
                case 7: tx = H - 1 - y, ty = W - 1 - x; break;
                case 8: tx = y, ty = W - 1 - x; break;
            }
            std::copy_n(&in[(y * W + x) * size_t(channels)], channels,
                        &out[(ty * outWidth + tx) * size_t(channels)]);
        }
    return out;
}

}  // namespace

Picture withChannels(Picture picture, int channels) {
    if (picture.channels == channels) return picture;
    const int from = picture.channels;
    if (picture.depth == 8)
        picture.samples8 =
            relaid<uint8_t>(picture.samples8, picture.pixelCount(), from, channels, 255);
    else
        picture.samples16 =
            relaid<uint16_t>(picture.samples16, picture.pixelCount(), from, channels, 65535);
    picture.channels = channels;
    return picture;
}

void applyOrientation(Picture &picture, int orientation) {
    if (orientation < 2 || orientation > 8) return;
    if (picture.depth == 8)
        picture.samples8 = oriented(picture.samples8, picture.width, picture.height,
                                    picture.channels, orientation);
    else
        picture.samples16 = oriented(picture.samples16, picture.width, picture.height,
                                     picture.channels, orientation);
    if (orientation >= 5) {
        std::swap(picture.width, picture.height);
        std::swap(picture.resolution.x, picture.resolution.y);
    }
    picture.orientation = orientation;
}

const char *describeOrientation(int orientation) {
    switch (orientation) {
        case 2: return "mirrored left to right";
        case 3: return "turned 180 degrees";
        case 4: return "flipped top to bottom";
        case 5: return "mirrored about the main diagonal";
        case 6: return "turned 90 degrees clockwise";
        case 7: return "mirrored about the other diagonal";
        case 8: return "turned 90 degrees anticlockwise";
        default: return "as stored";
    }
}

std::vector<uint8_t> opaqueMask(const Picture &picture) {
    if (!picture.hasAlpha()) return {};
    std::vector<uint8_t> mask(picture.pixelCount());
    bool anyHidden = false;
    const size_t c = size_t(picture.channels);
    for (size_t i = 0; i < mask.size(); ++i) {
        const bool visible = picture.sample(i * c + c - 1) != 0;
        mask[i] = visible ? 255 : 0;
        anyHidden |= !visible;
    }
    if (!anyHidden) return {};
    return mask;
}

}  // namespace morven::tool
