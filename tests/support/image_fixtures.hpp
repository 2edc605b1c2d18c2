// Test helpers: owning image handles and random pixel fills.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "morven/morven.h"

namespace morven_test {

struct ImageDeleter {
    void operator()(wzImage *img) const { wzImageRelease(&img); }
};
using ImagePtr = std::unique_ptr<wzImage, ImageDeleter>;

struct HeaderDeleter {
    void operator()(wzImage *img) const { wzImageReleaseHeader(&img); }
};
using HeaderPtr = std::unique_ptr<wzImage, HeaderDeleter>;

// A header over a caller-owned block.
inline HeaderPtr wrapHeader(int32_t width, int32_t height, uint32_t encoding, uint8_t *block) {
    HeaderPtr h(wzImageCreateHeader(width, height, encoding));
    if (h) h->data = block;
    return h;
}

inline ImagePtr makeImage(int32_t width, int32_t height, uint32_t encoding,
                          uint32_t type = wzType8U) {
    return ImagePtr(wzImageCreateWithType(width, height, encoding, type));
}

inline constexpr uint32_t kAllTypes[] = {wzType8U,    wzType32S, wzType16U,
                                         wzType32S24, wzType32F, wzType64F};
inline constexpr uint32_t kAllEncodings[] = {wzEncodingGray, wzEncodingBGR, wzEncodingRGB,
                                             wzEncodingARGB, wzEncodingRGBA};

inline size_t typeSize(uint32_t type) {
    switch (type) {
        case wzType8U: return 1;
        case wzType16U: return 2;
        case wzType64F: return 8;
        default: return 4;
    }
}

inline size_t blockBytes(const wzImage *img) {
    return static_cast<size_t>(img->width) * img->height *
           static_cast<size_t>(wzGetNChannelFromEncoding(img->encoding)) * typeSize(img->type);
}

inline std::vector<uint8_t> snapshot(const wzImage *img) {
    return std::vector<uint8_t>(img->data, img->data + blockBytes(img));
}

// Byte address of channel c (1..4) of pixel (x, y).
inline uint8_t *at(const wzImage *img, int x, int y, int channel = 1) {
    const size_t es = typeSize(img->type);
    const size_t n = static_cast<size_t>(wzGetNChannelFromEncoding(img->encoding));
    const int32_t off = wzGetChannelOffsetFromEncoding(img->encoding, channel);
    return img->data + ((static_cast<size_t>(y) * img->width + x) * n + off) * es;
}

// Element access by type code, written independently of the library: the
// value is exchanged as a double. Storing into an integer element keeps the
// low bits of the value truncated toward zero (the value must fit in 64 bits);
// storing into a float element rounds to its precision. Unaligned-safe.
template <typename T>
inline T loadRaw(const uint8_t *p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

inline double loadValue(uint32_t type, const uint8_t *p) {
    switch (type) {
        case wzType8U: return *p;
        case wzType16U: return loadRaw<uint16_t>(p);
        case wzType32F: return loadRaw<float>(p);
        case wzType64F: return loadRaw<double>(p);
        default: return loadRaw<int32_t>(p);  // wzType32S, wzType32S24
    }
}

inline void storeValue(uint32_t type, uint8_t *p, double value) {
    if (type == wzType32F) {
        const float f = static_cast<float>(value);
        std::memcpy(p, &f, 4);
    } else if (type == wzType64F) {
        std::memcpy(p, &value, 8);
    } else {
        const uint64_t bits = static_cast<uint64_t>(static_cast<int64_t>(value));
        std::memcpy(p, &bits, typeSize(type));  // little-endian: the low bytes
    }
}

// Element i of an image's block, counted in elements.
inline double elementAt(const wzImage *img, size_t i) {
    return loadValue(img->type, img->data + i * typeSize(img->type));
}
inline void setElementAt(wzImage *img, size_t i, double value) {
    storeValue(img->type, img->data + i * typeSize(img->type), value);
}

// Fills every element with a random value typical of its type: the full range
// of the integer types (negative values included for the 32-bit ones) and
// values slightly outside 0..1 for the float types.
inline void fillRandom(wzImage *img, std::mt19937 &rng) {
    const uint32_t t = img->type;
    if (t != wzType8U && t != wzType16U && t != wzType32S && t != wzType32S24 && t != wzType32F &&
        t != wzType64F)
        return;
    std::uniform_real_distribution<double> unit(-0.1, 1.1);
    for (size_t i = 0, n = blockBytes(img) / typeSize(t); i < n; ++i) {
        if (t == wzType32F || t == wzType64F) {
            setElementAt(img, i, unit(rng));
        } else if (t == wzType32S || t == wzType32S24) {
            int32_t v = static_cast<int32_t>(rng());
            // Mostly in-scale values, some negative or beyond the scale.
            if (rng() % 4 != 0) v &= t == wzType32S ? 0xFFFF : 0xFFFFFF;
            setElementAt(img, i, v);
        } else {
            setElementAt(img, i, rng());  // the low bytes of a random word
        }
    }
}

inline void setRoi(wzImage *img, int32_t x, int32_t y, int32_t width, int32_t height) {
    const wzRect r{x, y, width, height};
    wzImageSetROI(img, &r);
}

}  // namespace morven_test
