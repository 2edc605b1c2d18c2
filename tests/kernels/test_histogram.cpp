// Counting kernels: colour profiles and brightness histograms counted in
// integer sub-tables against counting 1.0f per sample, and the brightness
// row kernel in every variant against the largest of the three channels.
#include <gtest/gtest.h>

#include <vector>

#include "contrast/kernels.hpp"
#include "image/kernels.hpp"
#include "kernel_support.hpp"

using namespace kernel_test;
using morven::Isa;

TEST(KernelHistogram, ProfileFillEqualsFloatCountingOverRegions) {
    std::mt19937 rng(41);
    for (uint32_t enc : kEncodings)
        for (int round = 0; round < 25; ++round) {
            SCOPED_TRACE(std::to_string(enc) + " round " + std::to_string(round));
            const int32_t w = 1 + static_cast<int32_t>(rng() % 140);
            const int32_t h = 1 + static_cast<int32_t>(rng() % 6);
            const int n = wzGetNChannelFromEncoding(enc);
            const wzRect roi = randomRegion(w, h, rng);
            GuardedBlock b(blockSize(w, h, enc));
            // Narrow value ranges in some rounds: long runs of equal samples.
            const uint32_t spread = round % 3 == 0 ? 3 : 256;
            for (size_t i = 0; i < blockSize(w, h, enc); ++i)
                b.data[i] = static_cast<uint8_t>(rng() % spread);
            Header img(w, h, enc, b.data, roi);
            wzImageColorProfile expect{};
            for (int y = roi.y; y < roi.y + roi.height; ++y)
                for (int x = roi.x; x < roi.x + roi.width; ++x) {
                    const uint8_t *p = b.data + (y * w + x) * n;
                    // Array 3 - c holds channel c; one channel fills all three.
                    for (int c = 1; c <= 3; ++c)
                        expect.bins[3 - c][p[n == 1 ? 0 : offsetOf(enc, c)]] += 1.0f;
                }
            wzImageColorProfile got;
            ASSERT_EQ(wzImageFillColorProfile(img.img, &got), 0u);
            ASSERT_EQ(0, std::memcmp(&got, &expect, sizeof got));
        }
}

TEST(KernelHistogram, BrightnessRowIsTheLargestChannelInEveryVariant) {
    std::mt19937 rng(42);
    for (uint32_t enc : {wzEncodingBGR, wzEncodingRGB, wzEncodingARGB, wzEncodingRGBA}) {
        const int stride = wzGetNChannelFromEncoding(enc);
        const ptrdiff_t off[3] = {offsetOf(enc, 1), offsetOf(enc, 2), offsetOf(enc, 3)};
        for (Isa isa : availableIsas())
            for (size_t n : awkwardLengths()) {
                SCOPED_TRACE(isaName(isa) + " encoding " + std::to_string(enc) + " n " +
                             std::to_string(n));
                GuardedBlock src(n * stride, n % 2 == 0), out(n, n % 3 == 0);
                fillBytes(src.data, n * stride, rng);
                morven::brightnessRow(isa, src.data, stride, off, out.data, n);
                for (size_t i = 0; i < n; ++i) {
                    const uint8_t *p = src.data + i * stride;
                    ASSERT_EQ(out.data[i], std::max({p[off[0]], p[off[1]], p[off[2]]}))
                        << "pixel " << i;
                }
            }
    }
}

