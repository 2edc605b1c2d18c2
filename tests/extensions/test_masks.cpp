// Statistics masks: the masked statistics count exactly the selected pixels,
// and every masked filter acts as if those were the whole picture: an
// all-255 mask gives the unmasked result bit for bit, an empty one
// WZ_STATUS_NO_PIXELS and the source's values, a random one what the
// unmasked filter gives a picture of the selected pixels alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <numeric>
#include <string>

#include "ext_support.hpp"

using namespace ext;

namespace {

// A filter on source, statistics mask (null: the unmasked filter, the core
// one where there is one), blend mask and destination.
using Filter = std::function<wzStatus(wzImage *, const wzImage *, const wzImage *, wzImage *)>;
struct Op {
    std::string name;
    Filter run;
    bool blends = true;    // takes a blend mask
    bool perPixel = true;  // a pixel's result depends on its colour and the statistics alone
};

}  // namespace

// A random mask, an empty one or none, every encoding: the 8-bit profile
// (channel c in array 3 - c; a 16-bit sample v in bin (v + 128) / 257), the
// deep profile of the channels (bin v, or 257 v for an 8-bit sample), the
// totals of the deep profiles in the other spaces and the contrast
// statistics (brightness, the largest of channels 1..3, binned likewise;
// total the number selected) against plain loops.
TEST(ExtMasks, StatisticsCountTheSelectedPixels) {
    std::mt19937 rng(3);
    for (uint32_t type : {wzType8U, wzType16U})
        for (uint32_t enc : kAllEncodings)
            for (double share : {0.0, 0.4, 1.0}) {  // 1: no mask
                SCOPED_TRACE(testing::Message()
                             << "type " << type << " encoding " << enc << " share " << share);
                ImagePtr whole = randomImage(29, 17, enc, type, rng),
                         mask = randomMask(27, 16, rng, share),
                         wholeMask = randomMask(29, 17, rng, share);
                ImagePtr img = clone(whole.get());
                setRoi(img.get(), 2, 1, 25, 14);
                setRoi(mask.get(), 1, 2, 25, 14);
                const bool wide = type == wzType16U, gray = enc == wzEncodingGray, all = share == 1;
                const auto bin8 = [wide](int v) { return wide ? (v + 128) / 257 : v; };
                wzImageColorProfile want8{}, p8, p8b;
                std::vector<double> want16(3 * 65536);
                wzContrastEnhanceStats wantStats{}, stats;
                int selected = 0;
                for (int i = 0; i < 29 * 17; ++i) {
                    const int x = i % 29, y = i / 29, k0 = gray ? 2 : 0;
                    const bool inside = x >= 2 && y >= 1 && x < 27 && y < 15 &&
                                        (all || mask->data[(y + 1) * 27 + x - 1]);
                    selected += inside;
                    int b = 0;
                    for (int k = 0; k < colours(img.get()); ++k) {
                        const int v = get(img.get(), x, y, k + 1);
                        b = std::max(b, v);
                        if (!inside) continue;
                        want16[(2 - k) * 65536 + (wide ? v : 257 * v)] += 1.0;
                        for (int a = 2 - k - k0; a <= 2 - k; ++a) want8.bins[a][bin8(v)] += 1.0f;
                    }
                    if (all || wholeMask->data[i])
                        wantStats.hist[bin8(b)] += 1.0f, wantStats.total += 1.0f;
                }
                const wzImage *m = all ? nullptr : mask.get();
                EXPECT_EQ(wzImageFillColorProfileMasked(img.get(), m, &p8), 0u);
                EXPECT_EQ(std::memcmp(&p8, &want8, sizeof p8), 0);
                wzHistogramMatchStats ms{&p8b};
                EXPECT_EQ(wzHistogramMatchStatsRetrieveMasked(&ms, img.get(), m), 0u);
                EXPECT_EQ(std::memcmp(&p8b, &want8, sizeof p8), 0);
                for (int32_t space = wzSpaceChannels; space <= wzSpaceLab; ++space) {
                    Profile16Ptr p16 = profile16(img.get(), space, m);
                    ASSERT_TRUE(p16 && p16->space == space);
                    for (int a = 0; a < 3; ++a) {
                        const double *bins = p16->bins[a];
                        EXPECT_EQ(std::accumulate(bins, bins + 65536, 0.0), selected);
                        if (space == wzSpaceChannels && (a == 2 || !gray)) {
                            EXPECT_TRUE(std::equal(bins, bins + 65536, &want16[a * 65536])) << a;
                        }
                    }
                }
                EXPECT_EQ(wzContrastEnhanceStatsRetrieveMasked(
                              &stats, whole.get(), all ? nullptr : wholeMask.get(), nullptr),
                          0u);
                EXPECT_EQ(std::memcmp(&stats, &wantStats, sizeof stats), 0);
            }
}

