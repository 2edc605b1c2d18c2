// Internal helpers of the image core: element sizes, channel tables, region
// cursors, per-type dispatch and the integer store rule. Shared by every
// subsystem that walks wzImage records.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "morven/image.h"

namespace morven {

// Element size in bytes of a type code; 0 for an unknown code.
constexpr int32_t elementSize(uint32_t type) noexcept {
    switch (type) {
        case wzType8U: return 1;
        case wzType16U: return 2;
        case wzType32S:
        case wzType32S24:
        case wzType32F: return 4;
        case wzType64F: return 8;
        default: return 0;
    }
}

constexpr bool isKnownType(uint32_t type) noexcept { return elementSize(type) != 0; }

constexpr bool isValidEncoding(uint32_t encoding) noexcept { return encoding <= wzEncodingRGBA; }

// Channel count of an encoding; -1 when invalid.
constexpr int32_t channelCount(uint32_t encoding) noexcept {
    constexpr int32_t counts[5] = {1, 3, 3, 4, 4};
    return isValidEncoding(encoding) ? counts[encoding] : -1;
}

// Offset of channel c (1 blue .. 4 alpha) inside a pixel, in elements; -1 when
// the encoding or the channel is invalid. Gray gives 0 for every channel.
constexpr int32_t channelOffset(uint32_t encoding, int32_t channel) noexcept {
    switch (encoding) {
        case wzEncodingGray: return 0;
        case wzEncodingBGR: return channel >= 1 && channel <= 3 ? channel - 1 : -1;
        case wzEncodingRGB: return channel >= 1 && channel <= 3 ? 3 - channel : -1;
        case wzEncodingARGB: return channel >= 1 && channel <= 4 ? 4 - channel : -1;
        case wzEncodingRGBA: {
            constexpr int32_t rgba[4] = {2, 1, 0, 3};
            return channel >= 1 && channel <= 4 ? rgba[channel - 1] : -1;
        }
        default: return -1;
    }
}

// Byte offsets of channels 1, 2, 3 of an image (all 0 for a one-channel image).
struct ChannelBytes {
    ptrdiff_t c[3];
};

inline ChannelBytes channelBytes(const wzImage &img) noexcept {
    const ptrdiff_t es = elementSize(img.type);
    ChannelBytes out{};
    if (img.encoding != wzEncodingGray) {
        for (int k = 0; k < 3; ++k) out.c[k] = channelOffset(img.encoding, k + 1) * es;
    }
    return out;
}

inline ptrdiff_t pixelStride(const wzImage &img) noexcept {
    return static_cast<ptrdiff_t>(channelCount(img.encoding)) * elementSize(img.type);
}

// Number of elements of the whole block (height * width * channels) in 64 bits;
// negative or zero for invalid encodings and negative sizes.
inline int64_t blockElements(const wzImage &img) noexcept {
    return int64_t{img.height} * img.width * channelCount(img.encoding);
}

// A walk over a region: start pointer, advance per pixel and row gap. The
// origin offset is formed in 64 bits so large images cannot overflow it.
struct Cursor {
    uint8_t *p;
    ptrdiff_t step;
    ptrdiff_t gap;
};

// Cursor over the image's region with its own pixel stride as the step.
inline Cursor regionCursor(const wzImage &img) noexcept {
    const ptrdiff_t ps = pixelStride(img);
    const ptrdiff_t row = ps * img.width;
    uint8_t *origin = img.data + img.roi.y * row + img.roi.x * ps;
    return Cursor{origin, ps, (img.width - img.roi.width) * ps};
}

// Same origin and row gap, but a caller-chosen advance per pixel.
inline Cursor regionCursor(const wzImage &img, ptrdiff_t step) noexcept {
    Cursor c = regionCursor(img);
    c.step = step;
    return c;
}

// Truncation toward zero to a signed 32-bit integer, saturating values beyond
// the range to the nearer limit; NaN gives 0.
template <typename F>
inline int32_t truncSat32(F v) noexcept {
    static_assert(std::is_floating_point_v<F>);
    if (std::isnan(v)) return 0;
    if (v >= static_cast<F>(2147483648.0)) return INT32_MAX;
    if (v <= static_cast<F>(-2147483648.0)) return INT32_MIN;
    return static_cast<int32_t>(v);
}

// The integer store rule: truncate to 32 bits and keep the low bits that the
// element holds (8 for uint8_t, 16 for uint16_t, all for int32_t).
template <typename T, typename F>
inline T storeInteger(F v) noexcept {
    return static_cast<T>(static_cast<uint32_t>(truncSat32(v)));
}

// Stores a computed double or float into an element of type T.
template <typename T, typename F>
inline T storeElement(F v) noexcept {
    if constexpr (std::is_floating_point_v<T>) {
        return static_cast<T>(v);
    } else {
        return storeInteger<T>(v);
    }
}

// Compile-time description of one element type.
template <uint32_t Code>
struct TypeInfo;
template <>
struct TypeInfo<wzType8U> {
    using T = uint8_t;
    static constexpr double fullScale = 255.0;
};
template <>
struct TypeInfo<wzType32S> {
    using T = int32_t;
    static constexpr double fullScale = 65535.0;
};
template <>
struct TypeInfo<wzType16U> {
    using T = uint16_t;
    static constexpr double fullScale = 65535.0;
};
template <>
struct TypeInfo<wzType32S24> {
    using T = int32_t;
    static constexpr double fullScale = 16777215.0;
};
template <>
struct TypeInfo<wzType32F> {
    using T = float;
    static constexpr double fullScale = 1.0;
};
template <>
struct TypeInfo<wzType64F> {
    using T = double;
    static constexpr double fullScale = 1.0;
};

template <uint32_t Code>
struct TypeTag {
    static constexpr uint32_t code = Code;
    using T = typename TypeInfo<Code>::T;
    static constexpr double fullScale = TypeInfo<Code>::fullScale;
};

// Calls f(TypeTag<code>{}) for a known type code and returns true; returns
// false for an unknown code without calling f.
template <typename Fn>
inline bool dispatchType(uint32_t type, Fn &&f) {
    switch (type) {
        case wzType8U: f(TypeTag<wzType8U>{}); return true;
        case wzType32S: f(TypeTag<wzType32S>{}); return true;
        case wzType16U: f(TypeTag<wzType16U>{}); return true;
        case wzType32S24: f(TypeTag<wzType32S24>{}); return true;
        case wzType32F: f(TypeTag<wzType32F>{}); return true;
        case wzType64F: f(TypeTag<wzType64F>{}); return true;
        default: return false;
    }
}

// Full scale (the value of white) of a type code; 0 for an unknown code.
inline double fullScale(uint32_t type) noexcept {
    double fs = 0.0;
    dispatchType(type, [&](auto tag) { fs = decltype(tag)::fullScale; });
    return fs;
}

// Unaligned-safe element access: host buffers wrapped in headers need not be
// aligned to the element size. Compiles to plain loads and stores.
template <typename T>
inline T loadElement(const uint8_t *p) noexcept {
    T v;
    std::memcpy(&v, p, sizeof(T));
    return v;
}

template <typename T>
inline void storeRaw(uint8_t *p, T v) noexcept {
    std::memcpy(p, &v, sizeof(T));
}

// The first and last non-zero elements of a row of w elements of type T
// (for floats -0.0 is zero and NaN is not); false for an all-zero row. Each
// element is read at most once: from the left, then back from the right.
template <typename T>
inline bool nonZeroSpan(const uint8_t *row, int32_t w, int32_t &first, int32_t &last) noexcept {
    const auto nonZero = [row](int32_t i) { return loadElement<T>(row + i * sizeof(T)) != T(0); };
    first = 0;
    while (first < w && !nonZero(first)) ++first;
    if (first == w) return false;
    last = w - 1;
    while (last > first && !nonZero(last)) --last;
    return true;
}

// True when the byte ranges [a, a + na) and [b, b + nb) share no byte.
inline bool disjoint(const uint8_t *a, size_t na, const uint8_t *b, size_t nb) noexcept {
    const auto pa = reinterpret_cast<uintptr_t>(a);
    const auto pb = reinterpret_cast<uintptr_t>(b);
    return pa + na <= pb || pb + nb <= pa;
}

// True when address a is at or before address b (blocks of one buffer or not).
inline bool atOrBefore(const uint8_t *a, const uint8_t *b) noexcept {
    return reinterpret_cast<uintptr_t>(a) <= reinterpret_cast<uintptr_t>(b);
}

struct Kernels;

// Converts n elements from srcType to dstType (distinct known type codes) by
// the rule of wzImageCvtType, in its order: wider destinations from the last
// element to the first, narrower ones from the first. The pairs with kernels
// (8U <-> 32F, 8U <-> 16U) run those of `kernels` when the order of the
// vector walk cannot change the result (the blocks do not overlap, or the
// destination starts at or after the source when widening, at or before it
// when narrowing); other cases run the element loop.
void convertElements(const Kernels &kernels, uint32_t srcType, uint32_t dstType, const uint8_t *src,
                     uint8_t *dst, int64_t n);

// Reads element i of a block of type T as a double.
template <typename T>
inline double loadAsDouble(const uint8_t *data, int64_t i) noexcept {
    return static_cast<double>(loadElement<T>(data + i * static_cast<int64_t>(sizeof(T))));
}

// A copy of the whole block of source (smoothing reads all of it) in a new
// image of the given type, with source's region so that a blend covers the
// same pixels as in the source; null when it cannot be allocated.
wzImage *copyWithRegion(const wzImage &source, uint32_t type) noexcept;

}  // namespace morven
