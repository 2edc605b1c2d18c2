// Statistics masks: all 255 changes nothing against the unmasked functions,
// an empty mask selects nothing, a random one counts exactly the selected
// pixels, and the masked filters act as if those were the whole picture.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <map>

#include "ext_support.hpp"

using namespace ext;

namespace {

using Call = std::function<wzStatus(wzImage *src, wzImage *dst)>;

// Status and the bytes of source and destination after a call on fresh
// copies (in place: on a copy of the source alone).
std::pair<wzStatus, Bytes> outcome(const Call &call, const wzImage *src, const wzImage *dst,
                                   bool inPlace) {
    ImagePtr s = clone(src), d = clone(dst);
    const wzStatus status = call(s.get(), inPlace ? s.get() : d.get());
    Bytes bytes = snapshot(s.get()), out = snapshot(d.get());
    bytes.insert(bytes.end(), out.begin(), out.end());
    return {status, bytes};
}

template <class T>
bool sameBytes(const T &a, const T &b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// Whether every channel of dst's region holds the values of src's region.
bool regionHolds(const wzImage *dst, const wzImage *src) {
    for (int i = 0; i < src->roi.width * src->roi.height; ++i)
        for (int c = 1, x = i % src->roi.width, y = i / src->roi.width;
             c <= wzGetNChannelFromEncoding(src->encoding); ++c)
            if (get(dst, dst->roi.x + x, dst->roi.y + y, c) !=
                get(src, src->roi.x + x, src->roi.y + y, c))
                return false;
    return true;
}

}  // namespace

// Masks of all 255, walked from their own regions inside larger blocks of
// 0, against the unmasked functions on 8-bit pictures: same statuses, same
// bytes; filters separate and in place, with and without blend masks; the
// transfer with null options, an all-zero record and an all-255 mask.
TEST(ExtMasks, AllSelectedEqualsUnmasked) {
    std::mt19937 rng(1);
    ImagePtr ref = randomImage(20, 20, wzEncodingBGR, wzType8U, rng);
    wzImageColorProfile target, a, b;
    wzImageFillColorProfile(ref.get(), &target);
    const wzHistogramMatchParams mp{0.8f, 0.9f, 0, 40, &target};
    const wzContrastEnhanceParams cp{9.0f, 30.0f, 0, 255, 0};
    SupportPtr support(wzHistogramTransferSupportCreate());
    for (uint32_t enc : {wzEncodingGray, wzEncodingBGR, wzEncodingRGBA}) {
        SCOPED_TRACE(enc);
        ImagePtr whole = randomImage(37, 23, enc, wzType8U, rng),
                 wholeDst = randomImage(37, 23, enc, wzType8U, rng);
        for (size_t i = 0; i < blockBytes(whole.get()); ++i)
            whole->data[i] = uint8_t(40 + whole->data[i] % 150);
        ImagePtr src = clone(whole.get()), dst = clone(wholeDst.get());
        setRoi(src.get(), 3, 2, 30, 19);
        setRoi(dst.get(), 5, 3, 30, 19);
        ImagePtr stats = filledMask(34, 22, 0), wholeStats = filledMask(39, 24, 0);
        for (int y = 0; y < 23; ++y) std::memset(wholeStats->data + (y + 1) * 39 + 1, 255, 37);
        for (int y = 0; y < 19; ++y) std::memset(stats->data + (y + 1) * 34 + 2, 255, 30);
        setRoi(stats.get(), 2, 1, 30, 19);
        setRoi(wholeStats.get(), 1, 1, 37, 23);
        ImagePtr blend = randomMask(30, 19, rng, 0.7), wholeBlend = randomMask(37, 23, rng, 0.7);

        EXPECT_EQ(wzImageFillColorProfileMasked(src.get(), stats.get(), &a),
                  wzImageFillColorProfile(src.get(), &b));
        EXPECT_TRUE(sameBytes(a, b));
        wzHistogramMatchStats sa{&a}, sb{&b};
        EXPECT_EQ(wzHistogramMatchStatsRetrieveMasked(&sa, src.get(), stats.get()),
                  wzHistogramMatchStatsRetrieve(&sb, src.get()));
        EXPECT_TRUE(sameBytes(a, b));
        wzContrastEnhanceStats ca, cb;
        EXPECT_EQ(wzContrastEnhanceStatsRetrieveMasked(&ca, whole.get(), wholeStats.get(), nullptr),
                  wzContrastEnhanceStatsRetrieve(&cb, whole.get(), nullptr));
        EXPECT_TRUE(sameBytes(ca, cb));

        const wzImage *sm = stats.get(), *ws = wholeStats.get();
        const auto same = [&](const char *name, const Call &ext, const Call &core,
                              bool wholePicture) {
            for (bool inPlace : {false, true}) {
                const wzImage *s = wholePicture ? whole.get() : src.get(),
                              *d = wholePicture ? wholeDst.get() : dst.get();
                EXPECT_TRUE(outcome(ext, s, d, inPlace) == outcome(core, s, d, inPlace))
                    << name << (inPlace ? " in place" : "");
            }
        };
        same(
            "equalization",
            [=](wzImage *s, wzImage *d) { return wzHistogramEqualizationMasked(s, sm, d); },
            wzHistogramEqualization, false);
        same(
            "stretch", [=](wzImage *s, wzImage *d) { return wzHistogramStretchMasked(s, sm, d); },
            wzHistogramStretch, false);
        for (bool blended : {false, true}) {
            const wzImage *bm = blended ? blend.get() : nullptr,
                          *wbm = blended ? wholeBlend.get() : nullptr;
            const wzHistogramMatchOptions o{0, 0, sm, nullptr};
            same(
                "match",
                [&](wzImage *s, wzImage *d) {
                    return wzHistogramMatchFilterWithOptions(&mp, &o, s, bm, d, nullptr);
                },
                [&](wzImage *s, wzImage *d) {
                    return wzHistogramMatchFilter(&mp, s, bm, d, nullptr);
                },
                false);
            same(
                "contrast",
                [&](wzImage *s, wzImage *d) {
                    return wzContrastEnhanceFilterMasked(&cp, s, ws, wbm, d, nullptr);
                },
                [&](wzImage *s, wzImage *d) {
                    return wzContrastEnhanceFilter(&cp, s, wbm, d, nullptr);
                },
                true);
            const wzHistogramMatchOptions zero{}, all{0, 0, ws, nullptr};
            for (const wzHistogramMatchOptions *opt :
                 {static_cast<const wzHistogramMatchOptions *>(nullptr), &zero, &all})
                for (int stages = 0; stages < 4; ++stages) {  // contrast, smoothing
                    if (enc == wzEncodingGray && stages >> 1)
                        continue;  // the core refuses to smooth gray
                    const wzHistogramTransferParams p{&target, 0.9f,        0.8f, stages & 1, 9.0f,
                                                      50.0f,   stages >> 1, 0.2f, 2,          60};
                    same(
                        "transfer",
                        [&](wzImage *s, wzImage *d) {
                            return wzHistogramTransferFilterWithOptions(&p, opt, support.get(), s,
                                                                        wbm, d, nullptr);
                        },
                        [&](wzImage *s, wzImage *d) {
                            return wzHistogramTransferFilter(&p, support.get(), s, wbm, d, nullptr);
                        },
                        true);
                }
        }
    }
}

// An empty statistics mask: profiles and statistics all zeros with status
// 0; every filter returns WZ_STATUS_NO_PIXELS with the source's values in
// its destination's region, separate and in place. So does an empty target.
TEST(ExtMasks, NothingSelected) {
    std::mt19937 rng(2);
    SupportPtr support(wzHistogramTransferSupportCreate());
    for (uint32_t type : {wzType8U, wzType16U})
        for (uint32_t enc : {wzEncodingGray, wzEncodingBGR}) {
            SCOPED_TRACE(testing::Message() << "type " << type << " encoding " << enc);
            ImagePtr whole = randomImage(21, 13, enc, type, rng),
                     wholeDst = randomImage(21, 13, enc, type, rng);
            ImagePtr ref = randomImage(9, 9, enc, type, rng), none = filledMask(21, 13, 0),
                     noneRoi = filledMask(17, 10, 0);
            ImagePtr src = clone(whole.get()), dst = clone(wholeDst.get());
            setRoi(src.get(), 2, 1, 17, 10);
            setRoi(dst.get(), 3, 2, 17, 10);
            wzImageColorProfile p8, target, empty{};
            std::memset(&p8, 0x7F, sizeof p8);
            EXPECT_EQ(wzImageFillColorProfileMasked(src.get(), noneRoi.get(), &p8), 0u);
            EXPECT_TRUE(sameBytes(p8, empty));
            for (int32_t space = wzSpaceChannels; space <= wzSpaceLab; ++space) {
                Profile16Ptr p = profile16(src.get(), space, noneRoi.get());
                ASSERT_TRUE(p && p->space == space);
                EXPECT_EQ(std::count(&p->bins[0][0], &p->bins[0][0] + 3 * 65536, 0.0), 3 * 65536);
            }
            wzContrastEnhanceStats cs;
            std::memset(&cs, 0x7F, sizeof cs);
            EXPECT_EQ(wzContrastEnhanceStatsRetrieveMasked(&cs, whole.get(), none.get(), nullptr),
                      0u);
            EXPECT_TRUE(sameBytes(cs, wzContrastEnhanceStats{}));

            wzImageFillColorProfileMasked(ref.get(), nullptr, &target);
            Profile16Ptr deep = profile16(ref.get(), wzSpaceYCbCr),
                         emptyDeep(wzImageColorProfile16Create());
            emptyDeep->space = wzSpaceYCbCr;
            const wzHistogramMatchParams mp{1.0f, 0.9f, 0, 255, &target},
                toEmpty{1.0f, 0.9f, 0, 255, &empty};
            const wzHistogramMatchOptions channels{0, 0, noneRoi.get(), nullptr},
                ycc{wzSpaceYCbCr, 0, noneRoi.get(), deep.get()};
            const wzHistogramMatchOptions emptyYcc{wzSpaceYCbCr, 0, nullptr, emptyDeep.get()},
                wholeNone{0, 0, none.get(), nullptr};
            const wzContrastEnhanceParams cp{9.0f, 4.0f, 0, 255, 0};
            const wzHistogramTransferParams tp{&target, 1.0f, 0.9f, 1, 9.0f,
                                               50.0f,   0,    0.1f, 2, 255};
            const auto match = [&](const wzHistogramMatchParams *p,
                                   const wzHistogramMatchOptions *o) {
                return [=](wzImage *s, wzImage *d) {
                    return wzHistogramMatchFilterWithOptions(p, o, s, nullptr, d, nullptr);
                };
            };
            const std::tuple<const char *, Call, bool> calls[] = {
                {"equalization",
                 [&](wzImage *s, wzImage *d) {
                     return wzHistogramEqualizationMasked(s, noneRoi.get(), d);
                 },
                 false},
                {"stretch",
                 [&](wzImage *s, wzImage *d) {
                     return wzHistogramStretchMasked(s, noneRoi.get(), d);
                 },
                 false},
                {"match", match(&mp, &channels), false},
                {"match in Y'CbCr", match(&mp, &ycc), false},
                {"empty target", match(&toEmpty, nullptr), false},
                {"empty deep target", match(&mp, &emptyYcc), false},
                {"contrast",
                 [&](wzImage *s, wzImage *d) {
                     return wzContrastEnhanceFilterMasked(&cp, s, none.get(), nullptr, d, nullptr);
                 },
                 true},
                {"transfer",
                 [&](wzImage *s, wzImage *d) {
                     return wzHistogramTransferFilterWithOptions(&tp, &wholeNone, support.get(), s,
                                                                 nullptr, d, nullptr);
                 },
                 true},
            };
            for (const auto &[name, call, wholePicture] : calls)
                for (bool inPlace : {false, true}) {
                    const wzImage *s0 = wholePicture ? whole.get() : src.get();
                    ImagePtr s = clone(s0), d = clone(wholePicture ? wholeDst.get() : dst.get());
                    EXPECT_EQ(call(s.get(), inPlace ? s.get() : d.get()), WZ_STATUS_NO_PIXELS)
                        << name;
                    EXPECT_TRUE(regionHolds(inPlace ? s.get() : d.get(), s0))
                        << name << (inPlace ? " in place" : "");
                }
        }
}

// A random mask: the 8-bit profile (a 16-bit sample v in bin
// (v + 128) / 257), the deep profile of the channels (bin v, or 257 v for an
// 8-bit sample) and the contrast statistics (brightness, the largest of
// channels 1..3, binned likewise; total the number selected) against plain
// loops over the selected pixels.
TEST(ExtMasks, RandomMaskCountsTheSelectedPixels) {
    std::mt19937 rng(3);
    for (uint32_t type : {wzType8U, wzType16U})
        for (uint32_t enc : {wzEncodingGray, wzEncodingBGR, wzEncodingRGBA}) {
            SCOPED_TRACE(testing::Message() << "type " << type << " encoding " << enc);
            ImagePtr whole = randomImage(29, 17, enc, type, rng),
                     mask = randomMask(27, 16, rng, 0.4), wholeMask = randomMask(29, 17, rng, 0.4);
            ImagePtr img = clone(whole.get());
            setRoi(img.get(), 2, 1, 25, 14);
            setRoi(mask.get(), 1, 2, 25, 14);
            const bool wide = type == wzType16U, gray = enc == wzEncodingGray;
            const auto bin8 = [wide](int v) { return wide ? (v + 128) / 257 : v; };
            wzImageColorProfile want8{}, p8;
            std::vector<double> want16(3 * 65536);
            wzContrastEnhanceStats wantStats{}, stats;
            for (int i = 0; i < 29 * 17; ++i) {
                const int x = i % 29, y = i / 29, k0 = gray ? 2 : 0;
                const bool inside =
                    x >= 2 && y >= 1 && x < 27 && y < 15 && mask->data[(y + 1) * 27 + x - 1];
                int b = 0;
                for (int k = 0; k < colours(img.get()); ++k) {
                    const int v = get(img.get(), x, y, k + 1);
                    b = std::max(b, v);
                    if (!inside) continue;
                    want16[(2 - k) * 65536 + (wide ? v : 257 * v)] += 1.0;
                    for (int a = 2 - k - k0; a <= 2 - k; ++a) want8.bins[a][bin8(v)] += 1.0f;
                }
                if (wholeMask->data[i]) wantStats.hist[bin8(b)] += 1.0f, wantStats.total += 1.0f;
            }
            EXPECT_EQ(wzImageFillColorProfileMasked(img.get(), mask.get(), &p8), 0u);
            EXPECT_TRUE(sameBytes(p8, want8));
            Profile16Ptr p16 = profile16(img.get(), wzSpaceChannels, mask.get());
            ASSERT_TRUE(p16);
            for (int a = gray ? 2 : 0; a < 3; ++a)  // a gray picture: its channel in bins[2]
                EXPECT_TRUE(std::equal(p16->bins[a], p16->bins[a] + 65536, &want16[a * 65536]))
                    << "deep array " << a;
            EXPECT_EQ(
                wzContrastEnhanceStatsRetrieveMasked(&stats, whole.get(), wholeMask.get(), nullptr),
                0u);
            EXPECT_TRUE(sameBytes(stats, wantStats));
        }
}

// The masked filters measure the selected pixels as if they were the whole
// picture: a picture of 40 colours, each selected at least once, filtered
// under a random mask gives every pixel of the region what the unmasked
// filter gives its colour in a one-row picture of the selected pixels alone
// (or, matched under a blend mask of levels 0 and 255, its own colour where
// the level is 0). The destination keeps its values outside its region and
// in its fourth channel. 8 and 16 bits; the transfer matches in Lab.
TEST(ExtMasks, FiltersSeeOnlyTheSelectedPixels) {
    constexpr int W = 31, H = 19, K = 40;
    std::mt19937 rng(4);
    SupportPtr support(wzHistogramTransferSupportCreate());
    for (uint32_t type : {wzType8U, wzType16U})
        for (uint32_t enc : {wzEncodingGray, wzEncodingRGBA}) {
            ImagePtr ref = randomImage(16, 16, enc, type, rng);
            wzImageColorProfile target;
            wzImageFillColorProfileMasked(ref.get(), nullptr, &target);
            Profile16Ptr deep[4];
            for (int32_t space = 0; space < 4; ++space) deep[space] = profile16(ref.get(), space);
            const int n = wzGetNChannelFromEncoding(enc);
            std::vector<std::array<int, 4>> palette(K);
            for (auto &c : palette)
                for (int &v : c) v = int(rng() % uint32_t(full(ref.get()) + 1));
            for (bool whole : {false, true}) {
                SCOPED_TRACE(testing::Message() << "type " << type << " encoding " << enc
                                                << (whole ? " whole" : " region"));
                const wzRect roi = whole ? wzRect{0, 0, W, H} : wzRect{2, 1, 27, 16};
                ImagePtr src = makeImage(W, H, enc, type), dst0 = randomImage(W, H, enc, type, rng);
                ImagePtr mask = randomMask(roi.width, roi.height, rng, 0.3),
                         blend = randomMask(roi.width, roi.height, rng, 0.5);
                std::vector<int> index(W * H), picked;
                for (int i = 0; i < W * H; ++i) {
                    const int x = i % W - roi.x, y = i / W - roi.y, r = y * roi.width + x;
                    const bool inside = x >= 0 && y >= 0 && x < roi.width && y < roi.height;
                    index[i] = inside && r < K
                                   ? r
                                   : int(rng() % K);  // each colour at least once, selected
                    if (inside && r < K) mask->data[r] = 255;
                    if (inside && mask->data[r]) picked.push_back(index[i]);
                    if (inside) blend->data[r] = blend->data[r] ? 255 : 0;
                    for (int c = 1; c <= n; ++c)
                        put(src.get(), i % W, i / W, c, palette[index[i]][c - 1]);
                }
                src->roi = roi;
                if (!whole) setRoi(dst0.get(), 3, 2, roi.width, roi.height);
                ImagePtr compact = makeImage(int(picked.size()), 1, enc, type);
                for (size_t i = 0; i < picked.size(); ++i)
                    for (int c = 1; c <= n; ++c)
                        put(compact.get(), int(i), 0, c, palette[picked[i]][c - 1]);

                using Filter =
                    std::function<wzStatus(wzImage *, const wzImage *, const wzImage *, wzImage *)>;
                std::vector<std::pair<std::string, Filter>> filters;
                const wzHistogramMatchParams mp{0.9f, 0.8f, 0, 60, &target};
                if (!whole) {
                    filters.push_back({"equalization", [](wzImage *s, const wzImage *m,
                                                          const wzImage *, wzImage *d) {
                                           return wzHistogramEqualizationMasked(s, m, d);
                                       }});
                    filters.push_back(
                        {"stretch", [](wzImage *s, const wzImage *m, const wzImage *, wzImage *d) {
                             return wzHistogramStretchMasked(s, m, d);
                         }});
                    for (int32_t space : type == wzType8U
                                             ? std::vector{-1, 2}
                                             : std::vector{0, 1})  // -1: the 8-bit target
                        filters.push_back({"match in space " + std::to_string(space),
                                           [&, space](wzImage *s, const wzImage *m,
                                                      const wzImage *b, wzImage *d) {
                                               const wzHistogramMatchOptions o{
                                                   std::max(space, 0), 0, m,
                                                   space < 0 ? nullptr : deep[space].get()};
                                               return wzHistogramMatchFilterWithOptions(
                                                   &mp, &o, s, b, d, nullptr);
                                           }});
                } else {
                    filters.push_back(
                        {"contrast", [](wzImage *s, const wzImage *m, const wzImage *, wzImage *d) {
                             const wzContrastEnhanceParams cp{9.0f, 30.0f, 0, 255, 0};
                             return wzContrastEnhanceFilterMasked(&cp, s, m, nullptr, d, nullptr);
                         }});
                    filters.push_back(
                        {"transfer",
                         [&](wzImage *s, const wzImage *m, const wzImage *, wzImage *d) {
                             const wzHistogramTransferParams tp{&target, 1.0f, 0.9f, 1, 9.0f,
                                                                50.0f,   0,    0.1f, 2, 255};
                             const wzHistogramMatchOptions o{wzSpaceLab, 0, m,
                                                             deep[wzSpaceLab].get()};
                             return wzHistogramTransferFilterWithOptions(&tp, &o, support.get(), s,
                                                                         nullptr, d, nullptr);
                         }});
                }
                for (const auto &[name, filter] : filters) {
                    const bool blended = name.rfind("match", 0) == 0;
                    ImagePtr d = clone(dst0.get()), cd = makeImage(compact->width, 1, enc, type);
                    EXPECT_EQ(
                        filter(src.get(), mask.get(), blended ? blend.get() : nullptr, d.get()),
                        filter(compact.get(), nullptr, nullptr, cd.get()))
                        << name;
                    std::map<int, std::array<int, 3>> out;  // colour index -> its result
                    for (size_t i = 0; i < picked.size(); ++i) {
                        const std::array<int, 3> v{get(cd.get(), int(i), 0, 1),
                                                   get(cd.get(), int(i), 0, std::min(n, 2)),
                                                   get(cd.get(), int(i), 0, std::min(n, 3))};
                        ASSERT_EQ(out.emplace(picked[i], v).first->second, v)
                            << name << ": one colour, two results";
                    }
                    int wrong = 0;
                    for (int i = 0; i < W * H; ++i) {
                        const int x = i % W, y = i / W, rx = x - roi.x, ry = y - roi.y,
                                  ox = x - dst0->roi.x, oy = y - dst0->roi.y;
                        const bool inRegion =
                            rx >= 0 && ry >= 0 && rx < roi.width && ry < roi.height;
                        const bool kept = blended && inRegion && !blend->data[ry * roi.width + rx];
                        for (int c = 1; c <= std::min(n, 3) && inRegion; ++c)
                            wrong += get(d.get(), dst0->roi.x + rx, dst0->roi.y + ry, c) !=
                                     (kept ? palette[index[i]][c - 1] : out[index[i]][c - 1]);
                        for (int c = 1; c <= n; ++c)  // outside the destination's region, and alpha
                            if (c == 4 || ox < 0 || oy < 0 || ox >= roi.width || oy >= roi.height)
                                wrong += get(d.get(), x, y, c) != get(dst0.get(), x, y, c);
                    }
                    EXPECT_EQ(wrong, 0) << name;
                }
            }
        }
}