// The filters on a picture of 40 colours (each selected at least once when
// any pixel is), 8 and 16 bits, separate and in place, the statistics mask a
// region of a larger block: every pixel of the region gets what the
// unmasked filter gives its colour in a one-row picture of the selected
// pixels, or keeps its colour where the blend mask (of levels 0 and 255) is
// 0, and with its fourth channel where nothing is selected. The destination
// keeps its values outside its region, and otherwise its fourth channel.
// The smoothed transfer, whose result is not per colour, is only compared
// with the unmasked filter.
TEST(ExtMasks, FiltersSeeOnlyTheSelectedPixels) {
    constexpr int W = 31, H = 19, K = 40;
    std::mt19937 rng(4);
    SupportPtr support(wzHistogramTransferSupportCreate());
    for (uint32_t type : {wzType8U, wzType16U})
        for (uint32_t enc : {wzEncodingGray, wzEncodingRGBA}) {
            const bool wide = type == wzType16U;
            const int n = wzGetNChannelFromEncoding(enc);
            ImagePtr ref = randomImage(16, 16, enc, type, rng);
            wzImageColorProfile target;
            wzImageFillColorProfileMasked(ref.get(), nullptr, &target);
            Profile16Ptr deep[4];
            for (int32_t space = 0; space < 4; ++space) deep[space] = profile16(ref.get(), space);
            const wzHistogramMatchParams mp{0.9f, 0.8f, 0, 60, &target};
            const wzContrastEnhanceParams cp{9.0f, 30.0f, 0, 255, 0};
            const auto match = [&](int32_t space) {  // -1: the 8-bit target in channels
                return [&, space](wzImage *s, const wzImage *m, const wzImage *b, wzImage *d) {
                    if (!m && !wide && space < 0)
                        return wzHistogramMatchFilter(&mp, s, b, d, nullptr);
                    const wzHistogramMatchOptions o{std::max(space, 0), 0, m,
                                                    space < 0 ? nullptr : deep[space].get()};
                    return wzHistogramMatchFilterWithOptions(&mp, &o, s, b, d, nullptr);
                };
            };
            const auto transfer = [&](int32_t space, int smooth) {
                return
                    [&, space, smooth](wzImage *s, const wzImage *m, const wzImage *b, wzImage *d) {
                        const wzHistogramTransferParams tp{&target, 0.9f,   0.8f, 1, 9.0f,
                                                           50.0f,   smooth, 0.2f, 2, 60};
                        if (!m && !wide && space < 0)
                            return wzHistogramTransferFilter(&tp, support.get(), s, b, d, nullptr);
                        const wzHistogramMatchOptions o{std::max(space, 0), 0, m,
                                                        space < 0 ? nullptr : deep[space].get()};
                        return wzHistogramTransferFilterWithOptions(&tp, &o, support.get(), s, b, d,
                                                                    nullptr);
                    };
            };
            const std::vector<Op> regionOps = {
                {"equalization",
                 [=](wzImage *s, const wzImage *m, const wzImage *, wzImage *d) {
                     return m || wide ? wzHistogramEqualizationMasked(s, m, d)
                                      : wzHistogramEqualization(s, d);
                 },
                 false},
                {"stretch",
                 [=](wzImage *s, const wzImage *m, const wzImage *, wzImage *d) {
                     return m || wide ? wzHistogramStretchMasked(s, m, d)
                                      : wzHistogramStretch(s, d);
                 },
                 false},
                {"match", match(wide ? wzSpaceChannels : -1)},
                {"match in luma or Y'CbCr", match(wide ? wzSpaceLuma : wzSpaceYCbCr)},
            };
            std::vector<Op> wholeOps = {
                // contrast measures whole pictures
                {"contrast",
                 [&](wzImage *s, const wzImage *m, const wzImage *b, wzImage *d) {
                     return m || wide ? wzContrastEnhanceFilterMasked(&cp, s, m, b, d, nullptr)
                                      : wzContrastEnhanceFilter(&cp, s, b, d, nullptr);
                 }},
                {"transfer in Lab", transfer(wzSpaceLab, 0)},
            };
            if (enc != wzEncodingGray)  // the core refuses to smooth gray
                wholeOps.push_back({"smoothed transfer", transfer(-1, 1), true, false});
            std::vector<std::array<int, 4>> palette(K);
            for (auto &c : palette)
                for (int &v : c) v = int(rng() % uint32_t(full(ref.get()) + 1));

            for (bool whole : {false, true})
                for (double share : {0.0, 0.3, 1.0}) {
                    const wzRect roi = whole ? wzRect{0, 0, W, H} : wzRect{2, 1, 27, 16};
                    ImagePtr src = makeImage(W, H, enc, type),
                             dst0 = randomImage(W, H, enc, type, rng);
                    ImagePtr mask = filledMask(roi.width + 3, roi.height + 2, 0),
                             blend = randomMask(roi.width, roi.height, rng, 0.5);
                    setRoi(mask.get(), 2, 1, roi.width, roi.height);
                    std::vector<int> index(W * H), picked;
                    for (int i = 0; i < W * H; ++i) {
                        const int x = i % W - roi.x, y = i / W - roi.y, r = y * roi.width + x;
                        const bool inside = x >= 0 && y >= 0 && x < roi.width && y < roi.height;
                        index[i] = inside && r < K ? r : int(rng() % K);
                        if (inside) {
                            uint8_t &level = mask->data[(y + 1) * mask->width + x + 2];
                            level = share == 1.0                  ? 255
                                    : rng() % 1000 < share * 1000 ? uint8_t(1 + rng() % 255)
                                                                  : 0;
                            if (share > 0.0 && r < K) level = std::max<uint8_t>(level, 1);
                            if (level) picked.push_back(index[i]);
                            blend->data[r] = blend->data[r] ? 255 : 0;
                        }
                        for (int c = 1; c <= n; ++c)
                            put(src.get(), i % W, i / W, c, palette[index[i]][c - 1]);
                    }
                    src->roi = roi;
                    if (!whole) setRoi(dst0.get(), 3, 2, roi.width, roi.height);
                    ImagePtr compact = makeImage(std::max(int(picked.size()), 1), 1, enc, type);
                    for (size_t i = 0; i < picked.size(); ++i)
                        for (int c = 1; c <= n; ++c)
                            put(compact.get(), int(i), 0, c, palette[picked[i]][c - 1]);

                    for (const Op &op : whole ? wholeOps : regionOps)
                        for (bool inPlace : {false, true}) {
                            SCOPED_TRACE(testing::Message()
                                         << op.name << ", type " << type << " encoding " << enc
                                         << " share " << share << (inPlace ? " in place" : ""));
                            const wzImage *b = op.blends ? blend.get() : nullptr,
                                          *before = inPlace ? src.get() : dst0.get();
                            ImagePtr s = clone(src.get()), d = clone(before);
                            wzImage *out = inPlace ? s.get() : d.get();
                            const wzStatus status = op.run(s.get(), mask.get(), b, out);
                            if (share == 1.0) {
                                ImagePtr s2 = clone(src.get()), d2 = clone(before);
                                wzImage *out2 = inPlace ? s2.get() : d2.get();
                                EXPECT_EQ(status, op.run(s2.get(), nullptr, b, out2));
                                EXPECT_EQ(snapshot(out), snapshot(out2));
                            }
                            if (!op.perPixel) continue;
                            std::map<int, std::array<int, 4>> result;  // colour index -> result
                            if (picked.empty()) {
                                EXPECT_EQ(status, WZ_STATUS_NO_PIXELS);
                            } else {
                                ImagePtr cs = clone(compact.get()), cd = clone(compact.get());
                                EXPECT_EQ(status, op.run(cs.get(), nullptr, nullptr, cd.get()));
                                for (size_t i = 0; i < picked.size(); ++i) {
                                    std::array<int, 4> v{};
                                    for (int c = 0; c < 3; ++c)
                                        v[c] = get(cd.get(), int(i), 0, std::min(n, c + 1));
                                    ASSERT_EQ(result.emplace(picked[i], v).first->second, v)
                                        << "one colour, two results";
                                }
                            }
                            const int ox = before->roi.x, oy = before->roi.y;
                            int wrong = 0;
                            for (int i = 0; i < W * H; ++i) {
                                const int x = i % W, y = i / W, rx = x - roi.x, ry = y - roi.y;
                                const bool inRegion =
                                    rx >= 0 && ry >= 0 && rx < roi.width && ry < roi.height;
                                const bool kept =
                                    picked.empty() ||
                                    (b && inRegion && !blend->data[ry * roi.width + rx]);
                                for (int c = 1;
                                     c <= (picked.empty() ? n : std::min(n, 3)) && inRegion; ++c)
                                    wrong += get(out, ox + rx, oy + ry, c) !=
                                             (kept ? palette[index[i]] : result[index[i]])[c - 1];
                                const bool inOut =
                                    x >= ox && y >= oy && x < ox + roi.width && y < oy + roi.height;
                                for (int c = 1; c <= n; ++c)  // outside the region, and alpha
                                    if ((c == 4 && !picked.empty()) || !inOut)
                                        wrong += get(out, x, y, c) != get(before, x, y, c);
                            }
                            EXPECT_EQ(wrong, 0);
                        }
                }
        }
}

// An empty target, 8-bit or deep: WZ_STATUS_NO_PIXELS, the source's values.
TEST(ExtMasks, EmptyTargetLeavesThePicture) {
    std::mt19937 rng(2);
    wzImageColorProfile empty{};
    Profile16Ptr emptyDeep(wzImageColorProfile16Create());
    emptyDeep->space = wzSpaceYCbCr;
    const wzHistogramMatchParams p{1.0f, 0.9f, 0, 255, &empty};
    const wzHistogramMatchOptions deep{wzSpaceYCbCr, 0, nullptr, emptyDeep.get()};
    for (uint32_t type : {wzType8U, wzType16U})
        for (const wzHistogramMatchOptions *o : {static_cast<decltype(&deep)>(nullptr), &deep}) {
            ImagePtr src = randomImage(21, 13, wzEncodingBGR, type, rng),
                     dst = randomImage(21, 13, wzEncodingBGR, type, rng);
            EXPECT_EQ(
                wzHistogramMatchFilterWithOptions(&p, o, src.get(), nullptr, dst.get(), nullptr),
                WZ_STATUS_NO_PIXELS);
            EXPECT_EQ(snapshot(dst.get()), snapshot(src.get()));
        }
}
