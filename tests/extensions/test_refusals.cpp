// Calls that are refused (arguments the library does not take) or cancelled.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>

#include "ext_support.hpp"

using namespace ext;

// Each refused call returns 1, each call with the cancel flag set before it
// 2, and writes nothing: no image changes, and a profile or statistics
// record a refused call fills is left cleared, as documented.
TEST(ExtRefusals, WriteNothing) {
    std::mt19937 rng(31);
    const auto image = [&](int w, uint32_t enc, uint32_t type) {
        return randomImage(w, 9, enc, type, rng);
    };
    ImagePtr s8 = image(12, wzEncodingBGR, wzType8U), d8 = image(12, wzEncodingBGR, wzType8U),
             f32 = image(12, wzEncodingBGR, wzType32F);
    ImagePtr s16 = image(12, wzEncodingBGR, wzType16U), d16 = image(12, wzEncodingBGR, wzType16U),
             gray16 = image(12, wzEncodingGray, wzType16U);
    ImagePtr rgb16 = image(12, wzEncodingRGB, wzType16U),
             small16 = image(11, wzEncodingBGR, wzType16U), enc5 = clone(s8.get());
    ImagePtr mask = filledMask(12, 9, 255), narrow = filledMask(12, 9, 255),
             mask16 = image(12, wzEncodingGray, wzType16U),
             maskBGR = image(12, wzEncodingBGR, wzType8U);
    setRoi(narrow.get(), 1, 0, 11, 9);
    enc5->encoding = 5;
    wzImageColorProfile target, p8;
    wzImageFillColorProfile(s8.get(), &target);
    Profile16Ptr lab = profile16(s8.get(), wzSpaceLab), ycc = profile16(s8.get(), wzSpaceYCbCr),
                 chan = profile16(s8.get(), wzSpaceChannels);
    Profile16Ptr p16(wzImageColorProfile16Create());
    wzContrastEnhanceStats cs;
    const wzHistogramMatchParams mp{1.0f, 0.9f, 0, 255, &target},
        noTarget{1.0f, 0.9f, 0, 255, nullptr};
    const wzContrastEnhanceParams cp{9.0f, 4.0f, 0, 255, 0};
    const wzSelectiveSmoothParams sp{0.2f, 2};
    const wzHistogramTransferParams tp{&target, 1.0f, 0.9f, 1, 9.0f, 50.0f, 1, 0.1f, 2, 255};
    SupportPtr support(wzHistogramTransferSupportCreate());
    const uint32_t set = 1, *flag = nullptr;  // the cancel flag of the call under test
    std::array<uint8_t, 768> table{};
    const auto match = [&](wzImage *s, wzImage *d, int32_t space, const wzImage *stats = nullptr,
                           const wzImageColorProfile16 *t = nullptr, const wzImage *blend = nullptr,
                           const wzHistogramMatchParams *p = nullptr) {
        return [=, &mp, &flag] {
            const wzHistogramMatchOptions o{space, 0, stats, t};
            return wzHistogramMatchFilterWithOptions(p ? p : &mp, &o, s, blend, d, flag);
        };
    };
    const auto transfer = [&](wzImage *s, wzImage *d, int32_t space, const wzImage *stats) {
        return [=, &tp, &support, &mask, &flag] {
            const wzHistogramMatchOptions o{space, 0, stats, nullptr};
            return wzHistogramTransferFilterWithOptions(&tp, &o, support.get(), s, mask.get(), d,
                                                        flag);
        };
    };
    const auto coreTransfer = [&](wzImage *s, const wzImage *m, wzImage *d) {
        return [=, &tp, &support, &flag] {
            return wzHistogramTransferFilter(&tp, support.get(), s, m, d, flag);
        };
    };
    const auto coreMatch = [&](wzImage *s, const wzImage *m, wzImage *d) {
        return [=, &mp, &flag] { return wzHistogramMatchFilter(&mp, s, m, d, flag); };
    };
    const auto apply = [&](const wzImage *s, wzImage *d) {
        return
            [=, &table, &flag] { return wzHistogramMatchApply(nullptr, table.data(), s, d, flag); };
    };
    const auto fill8 = [&](const wzImage *img, const wzImage *m) {
        return [=, &p8] { return wzImageFillColorProfileMasked(img, m, &p8); };
    };
    const auto fill16 = [&](const wzImage *img, const wzImage *m, int32_t space) {
        return [=, &p16] { return wzImageFillColorProfile16(img, m, space, p16.get()); };
    };
    const auto brightness = [&](const wzImage *img, const wzImage *m) {
        return [=, &cs, &flag] { return wzContrastEnhanceStatsRetrieveMasked(&cs, img, m, flag); };
    };
    const auto equalize = [](const wzImage *s, const wzImage *m, wzImage *d) {
        return [=] { return wzHistogramEqualizationMasked(s, m, d); };
    };
    const auto stretch = [](const wzImage *s, const wzImage *m, wzImage *d) {
        return [=] { return wzHistogramStretchMasked(s, m, d); };
    };
    const auto contrast = [&](wzImage *s, const wzImage *m, const wzImage *b, wzImage *d) {
        return [=, &cp, &flag] { return wzContrastEnhanceFilterMasked(&cp, s, m, b, d, flag); };
    };
    const auto smooth16 = [&](const wzImage *guide, const wzImage *in, wzImage *out) {
        return [=, &sp, &flag] { return wzSelectiveSmooth16(&sp, guide, in, out, flag); };
    };
    ImagePtr part = clone(s8.get());
    setRoi(part.get(), 1, 0, 11, 9);
    struct Refused {
        const char *name;
        std::function<wzStatus()> call;
        wzStatus status = 1;           // 2: called with the cancel flag set
        const void *record = nullptr;  // the record it fills, and its size
        size_t size = 0;
    };
    const Refused calls[] = {
        {"match: 16-bit statistics mask", match(s8.get(), d8.get(), 0, mask16.get())},
        {"match: colour statistics mask", match(s8.get(), d8.get(), 0, maskBGR.get())},
        {"match: statistics mask of another size", match(s16.get(), d16.get(), 0, narrow.get())},
        {"match: blend mask of another size",
         match(s16.get(), d16.get(), 0, nullptr, nullptr, narrow.get())},
        {"match: 16-bit blend mask",
         match(s16.get(), d16.get(), 2, nullptr, ycc.get(), mask16.get())},
        {"match: space 4", match(s16.get(), d16.get(), 4, nullptr, ycc.get())},
        {"match: space -1", match(s8.get(), d8.get(), -1)},
        {"match: Lab target in Y'CbCr",
         match(s16.get(), d16.get(), wzSpaceYCbCr, nullptr, lab.get())},
        {"match: Y'CbCr target in Lab", match(s8.get(), d8.get(), wzSpaceLab, nullptr, ycc.get())},
        {"match: channels target in luma",
         match(s16.get(), d16.get(), wzSpaceLuma, nullptr, chan.get())},
        {"match: 8-bit target in Y'CbCr", match(s8.get(), d8.get(), wzSpaceYCbCr)},
        {"match: 8-bit target in Lab, 16 bits", match(s16.get(), d16.get(), wzSpaceLab)},
        {"match: no target", match(s16.get(), d16.get(), 0, nullptr, nullptr, nullptr, &noTarget)},
        {"match: 8 into 16 bits", match(s8.get(), d16.get(), 0)},
        {"match: 16 into 8 bits", match(s16.get(), d8.get(), 2, nullptr, ycc.get())},
        {"match: colour into gray", match(s16.get(), gray16.get(), 0, nullptr, chan.get())},
        {"match: 32-bit float", match(f32.get(), f32.get(), 0)},
        {"equalization: mask of another size", equalize(s16.get(), narrow.get(), d16.get())},
        {"equalization: 16 into 8 bits", equalize(s16.get(), nullptr, d8.get())},
        {"stretch: colour mask", stretch(s16.get(), maskBGR.get(), d16.get())},
        {"stretch: 8 into 16 bits", stretch(s8.get(), nullptr, d16.get())},
        {"contrast: mask of the region's size",
         contrast(s16.get(), narrow.get(), nullptr, d16.get())},
        {"contrast: 16 into 8 bits", contrast(s16.get(), nullptr, nullptr, d8.get())},
        {"contrast: 16 bits into another layout",
         contrast(s16.get(), nullptr, nullptr, rgb16.get())},
        {"contrast: 8 into 16 bits, masked", contrast(s8.get(), mask.get(), nullptr, d16.get())},
        {"contrast: colour blend mask", contrast(s16.get(), nullptr, maskBGR.get(), d16.get())},
        {"smooth16: 8-bit guide", smooth16(s8.get(), s16.get(), d16.get())},
        {"smooth16: output of another size", smooth16(s16.get(), s16.get(), small16.get())},
        {"smooth16: output of another layout", smooth16(s16.get(), s16.get(), rgb16.get())},
        {"transfer: 32-bit float", transfer(f32.get(), f32.get(), 0, nullptr)},
        {"transfer: 16 bits into another layout", transfer(s16.get(), rgb16.get(), 0, nullptr)},
        {"transfer: unknown space", transfer(s8.get(), d8.get(), 7, nullptr)},
        {"transfer: statistics mask and contrast on a region",
         transfer(part.get(), d8.get(), 0, narrow.get())},
        {"profile: 32-bit float", fill8(f32.get(), nullptr), 1, &p8, sizeof p8},
        {"profile: encoding 5", fill8(enc5.get(), nullptr), 1, &p8, sizeof p8},
        {"profile: mask of another size", fill8(s16.get(), narrow.get()), 1, &p8, sizeof p8},
        {"deep profile: unknown space", fill16(s8.get(), nullptr, 4), 1, p16.get(), sizeof *p16},
        {"deep profile: 16-bit mask", fill16(s16.get(), mask16.get(), wzSpaceLab), 1, p16.get(),
         sizeof *p16},
        {"deep profile: 32-bit float", fill16(f32.get(), nullptr, wzSpaceYCbCr), 1, p16.get(),
         sizeof *p16},
        {"contrast statistics: mask of the region's size", brightness(s16.get(), narrow.get()), 1,
         &cs, sizeof cs},
        {"contrast statistics: 32-bit float", brightness(f32.get(), nullptr), 1, &cs, sizeof cs},
        {"core match: 16 bits", coreMatch(s16.get(), nullptr, d8.get())},
        {"core apply: into 16 bits", apply(s8.get(), d16.get())},
        {"core transfer: into 16 bits", coreTransfer(s8.get(), nullptr, d16.get())},
        {"match in Y'CbCr", match(s16.get(), d16.get(), wzSpaceYCbCr, nullptr, ycc.get()), 2},
        {"smooth16", smooth16(s16.get(), d16.get(), d16.get()), 2},
        {"contrast", contrast(s16.get(), nullptr, nullptr, d16.get()), 2},
        {"contrast statistics", brightness(s16.get(), nullptr), 2},
        {"transfer", transfer(s8.get(), d8.get(), 0, nullptr), 2},
        {"core match", coreMatch(s8.get(), nullptr, d8.get()), 2},
        {"core match in place", coreMatch(s8.get(), nullptr, s8.get()), 2},
        {"core match with a mask", coreMatch(s8.get(), mask.get(), d8.get()), 2},
        {"core match with a mask, in place", coreMatch(s8.get(), mask.get(), s8.get()), 2},
        {"core apply", apply(s8.get(), d8.get()), 2},
        {"core transfer", coreTransfer(s8.get(), nullptr, d8.get()), 2},
        {"core transfer with a mask and smoothing", coreTransfer(s8.get(), mask.get(), d8.get()),
         2},
    };
    const wzImage *outputs[] = {s8.get(),  s16.get(),   gray16.get(),  f32.get(), d8.get(),
                                d16.get(), rgb16.get(), small16.get(), part.get()};
    std::vector<Bytes> before;
    for (const wzImage *img : outputs) before.push_back(snapshot(img));
    for (const Refused &r : calls) {
        std::memset(&p8, 0x41, sizeof p8);
        std::memset(p16.get(), 0x41, sizeof *p16);
        std::memset(&cs, 0x41, sizeof cs);
        flag = r.status == 2 ? &set : nullptr;
        EXPECT_EQ(r.call(), r.status) << r.name;
        for (size_t i = 0; i < before.size(); ++i)
            ASSERT_TRUE(snapshot(outputs[i]) == before[i]) << r.name << " wrote image " << i;
        const auto *bytes = static_cast<const uint8_t *>(r.record);
        EXPECT_TRUE(std::all_of(bytes, bytes + r.size, [](uint8_t b) { return b == 0; })) << r.name;
    }
    // The core filter refuses a 16-bit blend mask only after matching.
    flag = nullptr;
    EXPECT_EQ(coreMatch(s8.get(), mask16.get(), d8.get())(), 1u);
    EXPECT_EQ(coreMatch(s8.get(), mask16.get(), s8.get())(), 1u);
}
