// Working colour spaces of the extended matching: rows of 8- or 16-bit
// pixels into three planes of working values on a 0..65535 scale, and back.
//
// Plane 0 is the luma Y' (or L*), planes 1 and 2 the chroma Cb, Cr (or a*,
// b*); a gray pixel has the chroma of gray. The way back inverts the way in
// exactly up to float rounding, so a row that goes in and out unchanged
// comes back within a fraction of a level, and is rounded to the nearest.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/memory.hpp"
#include "morven/histogram.h"

namespace morven {

// Where the samples of channels 1, 2, 3 lie in a pixel.
struct PixelLayout {
    bool wide;         // 16-bit samples (else 8-bit)
    bool gray;         // one channel
    ptrdiff_t stride;  // bytes per pixel
    ptrdiff_t c[3];    // byte offsets of channels 1, 2, 3 (all 0 for gray)
};

PixelLayout pixelLayout(const wzImage &img) noexcept;

class WorkingSpace {
public:
    // Prepares the conversions of a luma/chroma space (wzSpaceLuma,
    // wzSpaceYCbCr or wzSpaceLab) for samples of the given width; false
    // when its tables cannot be allocated.
    bool init(int32_t space, bool wide) noexcept;

    // Converts n pixels into the planes w[0..2] (n values each).
    void forward(const uint8_t *row, const PixelLayout &layout, size_t n,
                 float *const w[3]) const noexcept;

    // Converts n pixels of working values back into a row, clamped and
    // rounded to the sample width; a fourth channel is not written.
    void inverse(const float *const w[3], const PixelLayout &layout, size_t n,
                 uint8_t *row) const noexcept;

private:
    bool lab_ = false;
    float full_ = 255.0f;       // full scale of a sample
    float toXyz_[3][3] = {};    // linear sRGB -> XYZ over the white
    float fromXyz_[3][3] = {};  // and back
    FreePtr<float> decode_;     // sRGB sample -> linear light, one entry per sample value
    FreePtr<float> cbrt_;       // Lab's f(t) on a grid over 0..1
    FreePtr<float> encode_;     // linear light -> sRGB on a grid over 0..1, in samples
};

}  // namespace morven
