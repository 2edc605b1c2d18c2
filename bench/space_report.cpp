// Colour transfer in four working spaces on the bundled photographs.
//
// For every ordered pair of photographs (source, reference) the transfer runs
// with the default parameters four ways: per channel with the reference's
// 8-bit profile, and in luma, Y'CbCr and Lab with the reference's deep
// profile counted in that space. For each result it measures how close the
// distributions come to the reference's (Kolmogorov-Smirnov distance on R, G,
// B and on CIELAB L*, a*, b*), how many weakly coloured source pixels turn to
// a clearly different hue (false colour), and the time of the transfer call.
// The tables are printed as Markdown on stdout; with --pictures, one strip per
// direction (source, reference, the four results) is written as well, JPEG
// when built with libjpeg, PNG otherwise. scripts/space-report runs it.
//
// CIELAB is computed here in double precision from the sRGB definition,
// independently of the library; a check at start-up compares it with
// published values, and the reference profiles the library counts are
// compared with the same quantities counted here.
//
//   morven_space_report [--data DIR] [--pictures DIR] [--repeat N]
//                       [--height PX] [--quality Q] [--fidelity F] [--brief]
//
//   --data      folder of coffee.png, chelsea.png, astronaut.png (data/images)
//   --pictures  folder for the strips (none when not given)
//   --repeat    timed runs of each call, the fastest is reported (5)
//   --height    panel height of the strips in pixels (200)
//   --quality   JPEG quality of the strips (85)
//   --fidelity  matching fidelity instead of the library's default
//   --brief     print only the false colour and the means
#include <morven/morven.h>

#include <png.h>
#ifdef MORVEN_REPORT_HAVE_JPEG
#include <jpeglib.h>
#include <csetjmp>
#endif

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

// ---------------------------------------------------------------------------
// Pictures: packed 8-bit RGB in memory order red, green, blue.

struct Picture {
    std::string name;
    int32_t width = 0;
    int32_t height = 0;
    std::vector<uint8_t> rgb;
    size_t pixels() const { return size_t(width) * size_t(height); }
};

bool readPng(const std::string &path, Picture &picture) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str())) {
        std::fprintf(stderr, "space_report: %s: %s\n", path.c_str(), image.message);
        return false;
    }
    image.format = PNG_FORMAT_RGB;
    picture.width = int32_t(image.width);
    picture.height = int32_t(image.height);
    picture.rgb.resize(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, picture.rgb.data(), 0, nullptr)) {
        std::fprintf(stderr, "space_report: %s: %s\n", path.c_str(), image.message);
        png_image_free(&image);
        return false;
    }
    return true;
}

[[maybe_unused]] bool writePng(const std::string &path, const Picture &picture) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = png_uint_32(picture.width);
    image.height = png_uint_32(picture.height);
    image.format = PNG_FORMAT_RGB;
    if (!png_image_write_to_file(&image, path.c_str(), 0, picture.rgb.data(), 0, nullptr)) {
        std::fprintf(stderr, "space_report: %s: %s\n", path.c_str(), image.message);
        return false;
    }
    return true;
}

#ifdef MORVEN_REPORT_HAVE_JPEG
struct JpegError {
    jpeg_error_mgr manager;
    std::jmp_buf jump;
};

[[noreturn]] void jpegFail(j_common_ptr info) {
    char message[JMSG_LENGTH_MAX];
    info->err->format_message(info, message);
    std::fprintf(stderr, "space_report: libjpeg: %s\n", message);
    std::longjmp(reinterpret_cast<JpegError *>(info->err)->jump, 1);
}

// No C++ object lives in this frame across the setjmp: a failure jumps back
// here, releases the compressor and closes the file.
bool writeJpeg(const char *path, const Picture &picture, int quality) {
    std::FILE *file = std::fopen(path, "wb");
    if (!file) {
        std::fprintf(stderr, "space_report: cannot write %s\n", path);
        return false;
    }
    jpeg_compress_struct info;
    JpegError error;
    info.err = jpeg_std_error(&error.manager);
    error.manager.error_exit = jpegFail;
    if (setjmp(error.jump)) {
        jpeg_destroy_compress(&info);
        std::fclose(file);
        return false;
    }
    jpeg_create_compress(&info);
    jpeg_stdio_dest(&info, file);
    info.image_width = JDIMENSION(picture.width);
    info.image_height = JDIMENSION(picture.height);
    info.input_components = 3;
    info.in_color_space = JCS_RGB;
    jpeg_set_defaults(&info);
    jpeg_set_quality(&info, quality, TRUE);
    jpeg_start_compress(&info, TRUE);
    while (info.next_scanline < info.image_height) {
        JSAMPROW row = const_cast<JSAMPROW>(picture.rgb.data() +
                                            size_t(info.next_scanline) * 3 * picture.width);
        jpeg_write_scanlines(&info, &row, 1);
    }
    jpeg_finish_compress(&info);
    jpeg_destroy_compress(&info);
    return std::fclose(file) == 0;
}
#endif

