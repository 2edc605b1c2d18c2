// Arguments the extensions refuse.
#include <gtest/gtest.h>

#include <functional>

#include "ext_support.hpp"

using namespace ext;

// Each refused call returns 1 and writes nothing: no image changes, and the
// profiles and statistics records are left cleared, as documented.
TEST(ExtRefusals, WriteNothing) {
    std::mt19937 rng(31);
    const auto image = [&](int w, uint32_t enc, uint32_t type) {
        return randomImage(w, 9, enc, type, rng);
    };
    ImagePtr src = image(12, wzEncodingBGR, wzType8U), dst = image(12, wzEncodingBGR, wzType8U),
             f32 = image(12, wzEncodingBGR, wzType32F);
    ImagePtr src16 = image(12, wzEncodingBGR, wzType16U),
             dst16 = image(12, wzEncodingBGR, wzType16U),
             gray16 = image(12, wzEncodingGray, wzType16U);
    ImagePtr rgb16 = image(12, wzEncodingRGB, wzType16U),
             small16 = image(11, wzEncodingBGR, wzType16U), enc5 = clone(src.get());
    ImagePtr mask = filledMask(12, 9, 255), narrow = filledMask(12, 9, 255),
             mask16 = image(12, wzEncodingGray, wzType16U),
             maskBGR = image(12, wzEncodingBGR, wzType8U);
    setRoi(narrow.get(), 1, 0, 11, 9);
    enc5->encoding = 5;
    wzImageColorProfile target, p8;
    wzImageFillColorProfile(src.get(), &target);
    Profile16Ptr lab = profile16(src.get(), wzSpaceLab), ycc = profile16(src.get(), wzSpaceYCbCr),
                 chan = profile16(src.get(), wzSpaceChannels);
    Profile16Ptr p16(wzImageColorProfile16Create());
    wzContrastEnhanceStats cs;
    const wzHistogramMatchParams mp{1.0f, 0.9f, 0, 255, &target},
        noTarget{1.0f, 0.9f, 0, 255, nullptr};
    const wzContrastEnhanceParams cp{9.0f, 4.0f, 0, 255, 0};
    const wzSelectiveSmoothParams sp{0.2f, 2};
    const wzHistogramTransferParams tp{&target, 1.0f, 0.9f, 1, 9.0f, 50.0f, 1, 0.1f, 2, 255};
    SupportPtr support(wzHistogramTransferSupportCreate());
    const auto match = [&](wzImage *s, wzImage *d, int32_t space, const wzImage *stats = nullptr,
                           const wzImageColorProfile16 *t = nullptr, const wzImage *blend = nullptr,
                           const wzHistogramMatchParams *p = nullptr) {
        return [=, &mp] {
            const wzHistogramMatchOptions o{space, 0, stats, t};
            return wzHistogramMatchFilterWithOptions(p ? p : &mp, &o, s, blend, d, nullptr);
        };
    };
    const auto transfer = [&](wzImage *s, wzImage *d, int32_t space, const wzImage *stats) {
        return [=, &tp, &support, &mask] {
            const wzHistogramMatchOptions o{space, 0, stats, nullptr};
            return wzHistogramTransferFilterWithOptions(&tp, &o, support.get(), s, mask.get(), d,
                                                        nullptr);
        };
    };
    ImagePtr part = clone(src.get());
    setRoi(part.get(), 1, 0, 11, 9);
    const std::pair<const char *, std::function<wzStatus()>> calls[] = {
        {"match: 16-bit statistics mask", match(src.get(), dst.get(), 0, mask16.get())},
        {"match: colour statistics mask", match(src.get(), dst.get(), 0, maskBGR.get())},
        {"match: statistics mask of another size", match(src16.get(), dst16.get(), 0, narrow.get())},
        {"match: blend mask of another size", match(src16.get(), dst16.get(), 0, nullptr, nullptr, narrow.get())},
        {"match: 16-bit blend mask", match(src16.get(), dst16.get(), 2, nullptr, ycc.get(), mask16.get())},
        {"match: space 4", match(src16.get(), dst16.get(), 4, nullptr, ycc.get())},
        {"match: space -1", match(src.get(), dst.get(), -1)},
        {"match: Lab target in Y'CbCr", match(src16.get(), dst16.get(), wzSpaceYCbCr, nullptr, lab.get())},
        {"match: Y'CbCr target in Lab", match(src.get(), dst.get(), wzSpaceLab, nullptr, ycc.get())},
        {"match: channels target in luma", match(src16.get(), dst16.get(), wzSpaceLuma, nullptr, chan.get())},
        {"match: 8-bit target in Y'CbCr", match(src.get(), dst.get(), wzSpaceYCbCr)},
        {"match: 8-bit target in Lab, 16 bits", match(src16.get(), dst16.get(), wzSpaceLab)},
        {"match: no target", match(src16.get(), dst16.get(), 0, nullptr, nullptr, nullptr, &noTarget)},
        {"match: 8 into 16 bits", match(src.get(), dst16.get(), 0)},
        {"match: 16 into 8 bits", match(src16.get(), dst.get(), 2, nullptr, ycc.get())},
        {"match: colour into gray", match(src16.get(), gray16.get(), 0, nullptr, chan.get())},
        {"match: 32-bit float", match(f32.get(), f32.get(), 0)},
        {"equalization: mask of another size", [&] { return wzHistogramEqualizationMasked(src16.get(), narrow.get(), dst16.get()); }},
        {"equalization: 16 into 8 bits", [&] { return wzHistogramEqualizationMasked(src16.get(), nullptr, dst.get()); }},
        {"stretch: colour mask", [&] { return wzHistogramStretchMasked(src16.get(), maskBGR.get(), dst16.get()); }},
        {"stretch: 8 into 16 bits", [&] { return wzHistogramStretchMasked(src.get(), nullptr, dst16.get()); }},
        {"contrast: mask of the region's size", [&] { return wzContrastEnhanceFilterMasked(&cp, src16.get(), narrow.get(), nullptr, dst16.get(), nullptr); }},
        {"contrast: 16 into 8 bits", [&] { return wzContrastEnhanceFilterMasked(&cp, src16.get(), nullptr, nullptr, dst.get(), nullptr); }},
        {"contrast: 16 bits into another layout", [&] { return wzContrastEnhanceFilterMasked(&cp, src16.get(), nullptr, nullptr, rgb16.get(), nullptr); }},
        {"contrast: 8 into 16 bits, masked", [&] { return wzContrastEnhanceFilterMasked(&cp, src.get(), mask.get(), nullptr, dst16.get(), nullptr); }},
        {"contrast: colour blend mask", [&] { return wzContrastEnhanceFilterMasked(&cp, src16.get(), nullptr, maskBGR.get(), dst16.get(), nullptr); }},
        {"smooth16: 8-bit guide", [&] { return wzSelectiveSmooth16(&sp, src.get(), src16.get(), dst16.get(), nullptr); }},
        {"smooth16: output of another size", [&] { return wzSelectiveSmooth16(&sp, src16.get(), src16.get(), small16.get(), nullptr); }},
        {"smooth16: output of another layout", [&] { return wzSelectiveSmooth16(&sp, src16.get(), src16.get(), rgb16.get(), nullptr); }},
        {"transfer: 32-bit float", transfer(f32.get(), f32.get(), 0, nullptr)},
        {"transfer: 16 bits into another layout", transfer(src16.get(), rgb16.get(), 0, nullptr)},
        {"transfer: unknown space", transfer(src.get(), dst.get(), 7, nullptr)},
        {"transfer: statistics mask and contrast on a region", transfer(part.get(), dst.get(), 0, narrow.get())},
    };
    const wzImage *outputs[] = {src.get(),   src16.get(), gray16.get(),  f32.get(), dst.get(),
                                dst16.get(), rgb16.get(), small16.get(), part.get()};
    std::vector<Bytes> before;
    for (const wzImage *img : outputs) before.push_back(snapshot(img));
    for (const auto &[name, call] : calls) {
        EXPECT_EQ(call(), 1u) << name;
        for (size_t i = 0; i < before.size(); ++i)
            ASSERT_TRUE(snapshot(outputs[i]) == before[i]) << name << " wrote image " << i;
    }

    const auto clear8 = [&] {
        return std::count(&p8.bins[0][0], &p8.bins[0][0] + 768, 0.0f) == 768;
    };
    const auto clear16 = [&] {
        return p16->space == 0 &&
               std::count(&p16->bins[0][0], &p16->bins[0][0] + 3 * 65536, 0.0) == 3 * 65536;
    };
    const auto clearStats = [&] {
        return cs.total == 0.0f && std::count(cs.hist, cs.hist + 256, 0.0f) == 256;
    };
    const std::tuple<const char *, std::function<wzStatus()>, std::function<bool()>> fills[] = {
        {"profile: 32-bit float",
         [&] { return wzImageFillColorProfileMasked(f32.get(), nullptr, &p8); }, clear8},
        {"profile: encoding 5",
         [&] { return wzImageFillColorProfileMasked(enc5.get(), nullptr, &p8); }, clear8},
        {"profile: mask of another size",
         [&] { return wzImageFillColorProfileMasked(src16.get(), narrow.get(), &p8); }, clear8},
        {"deep profile: unknown space",
         [&] { return wzImageFillColorProfile16(src.get(), nullptr, 4, p16.get()); }, clear16},
        {"deep profile: 16-bit mask",
         [&] {
             return wzImageFillColorProfile16(src16.get(), mask16.get(), wzSpaceLab, p16.get());
         },
         clear16},
        {"deep profile: 32-bit float",
         [&] { return wzImageFillColorProfile16(f32.get(), nullptr, wzSpaceYCbCr, p16.get()); },
         clear16},
        {"contrast statistics: mask of the region's size",
         [&] {
             return wzContrastEnhanceStatsRetrieveMasked(&cs, src16.get(), narrow.get(), nullptr);
         },
         clearStats},
        {"contrast statistics: 32-bit float",
         [&] { return wzContrastEnhanceStatsRetrieveMasked(&cs, f32.get(), nullptr, nullptr); },
         clearStats},
    };
    for (const auto &[name, call, cleared] : fills) {
        std::memset(&p8, 0x41, sizeof p8);
        std::memset(p16.get(), 0x41, sizeof *p16);
        std::memset(&cs, 0x41, sizeof cs);
        EXPECT_EQ(call(), 1u) << name;
        EXPECT_TRUE(cleared()) << name;
    }
}
