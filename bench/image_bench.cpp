// Image operations at several sizes, each beside a memcpy of the same bytes
// and, when OpenCV is there, beside the OpenCV code a user would write for
// the same work (single-threaded).
#include "bench.hpp"

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>

#ifdef MORVEN_BENCH_HAVE_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace bench {

namespace {

constexpr double kTargetMegapixels = 24.0;

// The 768-byte match table of the picture's source onto its reference, as
// the transfer computes it.
bool matchTable(const Picture &p, uint8_t table[768]) {
    Header src(p.width, p.height, wzEncodingBGR, wzType8U, p.source.data());
    Header ref(p.width, p.height, wzEncodingBGR, wzType8U, p.reference.data());
    wzHistogramMatchStats *stats = wzHistogramMatchStatsCreate();
    wzImageColorProfile *target = wzImageColorProfileCreate();
    wzHistogramMatchParams *params = wzHistogramMatchParamsDefault();
    bool ok = src && ref && stats && target && params &&
              wzHistogramMatchStatsRetrieve(stats, src.get()) == 0 &&
              wzImageFillColorProfile(ref.get(), target) == 0;
    if (ok) {
        params->targetProfile = target;
        wzHistogramMatchAddParamsCompute(stats, params, table);
    }
    wzHistogramMatchParamsRelease(&params);
    wzImageColorProfileRelease(&target);
    wzHistogramMatchStatsRelease(&stats);
    return ok;
}

const wzSelectiveSmoothSupport *smoothSupport() {
    static wzSelectiveSmoothSupport *support = wzSelectiveSmoothSupportCreate();
    return support;
}

// One operation at one size: its memcpy yardstick, its OpenCV peer (when
// built with OpenCV) and the library's case, registered in that order so
// that the three run next to each other.
struct Group {
    std::string name;  // "<operation>/<size>"
    std::string size;
    double bytes;
    bool atTarget;
    std::string memcpyKey;
    std::string peerKey;

    Group(const char *operation, double mp, double yardstickBytes)
        : name(std::string(operation) + "/" + sizeKey(mp)),
          size(sizeLabel(mp)),
          bytes(yardstickBytes),
          atTarget(mp == kTargetMegapixels) {
        memcpyKey = addMemcpyCase(name, size, bytes);
    }

    Case make(const char *code, const std::string &operation) const {
        Case c;
        c.key = name + "/" + code;
        c.operation = operation;
        c.size = size;
        c.bytes = bytes;
        return c;
    }

    void addPeer(const std::string &operation, std::function<void(benchmark::State &)> fn) {
        Case c = make("opencv", operation);
        c.yardsticks.push_back({memcpyKey, 0.0});
        peerKey = c.key;
        addCase(c, std::move(fn));
    }