// Area-average resampling to the given height (the width keeps the aspect
// ratio): every output pixel is the mean of the source area it covers, with
// fractional weights at its edges. Meant for shrinking.
Picture resizeToHeight(const Picture &in, int32_t height) {
    Picture out;
    out.name = in.name;
    out.height = height;
    out.width = std::max<int32_t>(1, int32_t(std::lround(double(in.width) * height / in.height)));
    // Weights of the source columns (or rows) that cover each output one.
    struct Tap {
        int32_t index;
        double weight;
    };
    auto taps = [](int32_t from, int32_t to) {
        std::vector<std::vector<Tap>> all(static_cast<size_t>(to));
        const double scale = double(from) / to;
        for (int32_t o = 0; o < to; ++o) {
            const double lo = o * scale, hi = (o + 1) * scale;
            for (int32_t i = int32_t(lo); i < from && i < hi; ++i) {
                const double w = std::min<double>(i + 1, hi) - std::max<double>(i, lo);
                if (w > 0) all[size_t(o)].push_back({i, w / scale});
            }
        }
        return all;
    };
    const auto columns = taps(in.width, out.width);
    const auto rows = taps(in.height, out.height);
    std::vector<double> line(size_t(in.width) * 3);
    out.rgb.resize(out.pixels() * 3);
    for (int32_t y = 0; y < out.height; ++y) {
        std::fill(line.begin(), line.end(), 0.0);
        for (const Tap &row : rows[size_t(y)]) {
            const uint8_t *src = in.rgb.data() + size_t(row.index) * in.width * 3;
            for (size_t i = 0; i < line.size(); ++i) line[i] += row.weight * src[i];
        }
        uint8_t *dst = out.rgb.data() + size_t(y) * out.width * 3;
        for (int32_t x = 0; x < out.width; ++x)
            for (int c = 0; c < 3; ++c) {
                double v = 0;
                for (const Tap &col : columns[size_t(x)])
                    v += col.weight * line[size_t(col.index) * 3 + c];
                dst[x * 3 + c] = uint8_t(std::clamp(std::lround(v), 0L, 255L));
            }
    }
    return out;
}

// Panels side by side on a white ground, `gap` pixels apart.
Picture strip(const std::vector<Picture> &panels, int32_t gap) {
    Picture out;
    out.height = panels.front().height;
    for (const Picture &p : panels) out.width += p.width;
    out.width += gap * int32_t(panels.size() - 1);
    out.rgb.assign(out.pixels() * 3, 255);
    int32_t x0 = 0;
    for (const Picture &p : panels) {
        for (int32_t y = 0; y < p.height; ++y)
            std::memcpy(out.rgb.data() + (size_t(y) * out.width + x0) * 3,
                        p.rgb.data() + size_t(y) * p.width * 3, size_t(p.width) * 3);
        x0 += p.width + gap;
    }
    return out;
}

// ---------------------------------------------------------------------------
// CIELAB (D65) from sRGB, in double precision.

struct Lab {
    double L, a, b;
};

// The white is the sum of the rows of the sRGB matrix, so that every gray
// has a* = b* = 0 up to rounding.
constexpr double kM[3][3] = {{0.4124564, 0.3575761, 0.1804375},
                             {0.2126729, 0.7151522, 0.0721750},
                             {0.0193339, 0.1191920, 0.9503041}};

const std::array<double, 256> &linearTable() {
    static const std::array<double, 256> table = [] {
        std::array<double, 256> t{};
        for (int i = 0; i < 256; ++i) {
            const double c = i / 255.0;
            t[size_t(i)] = c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
        }
        return t;
    }();
    return table;
}

