// Helpers of the extended entry points: statistics masks, 8- and 16-bit
// sample access, and the masked blend of 16-bit images.
#pragma once

#include <cstddef>
#include <cstdint>

#include "image/image_internal.hpp"
#include "morven/image.h"

namespace morven {

// True when the image's region lies inside its block (regions are otherwise
// not checked by the library).
inline bool regionInside(const wzImage &img) noexcept {
    const wzRect &r = img.roi;
    return r.x >= 0 && r.y >= 0 && r.width >= 0 && r.height >= 0 &&
           int64_t{r.x} + r.width <= img.width && int64_t{r.y} + r.height <= img.height;
}

// 8-bit or 16-bit samples in a known encoding, with the region inside the block.
inline bool isDeepCapable(const wzImage &img) noexcept {
    return (img.type == wzType8U || img.type == wzType16U) && isValidEncoding(img.encoding) &&
           regionInside(img);
}

// A statistics mask: null, or an 8-bit gray image whose region has the given
// size and lies inside its block.
inline bool statsMaskFits(const wzImage *mask, int32_t width, int32_t height) noexcept {
    return !mask || (mask->type == wzType8U && mask->encoding == wzEncodingGray &&
                     mask->roi.width == width && mask->roi.height == height && regionInside(*mask));
}

// Row by row access to a statistics mask; a null mask selects everything.
class MaskRows {
public:
    explicit MaskRows(const wzImage *mask) noexcept {
        if (mask) {
            const Cursor c = regionCursor(*mask, 1);
            row_ = c.p;
            pitch_ = mask->width;
        }
    }
    // The mask levels of region row y, or null when every pixel counts.
    const uint8_t *row(int32_t y) const noexcept {
        return row_ ? row_ + static_cast<ptrdiff_t>(y) * pitch_ : nullptr;
    }

private:
    const uint8_t *row_ = nullptr;
    ptrdiff_t pitch_ = 0;
};

// Sample k of a row of 8- or 16-bit elements (k counts elements).
inline uint32_t sampleAt(const uint8_t *p, bool wide, ptrdiff_t k) noexcept {
    return wide ? loadElement<uint16_t>(p + 2 * k) : p[k];
}

// The 16-bit level nearest to an 8-bit level's bin: v / 257 rounded.
inline uint32_t level8Of16(uint32_t v) noexcept { return (v + 128) / 257; }

// dst = a + w * (b - a) with w = mask / 255 over a's region, per channel
// 1..3 (the one channel of a gray image), for 16-bit images, in double
// precision rounded to the nearest level: level 255 gives b exactly, 0 gives
// a. Returns
// false, writing nothing, unless all three images are 16-bit with one layout
// and the mask is 8-bit gray.
bool blendMasked16(const wzImage &a, const wzImage &b, wzImage &dst, const wzImage &mask) noexcept;

// The 8-bit blend (wzAddWeigthedM) or the 16-bit one, by the images' type.
wzStatus blendMaskedAny(const wzImage &a, const wzImage &b, wzImage &dst,
                        const wzImage &mask) noexcept;

}  // namespace morven