    // One case of the library per picture (the scenes chosen on the command
    // line), run(state, picture). maxMemcpy, maxPeer: targets at the target
    // size (0: none), on every picture.
    template <class Run>
    void addMorven(const char *code, const std::string &operation, double maxMemcpy, double maxPeer,
                   double mp, Run run) const {
        for (Scene scene : scenes()) {
            Case c = make((std::string(code) + "@" + sceneLabel(scene)).c_str(), operation);
            c.picture = sceneLabel(scene);
            c.yardsticks.push_back({memcpyKey, atTarget ? maxMemcpy : 0.0});
            if (!peerKey.empty()) c.yardsticks.push_back({peerKey, atTarget ? maxPeer : 0.0});
            addCase(c,
                    [mp, scene, run](benchmark::State &state) { run(state, picture(mp, scene)); });
        }
    }
};

#ifdef MORVEN_BENCH_HAVE_OPENCV
cv::Mat bgrMat(const Picture &p, const std::vector<uint8_t> &px) {
    return cv::Mat(p.height, p.width, CV_8UC3, const_cast<uint8_t *>(px.data()));
}

// What a user writes for three 256-bin histograms of an interleaved image:
// one calcHist per channel.
void calcHist3(const cv::Mat &image, cv::Mat hist[3]) {
    const int histSize = 256;
    const float range[] = {0.0f, 256.0f};
    const float *ranges[] = {range};
    for (int c = 0; c < 3; ++c)
        cv::calcHist(&image, 1, &c, cv::Mat(), hist[c], 1, &histSize, ranges, true, false);
}

cv::Mat lutOf(const uint8_t table[768]) {
    cv::Mat lut(1, 256, CV_8UC3);
    for (int i = 0; i < 256; ++i)
        lut.at<cv::Vec3b>(0, i) = cv::Vec3b(table[i], table[256 + i], table[512 + i]);
    return lut;
}
#endif

void profileFill(double mp) {
    const Dimensions d = dimensionsFor(mp);
    Group g("profile", mp, 3.0 * d.width * d.height);
#ifdef MORVEN_BENCH_HAVE_OPENCV
    g.addPeer("cv::calcHist x3", [mp](benchmark::State &state) {
        const Picture &p = picture(mp);
        cv::Mat image = bgrMat(p, p.source), hist[3];
        timeCalls(state, hist[0].data, [&] { calcHist3(image, hist); });
    });
#endif
    g.addMorven("morven", "wzImageFillColorProfile", 2.5, 0.0, mp,
                [](benchmark::State &state, const Picture &p) {
                    Header image(p.width, p.height, wzEncodingBGR, wzType8U, p.source.data());
                    wzImageColorProfile *profile = wzImageColorProfileCreate();
                    if (!image || !profile) state.SkipWithError("allocation failed");
                    timeCalls(
                        state, profile,
                        [&] { return wzImageFillColorProfile(image.get(), profile); },
                        "wzImageFillColorProfile");
                    wzImageColorProfileRelease(&profile);
                });
}

void matchApply(double mp) {
    const Dimensions d = dimensionsFor(mp);
    Group g("apply", mp, 3.0 * d.width * d.height);
#ifdef MORVEN_BENCH_HAVE_OPENCV
    g.addPeer("cv::LUT", [mp](benchmark::State &state) {
        const Picture &p = picture(mp);
        uint8_t table[768];
        if (!matchTable(p, table)) state.SkipWithError("match table failed");
        std::vector<uint8_t> out(p.bytes());
        cv::Mat src = bgrMat(p, p.source), dst = bgrMat(p, out), lut = lutOf(table);
        timeCalls(state, dst.data, [&] { cv::LUT(src, lut, dst); });
    });
#endif
    g.addMorven("morven", "wzHistogramMatchApply", 1.5, 0.0, mp,
                [](benchmark::State &state, const Picture &p) {
                    uint8_t table[768];
                    std::vector<uint8_t> out(p.bytes());
                    Header src(p.width, p.height, wzEncodingBGR, wzType8U, p.source.data());
                    Header dst(p.width, p.height, wzEncodingBGR, wzType8U, out.data());
                    if (!matchTable(p, table) || !src || !dst) state.SkipWithError("set-up failed");
                    timeCalls(
                        state, out.data(),
                        [&] {
                            return wzHistogramMatchApply(nullptr, table, src.get(), dst.get(),
                                                         nullptr);
                        },
                        "wzHistogramMatchApply");
                });
}

void transfer(double mp) {
    const Dimensions d = dimensionsFor(mp);
    Group g("transfer", mp, 3.0 * d.width * d.height);
#ifdef MORVEN_BENCH_HAVE_OPENCV
    // The histograms of both pictures and the look-up; building the match
    // table from the histograms (a few microseconds) is left out.
    g.addPeer("cv::calcHist x6 + cv::LUT", [mp](benchmark::State &state) {
        const Picture &p = picture(mp);
        uint8_t table[768];
        if (!matchTable(p, table)) state.SkipWithError("match table failed");
        std::vector<uint8_t> out(p.bytes());
        cv::Mat src = bgrMat(p, p.source), ref = bgrMat(p, p.reference), dst = bgrMat(p, out);
        cv::Mat lut = lutOf(table), srcHist[3], refHist[3];
        timeCalls(state, dst.data, [&] {
            calcHist3(src, srcHist);
            calcHist3(ref, refHist);
            cv::LUT(src, lut, dst);
        });
    });
#endif
    for (int contrast = 0; contrast < 2; ++contrast) {
        // The OpenCV peer does the work of the transfer without contrast;
        // with contrast on its ratio is shown for information only.
        g.addMorven(contrast ? "morven+contrast" : "morven",
                    contrast ? "wzMorvenTransfer contrast on" : "wzMorvenTransfer contrast off",
                    contrast ? 8.5 : 6.5, contrast ? 0.0 : 1.0, mp,
                    [contrast](benchmark::State &state, const Picture &p) {
                        std::vector<uint8_t> out(p.bytes());
                        timeCalls(
                            state, out.data(),
                            [&] {
                                return wzMorvenTransfer(p.width, p.height, p.source.data(),
                                                        out.data(), p.width, p.height,
                                                        p.reference.data(), contrast, 255, 1.0f,
                                                        9.0f, 50.0f, 0.9f);
                            },
                            "wzMorvenTransfer");
                    });
    }
}

// Where the transfer's time goes: its stages one at a time on one picture
// (the coffee photograph when it is among the pictures), each on the whole
// picture and on a strip of eight rows that stays in the processor's cache,
// run over and over until it has covered as many pixels. A stage whose
// cached time is close to its whole-picture time is bound by its own
// computation: no prefetching or streaming would shorten it. (In the
// transfer the brightness is counted from rows just written, in cache.)
struct Stage {
    const char *code;
    const char *operation;
    // The stage over rows [0, rows) of the picture; returns a library status.
    std::function<uint32_t(const Picture &, int32_t rows)> run;
};

struct StageData {
    uint8_t table[768] = {};
    uint8_t curve[256] = {};
    std::vector<uint8_t> out;
    wzImageColorProfile *profile = wzImageColorProfileCreate();
    wzHistogramMatchStats *match = wzHistogramMatchStatsCreate();
    wzContrastEnhanceStats *contrast = wzContrastEnhanceStatsCreate();
    ~StageData() {
        wzImageColorProfileRelease(&profile);
        wzHistogramMatchStatsRelease(&match);
        wzContrastEnhanceStatsRelease(&contrast);
    }
    // The match table and the contrast curve the transfer would use.
    bool prepare(const Picture &p) {
        out = p.transferred;
        Header matched(p.width, p.height, wzEncodingBGR, wzType8U, out.data());
        wzContrastEnhanceParams *params = wzContrastEnhanceParamsDefault();
        const bool ok = profile && match && contrast && params && matched && matchTable(p, table) &&
                        wzContrastEnhanceStatsRetrieve(contrast, matched.get(), nullptr) == 0;
        if (ok) wzContrastEnhanceAddParamsCompute(contrast, params, curve);
        wzContrastEnhanceParamsRelease(&params);
        return ok;
    }
};

uint32_t onRows(const Picture &p, int32_t rows, const uint8_t *px,
                const std::function<uint32_t(const wzImage *)> &op) {
    Header h(p.width, rows, wzEncodingBGR, wzType8U, px);
    return h ? op(h.get()) : 1u;
}

void transferStages() {
    const double mp = kTargetMegapixels;
    const Dimensions d = dimensionsFor(mp);
    const Group g("stages", mp, 3.0 * d.width * d.height);
    const auto &all = scenes();
    const Scene scene =
        std::find(all.begin(), all.end(), Scene::Coffee) != all.end() ? Scene::Coffee : all.front();
    auto data = std::make_shared<StageData>();
    const Stage stages[] = {
        {"profile", "stage: reference profile",
         [data](const Picture &p, int32_t rows) {
             return onRows(p, rows, p.reference.data(), [&](const wzImage *img) {
                 return uint32_t(wzImageFillColorProfile(img, data->profile));
             });
         }},
        {"stats", "stage: source statistics",
         [data](const Picture &p, int32_t rows) {
             return onRows(p, rows, p.source.data(), [&](const wzImage *img) {
                 return uint32_t(wzHistogramMatchStatsRetrieve(data->match, img));
             });
         }},
        {"apply", "stage: match look-up",
         [data](const Picture &p, int32_t rows) {
             Header dst(p.width, rows, wzEncodingBGR, wzType8U, data->out.data());
             return onRows(p, rows, p.source.data(), [&](const wzImage *img) {
                 return uint32_t(
                     wzHistogramMatchApply(nullptr, data->table, img, dst.get(), nullptr));
             });
         }},
        {"brightness", "stage: brightness histogram",
         [data](const Picture &p, int32_t rows) {
             return onRows(p, rows, data->out.data(), [&](const wzImage *img) {
                 return uint32_t(wzContrastEnhanceStatsRetrieve(data->contrast, img, nullptr));
             });
         }},
        {"curve", "stage: contrast curve, in place",
         [data](const Picture &p, int32_t rows) {
             Header io(p.width, rows, wzEncodingBGR, wzType8U, data->out.data());
             return io ? uint32_t(wzContrastEnhanceApply(data->curve, io.get(), io.get(), nullptr))
                       : 1u;
         }},
    };
    constexpr int32_t kStripRows = 8;
    for (const Stage &stage : stages)
        for (int cached = 0; cached < 2; ++cached) {
            Case c = g.make(
                (std::string(stage.code) + (cached ? "-cached@" : "@") + sceneLabel(scene)).c_str(),
                std::string(stage.operation) + (cached ? ", cached strip" : ""));
            c.picture = sceneLabel(scene);
            c.yardsticks.push_back({g.memcpyKey, 0.0});
            addCase(c, [mp, scene, data, cached, run = stage.run,
                        code = stage.code](benchmark::State &state) {
                const Picture &p = picture(mp, scene);
                if (!data->prepare(p)) state.SkipWithError("set-up failed");
                const int32_t rows = cached ? kStripRows : p.height;
                const int32_t calls = p.height / rows;
                timeCalls(
                    state, data->out.data(),
                    [&] {
                        uint32_t status = 0;
                        for (int32_t k = 0; k < calls && status == 0; ++k) status = run(p, rows);
                        return status;
                    },
                    code);
            });
        }
}

void toGray(double mp) {
    const Dimensions d = dimensionsFor(mp);
    Group g("gray", mp, 3.0 * d.width * d.height);
#ifdef MORVEN_BENCH_HAVE_OPENCV
    g.addPeer("cv::cvtColor BGR2GRAY", [mp](benchmark::State &state) {
        const Picture &p = picture(mp);
        std::vector<uint8_t> out(p.pixels());
        cv::Mat src = bgrMat(p, p.source), dst(p.height, p.width, CV_8UC1, out.data());
        timeCalls(state, dst.data, [&] { cv::cvtColor(src, dst, cv::COLOR_BGR2GRAY); });
    });
#endif
    g.addMorven("morven", "wzImageCvtColor BGR>gray", 2.0, 1.0, mp,
                [](benchmark::State &state, const Picture &p) {
                    std::vector<uint8_t> out(p.pixels());
                    Header src(p.width, p.height, wzEncodingBGR, wzType8U, p.source.data());
                    Header dst(p.width, p.height, wzEncodingGray, wzType8U, out.data());
                    if (!src || !dst) state.SkipWithError("allocation failed");
                    timeCalls(
                        state, out.data(), [&] { return wzImageCvtColor(src.get(), dst.get()); },
                        "wzImageCvtColor");
                });
}

void smooth(double mp) {
    const Dimensions d = dimensionsFor(mp);
    Group g("smooth", mp, 3.0 * d.width * d.height);
    // With defaults, without a cancel flag and with one that is never set
    // (the two take one path).
    for (bool flag : {false, true}) {
        g.addMorven(
            flag ? "morven+flag" : "morven",
            flag ? "wzSelectiveSmooth 2 passes, flag" : "wzSelectiveSmooth 2 passes", 20.0, 0.0, mp,
            [flag](benchmark::State &state, const Picture &p) {
                std::vector<uint8_t> out(p.bytes());
                Header guide(p.width, p.height, wzEncodingBGR, wzType8U, p.source.data());
                Header input(p.width, p.height, wzEncodingBGR, wzType8U, p.transferred.data());
                Header output(p.width, p.height, wzEncodingBGR, wzType8U, out.data());
                wzSelectiveSmoothParams *params = wzSelectiveSmoothParamsDefault();
                const uint32_t never = 0;
                if (!guide || !input || !output || !params || !smoothSupport())
                    state.SkipWithError("allocation failed");
                timeCalls(
                    state, out.data(),
                    [&] {
                        return wzSelectiveSmooth(params, smoothSupport(), guide.get(), input.get(),
                                                 output.get(), flag ? &never : nullptr);
                    },
                    "wzSelectiveSmooth");
                wzSelectiveSmoothParamsRelease(&params);
            });
    }
}

// Element-type conversions of the BGR picture; the yardstick copies the
// larger of the two blocks.
struct Conversion {
    const char *key;
    const char *label;
    uint32_t from;
    uint32_t to;
    int cvType;      // OpenCV depth of the destination
    double cvScale;  // the scale a user passes to convertTo
    const char *peer;
};

size_t elementBytes(uint32_t type) { return type == wzType8U ? 1 : type == wzType16U ? 2 : 4; }

void convert(double mp, const Conversion &conv) {
    const Dimensions d = dimensionsFor(mp);
    const double larger =
        3.0 * d.width * d.height * double(std::max(elementBytes(conv.from), elementBytes(conv.to)));
    Group g(conv.key, mp, larger);

    // Source block of type conv.from (made from the 8-bit picture with the
    // library itself) and a destination block of type conv.to.
    struct Blocks {
        std::vector<uint8_t> src, dst;
        const uint8_t *source = nullptr;
    };
    auto prepare = [conv](const Picture &p, Blocks &b) -> bool {
        b.dst.assign(p.bytes() * elementBytes(conv.to), 0);
        if (conv.from == wzType8U) {
            b.source = p.source.data();
            return true;
        }
        b.src.assign(p.bytes() * elementBytes(conv.from), 0);
        Header in(p.width, p.height, wzEncodingBGR, wzType8U, p.source.data());
        Header out(p.width, p.height, wzEncodingBGR, conv.from, b.src.data());
        b.source = b.src.data();
        return in && out && wzImageCvtType(in.get(), out.get()) == 0;
    };

#ifdef MORVEN_BENCH_HAVE_OPENCV
    g.addPeer(conv.peer, [mp, conv, prepare](benchmark::State &state) {
        const Picture &p = picture(mp);
        Blocks b;
        if (!prepare(p, b)) state.SkipWithError("set-up failed");
        auto depth = [](uint32_t t) {
            return t == wzType8U ? CV_8U : t == wzType16U ? CV_16U : CV_32F;
        };
        cv::Mat src(p.height, p.width, CV_MAKETYPE(depth(conv.from), 3),
                    const_cast<uint8_t *>(b.source));
        cv::Mat dst(p.height, p.width, CV_MAKETYPE(conv.cvType, 3), b.dst.data());
        timeCalls(state, dst.data, [&] { src.convertTo(dst, conv.cvType, conv.cvScale); });
    });
#endif
    g.addMorven("morven", std::string("wzImageCvtType ") + conv.label, 1.5, 0.0, mp,
                [conv, prepare](benchmark::State &state, const Picture &p) {
                    Blocks b;
                    bool ok = prepare(p, b);
                    Header src(p.width, p.height, wzEncodingBGR, conv.from, b.source);
                    Header dst(p.width, p.height, wzEncodingBGR, conv.to, b.dst.data());
                    if (!ok || !src || !dst) state.SkipWithError("set-up failed");
                    timeCalls(
                        state, b.dst.data(), [&] { return wzImageCvtType(src.get(), dst.get()); },
                        "wzImageCvtType");
                });
}

#ifndef MORVEN_BENCH_HAVE_OPENCV
constexpr int CV_8U = 0, CV_16U = 2, CV_32F = 5;
#endif

const Conversion kConversions[] = {
    {"cvt8u32f", "8U>32F", wzType8U, wzType32F, CV_32F, 1.0 / 255.0, "Mat::convertTo 8U>32F"},
    {"cvt32f8u", "32F>8U", wzType32F, wzType8U, CV_8U, 255.0, "Mat::convertTo 32F>8U"},
    {"cvt8u16u", "8U>16U", wzType8U, wzType16U, CV_16U, 256.0, "Mat::convertTo 8U>16U"},
    {"cvt16u8u", "16U>8U", wzType16U, wzType8U, CV_8U, 1.0 / 256.0, "Mat::convertTo 16U>8U"},
};

}  // namespace

void registerImageBenchmarks(const std::vector<double> &megapixels) {
    // Operation by operation, each at every size, so that a case and its
    // yardsticks always run back to back.
    for (double mp : megapixels) profileFill(mp);
    for (double mp : megapixels) matchApply(mp);
    for (double mp : megapixels) transfer(mp);
    if (std::find(megapixels.begin(), megapixels.end(), kTargetMegapixels) != megapixels.end())
        transferStages();
    for (double mp : megapixels) toGray(mp);
    for (double mp : megapixels) smooth(mp);
    for (const Conversion &conv : kConversions)
        for (double mp : megapixels) convert(mp, conv);
}

}  // namespace bench