double labF(double t) {
    constexpr double d = 6.0 / 29.0;
    return t > d * d * d ? std::cbrt(t) : t / (3 * d * d) + 4.0 / 29.0;
}

Lab labOf(uint8_t r8, uint8_t g8, uint8_t b8) {
    const auto &lin = linearTable();
    const double r = lin[r8], g = lin[g8], b = lin[b8];
    double f[3];
    for (int i = 0; i < 3; ++i) {
        const double white = kM[i][0] + kM[i][1] + kM[i][2];
        f[i] = labF((kM[i][0] * r + kM[i][1] * g + kM[i][2] * b) / white);
    }
    return {116 * f[1] - 16, 500 * (f[0] - f[1]), 200 * (f[1] - f[2])};
}

std::vector<Lab> labOf(const Picture &p) {
    std::vector<Lab> out(p.pixels());
    for (size_t i = 0; i < out.size(); ++i)
        out[i] = labOf(p.rgb[3 * i], p.rgb[3 * i + 1], p.rgb[3 * i + 2]);
    return out;
}

double chroma(const Lab &c) { return std::hypot(c.a, c.b); }
double hueDegrees(const Lab &c) { return std::atan2(c.b, c.a) * (180.0 / M_PI); }

// Published CIELAB values of the sRGB primaries and white (D65).
bool labSelfCheck() {
    struct Case {
        uint8_t r, g, b;
        Lab expected;
    };
    const Case cases[] = {
        {255, 255, 255, {100.0, 0.0, 0.0}},      {0, 0, 0, {0.0, 0.0, 0.0}},
        {255, 0, 0, {53.241, 80.092, 67.203}},   {0, 255, 0, {87.735, -86.183, 83.179}},
        {0, 0, 255, {32.297, 79.188, -107.860}}, {128, 128, 128, {53.585, 0.0, 0.0}},
    };
    bool ok = true;
    for (const Case &c : cases) {
        const Lab got = labOf(c.r, c.g, c.b);
        if (std::fabs(got.L - c.expected.L) > 0.01 || std::fabs(got.a - c.expected.a) > 0.01 ||
            std::fabs(got.b - c.expected.b) > 0.01) {
            std::fprintf(stderr,
                         "space_report: Lab of (%d, %d, %d) is (%.3f, %.3f, %.3f), expected (%.3f, "
                         "%.3f, %.3f)\n",
                         c.r, c.g, c.b, got.L, got.a, got.b, c.expected.L, c.expected.a,
                         c.expected.b);
            ok = false;
        }
    }
    return ok;
}

// ---------------------------------------------------------------------------
// Distances between distributions.

// Largest absolute difference of the cumulative distributions of two
// histograms over the same bins.
double ksDistance(const std::vector<double> &p, const std::vector<double> &q) {
    double np = 0, nq = 0;
    for (double v : p) np += v;
    for (double v : q) nq += v;
    double cp = 0, cq = 0, worst = 0;
    for (size_t i = 0; i < p.size(); ++i) {
        cp += p[i];
        cq += q[i];
        worst = std::max(worst, std::fabs(cp / np - cq / nq));
    }
    return worst;
}

std::vector<double> channelHistogram(const Picture &p, int channel) {
    std::vector<double> h(256, 0.0);
    for (size_t i = 0; i < p.pixels(); ++i) h[p.rgb[3 * i + size_t(channel)]] += 1;
    return h;
}

// L* in 0..100, a* and b* in -128..128, in bins of 0.05.
constexpr double kLabBin = 0.05;

std::vector<double> labHistogram(const std::vector<Lab> &lab, int channel) {
    const double lo = channel == 0 ? 0.0 : -128.0, hi = channel == 0 ? 100.0 : 128.0;
    const size_t bins = size_t(std::lround((hi - lo) / kLabBin)) + 1;
    std::vector<double> h(bins, 0.0);
    for (const Lab &c : lab) {
        const double v = channel == 0 ? c.L : channel == 1 ? c.a : c.b;
        const double k = std::clamp(std::floor((v - lo) / kLabBin), 0.0, double(bins - 1));
        h[size_t(k)] += 1;
    }
    return h;
}

// KS distances of R, G, B (rgb[0..2]) and L*, a*, b* (lab[0..2]).
struct Distances {
    std::array<double, 3> rgb{};
    std::array<double, 3> lab{};
};

