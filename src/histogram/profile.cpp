// Colour profiles: per-channel 256-bin histograms of an image region.
#include <cstdlib>
#include <cstring>

#include "common/memory.hpp"
#include "image/image_internal.hpp"
#include "kernels/count.hpp"
#include "morven/histogram.h"

using namespace morven;

namespace {

// A float bin grown by 1.0f per sample stops at 2^24 (2^24 + 1 rounds back
// to even), so saturating the integer count there gives the same bin.
void storeBins(const uint64_t counts[256], float bins[256]) {
    constexpr uint64_t kFloatLimit = uint64_t{1} << 24;
    for (int v = 0; v < 256; ++v)
        bins[v] = static_cast<float>(counts[v] < kFloatLimit ? counts[v] : kFloatLimit);
}

}  // namespace

extern "C" {

MORVEN_API wzImageColorProfile *wzImageColorProfileCreate(void) {
    return allocZeroed<wzImageColorProfile>().release();
}

MORVEN_API void wzImageColorProfileReset(wzImageColorProfile *profile) {
    std::memset(profile, 0, sizeof *profile);
}

MORVEN_API void wzImageColorProfileRelease(wzImageColorProfile **profile) {
    releaseRecord(profile);
}

MORVEN_API wzStatus wzImageFillColorProfile(const wzImage *image, wzImageColorProfile *profile) {
    std::memset(profile, 0, sizeof *profile);
    if (image->type != wzType8U || !isValidEncoding(image->encoding)) return WZ_STATUS_ERROR;
    const int32_t rows = image->roi.height;
    const int32_t cols = image->roi.width;
    if (rows < 1 || cols < 1) return WZ_STATUS_OK;
    Cursor c = regionCursor(*image);
    const size_t n = static_cast<size_t>(cols);
    if (c.step == 1) {
        // One channel: counted once, copied to the other two arrays.
        ByteCounter counter;
        for (int32_t y = 0; y < rows; ++y, c.p += c.step * cols + c.gap) counter.add(c.p, n);
        storeBins(counter.totals(), profile->bins[2]);
        std::memcpy(profile->bins[1], profile->bins[2], sizeof profile->bins[2]);
        std::memcpy(profile->bins[0], profile->bins[2], sizeof profile->bins[2]);
        return WZ_STATUS_OK;
    }
    const ChannelBytes o = channelBytes(*image);
    ChannelCounter counter;
    for (int32_t y = 0; y < rows; ++y, c.p += c.step * cols + c.gap)
        counter.add(c.p, static_cast<int32_t>(c.step), o.c, n);
    for (int a = 0; a < 3; ++a) storeBins(counter.totals(a), profile->bins[a]);
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzImageColorProfileNormalize(wzImageColorProfile *profile) {
    float total = 0.0f;
    for (int v = 0; v < 256; ++v) total += profile->bins[2][v];
    for (int a = 0; a < 3; ++a)
        for (int v = 0; v < 256; ++v) profile->bins[a][v] /= total;
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzImageColorProfileForEqualization(wzImageColorProfile *profile) {
    for (int a = 0; a < 3; ++a)
        for (int v = 0; v < 256; ++v) profile->bins[a][v] = 1.0f / 256.0f;
    return WZ_STATUS_OK;
}

}  // extern "C"
