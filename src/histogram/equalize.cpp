// Histogram equalisation (a match to the flat profile) and linear stretch of
// the occupied range.
#include "histogram/match_internal.hpp"
#include "morven/color.h"
#include "morven/histogram.h"

extern "C" {

MORVEN_API wzStatus wzHistogramEqualization(const wzImage *source, wzImage *destination) {
    wzImageColorProfile profile;
    wzImageFillColorProfile(source, &profile);
    morven::applyEqualization(profile, source, destination);
    return WZ_STATUS_OK;
}

MORVEN_API wzStatus wzHistogramStretch(const wzImage *source, wzImage *destination) {
    wzImageColorProfile profile;
    if (wzImageFillColorProfile(source, &profile) != WZ_STATUS_OK) return WZ_STATUS_ERROR;
    uint8_t table[768];
    switch (morven::stretchTable8(profile, table)) {
        case morven::Stretch::Empty: return WZ_STATUS_ERROR;
        case morven::Stretch::Flat: wzCopy(source, destination); return WZ_STATUS_ERROR;
        case morven::Stretch::Done: break;
    }
    wzHistogramMatchApply(nullptr, table, source, destination, nullptr);
    return WZ_STATUS_OK;
}

}  // extern "C"

namespace morven {

void applyEqualization(wzImageColorProfile &profile, const wzImage *source,
                       wzImage *destination) noexcept {
    wzImageColorProfile flat;
    wzImageColorProfileForEqualization(&flat);
    wzImageColorProfileNormalize(&profile);
    const wzHistogramMatchParams params{1.0f, 1.0f, 0, 256, &flat};
    const wzHistogramMatchStats stats{&profile};
    uint8_t table[768];
    wzHistogramMatchAddParamsCompute(&stats, &params, table);
    wzHistogramMatchApply(nullptr, table, source, destination, nullptr);
}

Stretch stretchTable8(const wzImageColorProfile &profile, uint8_t table[768]) noexcept {
    // Block b serves channel b + 1, counted in array 2 - b; a gray image has
    // the same histogram in every array and uses block 0 alone.
    bool stretched = false;
    bool occupied = false;
    for (int b = 0; b < 3; ++b) {
        const float *bins = profile.bins[2 - b];
        uint8_t *block = table + 256 * b;
        int lo = 0, hi = 255;
        while (lo < 256 && bins[lo] == 0.0f) ++lo;
        while (hi >= 0 && bins[hi] == 0.0f) --hi;
        occupied = occupied || lo <= hi;
        if (lo >= hi) {  // empty, or a single value: that channel stays as it is
            for (int i = 0; i < 256; ++i) block[i] = static_cast<uint8_t>(i);
            continue;
        }
        stretched = true;
        const float scale = 255.0f / static_cast<float>(hi - lo);
        for (int i = 0; i < lo; ++i) block[i] = 0;
        for (int i = lo; i < hi; ++i)
            block[i] = static_cast<uint8_t>(scale * static_cast<float>(i - lo));
        for (int i = hi; i < 256; ++i) block[i] = 255;
    }
    return !occupied ? Stretch::Empty : (stretched ? Stretch::Done : Stretch::Flat);
}

}  // namespace morven