struct ReferenceStats {
    std::array<std::vector<double>, 3> rgb;
    std::array<std::vector<double>, 3> lab;
};

ReferenceStats referenceStats(const Picture &p, const std::vector<Lab> &lab) {
    ReferenceStats s;
    for (int c = 0; c < 3; ++c) {
        s.rgb[size_t(c)] = channelHistogram(p, c);
        s.lab[size_t(c)] = labHistogram(lab, c);
    }
    return s;
}

Distances distances(const Picture &p, const std::vector<Lab> &lab, const ReferenceStats &ref) {
    Distances d;
    for (int c = 0; c < 3; ++c) {
        d.rgb[size_t(c)] = ksDistance(channelHistogram(p, c), ref.rgb[size_t(c)]);
        d.lab[size_t(c)] = ksDistance(labHistogram(lab, c), ref.lab[size_t(c)]);
    }
    return d;
}

// False colour: among the source's low-chroma pixels (2 <= C*ab < 20), the
// share whose result has a visible chroma (C*ab >= 5) and a hue more than 60
// degrees away from the source pixel's.
constexpr double kLowChromaMin = 2.0, kLowChromaMax = 20.0, kVisibleChroma = 5.0, kHueTurn = 60.0;

bool lowChroma(const Lab &c) {
    const double C = chroma(c);
    return C >= kLowChromaMin && C < kLowChromaMax;
}

double falseColourShare(const std::vector<Lab> &source, const std::vector<Lab> &result) {
    size_t candidates = 0, turned = 0;
    for (size_t i = 0; i < source.size(); ++i) {
        if (!lowChroma(source[i])) continue;
        ++candidates;
        if (chroma(result[i]) < kVisibleChroma) continue;
        double dh = std::fabs(hueDegrees(result[i]) - hueDegrees(source[i]));
        if (dh > 180) dh = 360 - dh;
        if (dh > kHueTurn) ++turned;
    }
    return candidates ? double(turned) / double(candidates) : 0.0;
}

// ---------------------------------------------------------------------------
// The library's records, released on every path.

struct ImageRelease {
    void operator()(wzImage *p) const { wzImageRelease(&p); }
};
struct ProfileRelease {
    void operator()(wzImageColorProfile *p) const { wzImageColorProfileRelease(&p); }
};
struct Profile16Release {
    void operator()(wzImageColorProfile16 *p) const { wzImageColorProfile16Release(&p); }
};
struct ParamsRelease {
    void operator()(wzHistogramTransferParams *p) const { wzHistogramTransferParamsRelease(&p); }
};
struct SupportRelease {
    void operator()(wzHistogramTransferSupport *p) const { wzHistogramTransferSupportRelease(&p); }
};
using Image = std::unique_ptr<wzImage, ImageRelease>;
using Profile = std::unique_ptr<wzImageColorProfile, ProfileRelease>;
using Profile16 = std::unique_ptr<wzImageColorProfile16, Profile16Release>;
using Params = std::unique_ptr<wzHistogramTransferParams, ParamsRelease>;
using Support = std::unique_ptr<wzHistogramTransferSupport, SupportRelease>;

template <class T>
T checked(T p, const char *what) {
    if (!p) {
        std::fprintf(stderr, "space_report: cannot allocate %s\n", what);
        std::exit(1);
    }
    return p;
}

Image imageOf(const Picture &p) {
    Image image(checked(wzImageCreate(p.width, p.height, wzEncodingRGB), "an image"));
    std::memcpy(image->data, p.rgb.data(), p.rgb.size());
    return image;
}

Picture pictureOf(const wzImage &image, const std::string &name) {
    Picture p;
    p.name = name;
    p.width = image.width;
    p.height = image.height;
    p.rgb.assign(image.data, image.data + p.pixels() * 3);
    return p;
}

