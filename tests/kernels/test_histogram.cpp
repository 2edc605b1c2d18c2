// Counting in sub-tables: colour profiles, brightness histograms and the
// byte and channel counters against plain counting, also across flushes.
#include "kernel_support.hpp"
#include "kernels/count.hpp"

using namespace kernel_test;

// Random sizes (up to several 4096-pixel brightness buffers), narrow value
// ranges (long runs of one value) or full ones: the profile of a random
// region (replacing stale counts), the brightness histogram of the whole image and the byte counter
// fed in uneven pieces equal counting 1 per sample.
TEST(KernelHistogram, ProfilesHistogramsAndByteCountsEqualPlainCounting) {
    std::mt19937 rng(41);
    for (uint32_t enc : kAllEncodings)
        for (int round = 0; round < 20; ++round) {
            SCOPED_TRACE(std::to_string(enc) + " round " + std::to_string(round));
            const int32_t w = 1 + int32_t(rng() % (round % 4 == 3 ? 8192 : 140)),
                          h = 1 + int32_t(rng() % 5);
            const size_t bytes = blockSize(w, h, enc);
            const wzRect roi = randomRegion(w, h, rng);
            GuardedBlock b(bytes);
            for (size_t i = 0; i < bytes; ++i) b.data[i] = uint8_t(rng() % (round % 3 ? 256 : 3));
            HeaderPtr img = header(w, h, enc, b.data, roi);
            wzImageColorProfile profile, expectProfile{};
            for (auto &a : profile.bins) std::fill(a, a + 256, 5.0f);  // stale counts are replaced
            float expectHist[256] = {};
            uint64_t expectBytes[256] = {};
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) {
                    const uint8_t *p = b.data + (size_t(y) * w + x) * channels(enc);
                    const bool inside =
                        x >= roi.x && y >= roi.y && x < roi.x + roi.width && y < roi.y + roi.height;
                    for (int c = 1; c <= 3 && inside; ++c)  // array 3 - c holds channel c
                        expectProfile.bins[3 - c][p[offsetOf(enc, c)]] += 1.0f;
                    expectHist[brightnessOf(enc, p)] += 1.0f;
                    for (size_t k = 0; k < channels(enc); ++k) ++expectBytes[p[k]];
                }
            ASSERT_EQ(wzImageFillColorProfile(img.get(), &profile), 0u);
            ASSERT_EQ(0, std::memcmp(&profile, &expectProfile, sizeof profile));
            wzContrastEnhanceStats stats;
            ASSERT_EQ(wzContrastEnhanceStatsRetrieve(&stats, img.get(), nullptr), 0u);
            ASSERT_EQ(0, std::memcmp(stats.hist, expectHist, sizeof expectHist));
            ASSERT_EQ(stats.total, float(w * h));
            morven::ByteCounter counter;
            for (size_t at = 0, piece; at < bytes; at += piece)
                counter.add(b.data + at, piece = std::min(bytes - at, size_t(rng() % 40)));
            ASSERT_EQ(0, std::memcmp(counter.totals(), expectBytes, sizeof expectBytes));
        }
}

// Runs of one value across many flushes of the sub-tables (windows made
// small here, and the real one) must reach the totals whole, fed in uneven
// pieces; then long runs through the public functions, in one row or spread
// over rows.
TEST(KernelHistogram, RunsOfOneValueAcrossFlushesCountExactly) {
    std::mt19937 rng(44);
    const size_t run = 3 * 8 * 65535 + 12345;
    Bytes same(run, 77), pixels(12 * 1700);
    const ptrdiff_t bgr[3] = {0, 1, 2}, argb[3] = {3, 2, 1};
    for (uint32_t window : {7u, 1000u, UINT32_MAX}) {
        morven::ByteCounter bytes(window);
        for (size_t at = 0, piece; at < run; at += piece)
            bytes.add(same.data() + at, piece = std::min(run - at, size_t(1 + rng() % 200000)));
        ASSERT_EQ(bytes.totals()[77], run) << window;
        ASSERT_EQ(bytes.totals()[76], 0u) << window;
        for (int stride : {3, 4}) {
            const ptrdiff_t *o = stride == 3 ? bgr : argb;
            const size_t n = pixels.size() / size_t(stride);
            for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = uint8_t(20 + i % size_t(stride));
            morven::ChannelCounter channels(window);
            for (size_t at = 0, piece; at < n; at += piece)
                channels.add(pixels.data() + at * size_t(stride), stride, o,
                             piece = std::min(n - at, size_t(1 + rng() % 900)));
            for (int a = 0; a < 3; ++a)  // array a holds the byte at o[2 - a]
                ASSERT_EQ(channels.totals(a)[20 + o[2 - a]], n)
                    << window << " stride " << stride << " array " << a;
        }
    }
    for (uint32_t enc : {wzEncodingGray, wzEncodingBGR, wzEncodingRGBA})
        for (int32_t w : {1, 1500, 700000}) {
            const int32_t h = int32_t(run / size_t(w) / 3 + 1);
            Bytes block(blockSize(w, h, enc));
            for (size_t i = 0; i < block.size(); ++i) block[i] = uint8_t(10 + i % channels(enc));
            HeaderPtr img = header(w, h, enc, block.data(), {0, 0, w, h});
            wzImageColorProfile profile;
            wzContrastEnhanceStats stats;
            ASSERT_EQ(wzImageFillColorProfile(img.get(), &profile), 0u);
            ASSERT_EQ(wzContrastEnhanceStatsRetrieve(&stats, img.get(), nullptr), 0u);
            const float pixels = float(int64_t(w) * h);
            for (int c = 1; c <= 3; ++c)
                ASSERT_EQ(profile.bins[3 - c][10 + offsetOf(enc, c)], pixels) << enc << " w " << w;
            ASSERT_EQ(stats.hist[brightnessOf(enc, block.data())], pixels) << enc << " w " << w;
        }
}