TEST(KernelHistogram, BrightnessStatisticsAndByteCountsEqualPlainCounting) {
    std::mt19937 rng(43);
    for (uint32_t enc : kEncodings)
        for (int round = 0; round < 10; ++round) {
            SCOPED_TRACE(std::to_string(enc) + " round " + std::to_string(round));
            // Up to 8192 x 3 pixels: several brightness buffers' worth.
            const int32_t w = 1 + static_cast<int32_t>(rng() % (round < 5 ? 100 : 8192));
            const int32_t h = 1 + static_cast<int32_t>(rng() % 3);
            const int n = wzGetNChannelFromEncoding(enc);
            GuardedBlock b(blockSize(w, h, enc));
            const uint32_t spread = round % 2 ? 256 : 5;
            for (size_t i = 0; i < blockSize(w, h, enc); ++i)
                b.data[i] = static_cast<uint8_t>(rng() % spread);
            Header img(w, h, enc, b.data, {0, 0, w, h});
            float expect[256] = {};
            for (int i = 0; i < w * h; ++i) {
                const uint8_t *p = b.data + i * n;
                const uint8_t v =
                    n == 1
                        ? p[0]
                        : std::max({p[offsetOf(enc, 1)], p[offsetOf(enc, 2)], p[offsetOf(enc, 3)]});
                expect[v] += 1.0f;
            }
            wzContrastEnhanceStats stats;
            ASSERT_EQ(wzContrastEnhanceStatsRetrieve(&stats, img.img, nullptr), 0u);
            ASSERT_EQ(0, std::memcmp(stats.hist, expect, sizeof expect));
            ASSERT_EQ(stats.total, static_cast<float>(w * h));

            // The byte counter fed in uneven pieces.
            morven::ByteCounter counter;
            const size_t bytes = blockSize(w, h, enc);
            for (size_t at = 0; at < bytes;) {
                const size_t piece = std::min(bytes - at, static_cast<size_t>(rng() % 40));
                counter.add(b.data + at, piece);
                at += piece;
            }
            uint64_t plain[256] = {};
            for (size_t i = 0; i < bytes; ++i) ++plain[b.data[i]];
            ASSERT_EQ(0, std::memcmp(counter.totals(), plain, sizeof plain));
        }
}

TEST(KernelHistogram, RunsOfOneValueLongerThanTheFlushWindowCountExactly) {
    // 8 * 65535 samples fill every 16-bit sub-count of one value: more than
    // that must reach the totals whole, in one row or spread over rows.
    std::mt19937 rng(44);
    const size_t run = 3 * 8 * 65535 + 12345;
    std::vector<uint8_t> same(run, 77);
    morven::ByteCounter counter;
    for (size_t at = 0; at < run;) {
        const size_t piece = std::min(run - at, static_cast<size_t>(1 + rng() % 200000));
        counter.add(same.data() + at, piece);
        at += piece;
    }
    ASSERT_EQ(counter.totals()[77], run);
    ASSERT_EQ(counter.totals()[76], 0u);

    for (uint32_t enc : {wzEncodingGray, wzEncodingBGR, wzEncodingRGBA})
        for (int32_t w : {1, 1500, 700000}) {
            SCOPED_TRACE(std::to_string(enc) + " width " + std::to_string(w));
            const int32_t h = static_cast<int32_t>(run / static_cast<size_t>(w) / 3 + 1);
            const size_t bytes = blockSize(w, h, enc);
            std::vector<uint8_t> block(bytes);
            const int n = wzGetNChannelFromEncoding(enc);
            for (size_t i = 0; i < bytes; ++i) block[i] = static_cast<uint8_t>(10 + i % n);
            Header img(w, h, enc, block.data(), {0, 0, w, h});
            wzImageColorProfile profile;
            ASSERT_EQ(wzImageFillColorProfile(img.img, &profile), 0u);
            const float pixels = static_cast<float>(static_cast<int64_t>(w) * h);
            for (int c = 1; c <= 3; ++c) {
                const int value = 10 + (n == 1 ? 0 : offsetOf(enc, c));
                ASSERT_EQ(profile.bins[3 - c][value], pixels) << "channel " << c;
            }
            wzContrastEnhanceStats stats;
            ASSERT_EQ(wzContrastEnhanceStatsRetrieve(&stats, img.img, nullptr), 0u);
            ASSERT_EQ(stats.hist[n == 1 ? 10 : 12], pixels);
        }
}