double milliseconds(std::chrono::steady_clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

// ---------------------------------------------------------------------------
// Cross-check of the library's deep reference profiles: the same quantities
// (Y', Cb, Cr and L*, a*, b* on the 0..65535 scale the profile documents)
// counted here in double precision. Rounding differences move a pixel by a
// bin or two (grays sit exactly on a rounding tie of Cb, Cr, a*, b*), so the
// two are compared by the mean displacement between the distributions (the
// area between the cumulative distributions, in bins). Returns the largest
// over the three channels.

double profileDisplacement(const Picture &p, const std::vector<Lab> &lab, wzWorkingSpace space,
                           const wzImageColorProfile16 &profile) {
    std::array<std::vector<double>, 3> ours;
    for (auto &h : ours) h.assign(WZ_PROFILE16_BINS, 0.0);
    auto bin = [](double v) { return size_t(std::clamp(std::lround(v * 65535.0), 0L, 65535L)); };
    for (size_t i = 0; i < p.pixels(); ++i) {
        double v[3];
        if (space == wzSpaceLab) {
            v[0] = lab[i].L / 100.0;
            v[1] = (lab[i].a + 128.0) / 256.0;
            v[2] = (lab[i].b + 128.0) / 256.0;
        } else {
            const double r = p.rgb[3 * i] / 255.0, g = p.rgb[3 * i + 1] / 255.0,
                         b = p.rgb[3 * i + 2] / 255.0;
            const double y = 0.299 * r + 0.587 * g + 0.114 * b;
            v[0] = y;
            v[1] = (b - y) / 1.772 + 0.5;
            v[2] = (r - y) / 1.402 + 0.5;
        }
        for (int c = 0; c < 3; ++c) ours[size_t(c)][bin(v[c])] += 1;
    }
    double worst = 0;
    for (int c = 0; c < 3; ++c) {
        // bins[2] holds Y' or L*, bins[1] Cb or a*, bins[0] Cr or b*.
        const double *lib = profile.bins[2 - c];
        double nOurs = 0, nLib = 0;
        for (size_t k = 0; k < WZ_PROFILE16_BINS; ++k) {
            nOurs += ours[size_t(c)][k];
            nLib += lib[k];
        }
        double cOurs = 0, cLib = 0, area = 0;
        for (size_t k = 0; k < WZ_PROFILE16_BINS; ++k) {
            cOurs += ours[size_t(c)][k];
            cLib += lib[k];
            area += std::fabs(cOurs / nOurs - cLib / nLib);
        }
        worst = std::max(worst, area);
    }
    return worst;
}

// ---------------------------------------------------------------------------
// The runs.

struct Way {
    const char *label;
    wzWorkingSpace space;
};
const Way kWays[] = {{"channels", wzSpaceChannels},
                     {"luma", wzSpaceLuma},
                     {"Y'CbCr", wzSpaceYCbCr},
                     {"Lab", wzSpaceLab}};
constexpr int kWayCount = 4;

struct Outcome {
    Distances distance;
    double falseColour = 0;
    double ms = 0;
};

// One ordered pair: the source's distances to the reference (the baseline)
// and the outcome of each way.
struct Direction {
    int source = 0, reference = 0;
    Distances baseline;
    Outcome way[kWayCount];
};

struct Options {
    std::string data = "data/images";
    std::string pictures;
    int repeat = 5;
    int height = 200;
    int quality = 85;
    double fidelity = -1;  // below 0: the library's default
    bool brief = false;    // only the false colour and the means
};

bool parse(int argc, char **argv, Options &o) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--brief") {
            o.brief = true;
            continue;
        }
        if (i + 1 >= argc) return false;
        const char *v = argv[++i];
        if (a == "--data")
            o.data = v;
        else if (a == "--pictures")
            o.pictures = v;
        else if (a == "--repeat")
            o.repeat = std::max(1, std::atoi(v));
        else if (a == "--height")
            o.height = std::max(16, std::atoi(v));
        else if (a == "--quality")
            o.quality = std::clamp(std::atoi(v), 1, 100);
        else if (a == "--fidelity")
            o.fidelity = std::clamp(std::atof(v), 0.0, 1.0);
        else
            return false;
    }
    return true;
}

// The fastest of `repeat` runs in milliseconds (the run least disturbed by
// other work on the machine), or -1 when a run fails.
template <class Run>
double bestMs(int repeat, Run run) {
    double best = -1;
    for (int k = 0; k < repeat; ++k) {
        const auto t0 = std::chrono::steady_clock::now();
        if (!run()) return -1;
        const double ms = milliseconds(std::chrono::steady_clock::now() - t0);
        best = best < 0 ? ms : std::min(best, ms);
    }
    return best;
}

std::string fixed(double v, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, v);
    return text;
}

