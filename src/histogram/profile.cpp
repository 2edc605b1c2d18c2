// Colour profiles: per-channel 256-bin histograms of an image region.
#include <cstdlib>
#include <cstring>

#include "image/image_internal.hpp"
#include "image/kernels.hpp"
#include "morven/histogram.h"

using namespace morven;

namespace {

// Per-channel counts of a colour region. Pixel j (in counting order) counts
// into table j % 8 of each channel, so that runs of equal samples do not
// wait on each other's stores; 16-bit tables keep all of them in the first
// level cache. Every 8 * 65535 pixels the tables are flushed into 64-bit
// totals, before any entry could wrap.
struct ChannelCounter {
    static constexpr int kTables = 8;
    static constexpr uint32_t kWindow = kTables * 65535;

    uint16_t sub[3][kTables][256];
    uint64_t total[3][256];
    uint32_t used;  // pixels counted since the last flush

    void flush() {
        for (int a = 0; a < 3; ++a)
            for (int v = 0; v < 256; ++v) {
                uint64_t sum = 0;
                for (int k = 0; k < kTables; ++k) sum += sub[a][k][v];
                total[a][v] += sum;
            }
        std::memset(sub, 0, sizeof sub);
        used = 0;
    }

    // Counts `pixels` pixels of Stride bytes: array 2 from the byte at o[0]
    // (channel 1), array 1 from o[1], array 0 from o[2].
    template <ptrdiff_t Stride>
    void add(const uint8_t *p, const ptrdiff_t o[3], size_t pixels) {
        const uint8_t *b = p + o[0];
        const uint8_t *g = p + o[1];
        const uint8_t *r = p + o[2];
        while (pixels > 0) {
            if (used == kWindow) flush();
            const size_t take = pixels < kWindow - used ? pixels : kWindow - used;
            size_t i = 0;
            unsigned k = used % kTables;
            auto one = [&](unsigned t, size_t j) {
                ++sub[2][t][b[j * Stride]];
                ++sub[1][t][g[j * Stride]];
                ++sub[0][t][r[j * Stride]];
            };
            for (; i < take && k != 0; ++i, k = (k + 1) % kTables) one(k, i);
            for (; i + kTables <= take; i += kTables)
                for (unsigned t = 0; t < kTables; ++t) one(t, i + t);
            for (k = 0; i < take; ++i, ++k) one(k, i);
            used += static_cast<uint32_t>(take);
            pixels -= take;
            b += take * Stride;
            g += take * Stride;
            r += take * Stride;
        }
    }
};

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
    ChannelCounter counter{};
    for (int32_t y = 0; y < rows; ++y, c.p += c.step * cols + c.gap) {
        if (c.step == 3)
            counter.add<3>(c.p, o.c, n);
        else
            counter.add<4>(c.p, o.c, n);
    }
    counter.flush();
    for (int a = 0; a < 3; ++a) storeBins(counter.total[a], profile->bins[a]);
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
