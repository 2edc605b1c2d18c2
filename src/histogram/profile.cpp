// Colour profiles: per-channel 256-bin histograms of an image region.
#include <cstdlib>
#include <cstring>

#include "image/image_internal.hpp"
#include "morven/histogram.h"

using namespace morven;

extern "C" {

MORVEN_API wzImageColorProfile *wzImageColorProfileCreate(void) {
    return static_cast<wzImageColorProfile *>(std::calloc(1, sizeof(wzImageColorProfile)));
}

MORVEN_API void wzImageColorProfileReset(wzImageColorProfile *profile) {
    std::memset(profile, 0, sizeof *profile);
}

MORVEN_API void wzImageColorProfileRelease(wzImageColorProfile **profile) {
    if (!*profile) return;
    std::free(*profile);
    *profile = nullptr;
}

MORVEN_API wzStatus wzImageFillColorProfile(const wzImage *image, wzImageColorProfile *profile) {
    std::memset(profile, 0, sizeof *profile);
    if (image->type != wzType8U || !isValidEncoding(image->encoding)) return WZ_STATUS_ERROR;
    const int32_t rows = image->roi.height;
    const int32_t cols = image->roi.width;
    Cursor c = regionCursor(*image);
    // Integer counts, converted once: identical to adding 1.0f per sample
    // while a bin stays below 2^24, where a float bin stops growing.
    uint64_t counts[3][256] = {};
    if (c.step == 1) {
        for (int32_t y = 0; y < rows; ++y, c.p += c.gap)
            for (int32_t x = 0; x < cols; ++x) ++counts[2][*c.p++];
    } else {
        const ChannelBytes o = channelBytes(*image);
        for (int32_t y = 0; y < rows; ++y, c.p += c.gap) {
            for (int32_t x = 0; x < cols; ++x, c.p += c.step) {
                ++counts[2][c.p[o.c[0]]];
                ++counts[1][c.p[o.c[1]]];
                ++counts[0][c.p[o.c[2]]];
            }
        }
    }
    constexpr uint64_t kFloatLimit = uint64_t{1} << 24;
    for (int a = 0; a < 3; ++a)
        for (int v = 0; v < 256; ++v)
            profile->bins[a][v] = static_cast<float>(counts[a][v] < kFloatLimit ? counts[a][v] : kFloatLimit);
    if (c.step == 1) {
        std::memcpy(profile->bins[1], profile->bins[2], sizeof profile->bins[2]);
        std::memcpy(profile->bins[0], profile->bins[2], sizeof profile->bins[2]);
    }
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