std::string triple(const std::array<double, 3> &v) {
    return fixed(v[0], 3) + " / " + fixed(v[1], 3) + " / " + fixed(v[2], 3);
}

double mean3(const std::array<double, 3> &v) { return (v[0] + v[1] + v[2]) / 3; }

const Distances &distancesOf(const Direction &d, int w) {
    return w < 0 ? d.baseline : d.way[w].distance;
}

struct Report {
    std::vector<Picture> pics;
    std::vector<Direction> dirs;

    std::string label(const Direction &d) const {
        return pics[size_t(d.source)].name + " ← " + pics[size_t(d.reference)].name;
    }

    // Rows: directions; columns: the untouched source (with `baseline`) and
    // the four ways. cell(direction, way) with way -1 for the source.
    template <class Cell>
    void table(bool baseline, Cell cell) const {
        std::printf("| direction (source ← reference) |%s", baseline ? " source |" : "");
        for (const Way &w : kWays) std::printf(" %s |", w.label);
        std::printf("\n|---|%s", baseline ? "---:|" : "");
        for (int w = 0; w < kWayCount; ++w) std::printf("---:|");
        std::printf("\n");
        for (const Direction &d : dirs) {
            std::printf("| %s |", label(d).c_str());
            for (int w = baseline ? -1 : 0; w < kWayCount; ++w)
                std::printf(" %s |", cell(d, w).c_str());
            std::printf("\n");
        }
        std::printf("\n");
    }

    // One row of the summary: the mean over the directions of value(d, w).
    template <class Value>
    void meanRow(const char *name, int decimals, bool baseline, Value value) const {
        std::printf("| %s |", name);
        for (int w = -1; w < kWayCount; ++w) {
            if (w < 0 && !baseline) {
                std::printf(" |");
                continue;
            }
            double m = 0;
            for (const Direction &d : dirs) m += value(d, w);
            std::printf(" %.*f |", decimals, m / double(dirs.size()));
        }
        std::printf("\n");
    }

    void falseColourTable() const {
        std::printf(
            "Share of the source's low-chroma pixels (%g ≤ C\\*ab < %g) whose result has "
            "C\\*ab ≥ %g and a hue angle more than %g° from the source pixel's, in per cent.\n\n",
            kLowChromaMin, kLowChromaMax, kVisibleChroma, kHueTurn);
        table(false,
              [](const Direction &d, int w) { return fixed(100 * d.way[w].falseColour, 2); });
    }

    void summary() const {
        std::printf("| measure | source |");
        for (const Way &w : kWays) std::printf(" %s |", w.label);
        std::printf("\n|---|---:|");
        for (int w = 0; w < kWayCount; ++w) std::printf("---:|");
        std::printf("\n");
        meanRow("KS R, G, B (mean)", 3, true,
                [](const Direction &d, int w) { return mean3(distancesOf(d, w).rgb); });
        meanRow("KS L\\*, a\\*, b\\* (mean)", 3, true,
                [](const Direction &d, int w) { return mean3(distancesOf(d, w).lab); });
        meanRow("KS L\\*", 3, true,
                [](const Direction &d, int w) { return distancesOf(d, w).lab[0]; });
        meanRow("KS a\\*, b\\* (mean)", 3, true, [](const Direction &d, int w) {
            const auto &v = distancesOf(d, w).lab;
            return (v[1] + v[2]) / 2;
        });
        meanRow("false colour (%)", 2, false,
                [](const Direction &d, int w) { return 100 * d.way[w].falseColour; });
        meanRow("transfer time (ms)", 2, false,
                [](const Direction &d, int w) { return d.way[w].ms; });
        std::printf("\n");
    }
};

}  // namespace

int main(int argc, char **argv) {
    Options options;
    if (!parse(argc, argv, options)) {
        std::fprintf(stderr,
                     "usage: morven_space_report [--data DIR] [--pictures DIR] [--repeat N]"
                     " [--height PX] [--quality Q] [--fidelity F] [--brief]\n");
        return 2;
    }
    if (!labSelfCheck()) return 1;

    Report report;
    std::vector<std::vector<Lab>> labs;
    std::vector<ReferenceStats> refStats;
    for (const char *name : {"coffee", "chelsea", "astronaut"}) {
        Picture p;
        p.name = name;
        if (!readPng(options.data + "/" + name + ".png", p)) return 1;
        labs.push_back(labOf(p));
        refStats.push_back(referenceStats(p, labs.back()));
        report.pics.push_back(std::move(p));
    }
    const std::vector<Picture> &pics = report.pics;

    Support support(checked(wzHistogramTransferSupportCreate(), "the support object"));
    Params params(checked(wzHistogramTransferParamsDefault(), "the parameters"));
    if (options.fidelity >= 0) params->matchFidelity = float(options.fidelity);
    Profile profile(checked(wzImageColorProfileCreate(), "a profile"));
    Profile16 profile16(checked(wzImageColorProfile16Create(), "a deep profile"));

    // Reference profiles: their time, and the check against this program's
    // own count of the same quantities.
    double profileMs[3][kWayCount] = {};
    double displacement[kWayCount] = {};
    for (size_t r = 0; r < pics.size(); ++r) {
        Image ref = imageOf(pics[r]);
        for (int w = 0; w < kWayCount; ++w) {
            const wzWorkingSpace space = kWays[w].space;
            profileMs[r][w] = bestMs(options.repeat, [&] {
                return (space == wzSpaceChannels
                            ? wzImageFillColorProfile(ref.get(), profile.get())
                            : wzImageFillColorProfile16(ref.get(), nullptr, space,
                                                        profile16.get())) == WZ_STATUS_OK;
            });
            if (profileMs[r][w] < 0) {
                std::fprintf(stderr, "space_report: profile of %s in %s failed\n",
                             pics[r].name.c_str(), kWays[w].label);
                return 1;
            }
            if (space == wzSpaceYCbCr || space == wzSpaceLab)
                displacement[w] = std::max(
                    displacement[w], profileDisplacement(pics[r], labs[r], space, *profile16));
        }
    }

    size_t exactChannels = 0;
    for (int s = 0; s < 3; ++s) {
        for (int r = 0; r < 3; ++r) {
            if (r == s) continue;
            Direction d;
            d.source = s;
            d.reference = r;
            std::fprintf(stderr, "space_report: %s\n", report.label(d).c_str());
            const Picture &src = pics[size_t(s)];
            d.baseline = distances(src, labs[size_t(s)], refStats[size_t(r)]);
            Image source = imageOf(src), reference = imageOf(pics[size_t(r)]);
            Image result(checked(wzImageCreateAs(source.get()), "an image"));
            wzImageFillColorProfile(reference.get(), profile.get());
            params->targetProfile = profile.get();
            std::vector<Picture> panels = {src, pics[size_t(r)]};
            for (int w = 0; w < kWayCount; ++w) {
                wzHistogramMatchOptions match{};
                match.space = kWays[w].space;
                if (match.space != wzSpaceChannels) {
                    wzImageFillColorProfile16(reference.get(), nullptr, match.space,
                                              profile16.get());
                    match.targetProfile16 = profile16.get();
                }
                wzStatus status = WZ_STATUS_OK;
                Outcome &o = d.way[w];
                o.ms = bestMs(options.repeat, [&] {
                    status = wzHistogramTransferFilterWithOptions(params.get(), &match,
                                                                  support.get(), source.get(),
                                                                  nullptr, result.get(), nullptr);
                    return status == WZ_STATUS_OK;
                });
                if (o.ms < 0) {
                    std::fprintf(stderr, "space_report: %s in %s: status %u\n",
                                 report.label(d).c_str(), kWays[w].label, unsigned(status));
                    return 1;
                }
                Picture out = pictureOf(*result, src.name);
                const std::vector<Lab> outLab = labOf(out);
                o.distance = distances(out, outLab, refStats[size_t(r)]);
                o.falseColour = falseColourShare(labs[size_t(s)], outLab);
                if (match.space == wzSpaceChannels) {
                    // The per-channel way must be the classic transfer exactly.
                    Image classic(checked(wzImageCreateAs(source.get()), "an image"));
                    wzHistogramTransferFilter(params.get(), support.get(), source.get(), nullptr,
                                              classic.get(), nullptr);
                    exactChannels += std::memcmp(classic->data, result->data, src.rgb.size()) == 0;
                }
                panels.push_back(std::move(out));
            }
            if (!options.pictures.empty()) {
                for (Picture &p : panels) p = resizeToHeight(p, options.height);
                const Picture row = strip(panels, 4);
                std::string path =
                    options.pictures + "/space-" + src.name + "-from-" + pics[size_t(r)].name;
#ifdef MORVEN_REPORT_HAVE_JPEG
                path += ".jpg";
                if (!writeJpeg(path.c_str(), row, options.quality)) return 1;
#else
                path += ".png";
                if (!writePng(path, row)) return 1;
#endif
                std::fprintf(stderr, "space_report: wrote %s\n", path.c_str());
            }
            report.dirs.push_back(d);
        }
    }

    std::printf(
        "Library %s; transfer parameters: strength %g, fidelity %g, maxStep %d, contrast %s, "
        "smoothing %s.\n\n",
        wzMorvenVersionString(), double(params->matchStrength), double(params->matchFidelity),
        int(params->matchMaxStep), params->contrastEnabled ? "on" : "off",
        params->smoothEnabled ? "on" : "off");
    if (options.brief) {
        report.falseColourTable();
        report.summary();
    } else {
        std::printf(
            "### Distance to the reference's R, G, B distributions\n\n"
            "Kolmogorov-Smirnov distance of the 8-bit values, mean of R, G and B "
            "(0 identical, 1 disjoint); *source* is the untouched source.\n\n");
        report.table(
            true, [](const Direction &d, int w) { return fixed(mean3(distancesOf(d, w).rgb), 3); });
        std::printf("Per channel, R / G / B:\n\n");
        report.table(true, [](const Direction &d, int w) { return triple(distancesOf(d, w).rgb); });

        std::printf(
            "### Distance to the reference's CIELAB distributions\n\n"
            "Kolmogorov-Smirnov distance of L\\*, a\\*, b\\* (bins of %g), mean of the three.\n\n",
            kLabBin);
        report.table(
            true, [](const Direction &d, int w) { return fixed(mean3(distancesOf(d, w).lab), 3); });
        std::printf("Per channel, L\\* / a\\* / b\\*:\n\n");
        report.table(true, [](const Direction &d, int w) { return triple(distancesOf(d, w).lab); });

        std::printf("### False colour\n\n");
        report.falseColourTable();
        std::printf("Low-chroma pixels:");
        for (size_t i = 0; i < pics.size(); ++i) {
            size_t n = 0;
            for (const Lab &c : labs[i]) n += lowChroma(c);
            std::printf("%s %s %.1f %%", i ? "," : "", pics[i].name.c_str(),
                        100.0 * double(n) / double(pics[i].pixels()));
        }
        std::printf(" of the picture.\n\n");

        std::printf(
            "### Time of the transfer\n\n"
            "Milliseconds per call of wzHistogramTransferFilterWithOptions, one thread, best of "
            "%d; "
            "the reference's profile is made beforehand.\n\n",
            options.repeat);
        report.table(false, [](const Direction &d, int w) { return fixed(d.way[w].ms, 2); });
        std::printf(
            "The reference's profile (wzImageFillColorProfile for channels, "
            "wzImageFillColorProfile16 "
            "otherwise), milliseconds:\n\n| reference |");
        for (const Way &w : kWays) std::printf(" %s |", w.label);
        std::printf("\n|---|");
        for (int w = 0; w < kWayCount; ++w) std::printf("---:|");
        std::printf("\n");
        for (size_t r = 0; r < pics.size(); ++r) {
            std::printf("| %s (%d × %d) |", pics[r].name.c_str(), pics[r].width, pics[r].height);
            for (int w = 0; w < kWayCount; ++w) std::printf(" %.2f |", profileMs[r][w]);
            std::printf("\n");
        }
        std::printf("\n");

        std::printf("### Mean over the six directions\n\n");
        report.summary();
        std::printf(
            "Checks: CIELAB of this program within 0.01 of the published values of white, black, "
            "the sRGB primaries and gray 128; the per-channel way identical to "
            "wzHistogramTransferFilter in %zu of %zu directions; the deep profiles the library "
            "counts for the references within a mean displacement of %.2f bins (of 65536) of this "
            "program's count in Y'CbCr and %.2f bins (at most %.4f CIELAB units) in Lab.\n\n",
            exactChannels, report.dirs.size(), displacement[2], displacement[3],
            displacement[3] * 256.0 / 65535.0);
    }
    return exactChannels == report.dirs.size() ? 0 : 1;
}
