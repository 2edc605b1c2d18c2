// morven info: what a picture file holds, and per channel the statistics
// of its values, measured by the library's deep colour profile.
#include <cmath>
#include <cstdio>

#include "colour/colour.hpp"
#include "command.hpp"
#include "io/metadata.hpp"
#include "process/library.hpp"

namespace morven::tool {
namespace {

std::string unitName(const Resolution &r) {
    if (r.unit == Resolution::Unit::Inch) return " per inch";
    if (r.unit == Resolution::Unit::None) return " (aspect only)";
    char dpi[64];
    std::snprintf(dpi, sizeof dpi, " per cm (%.4g x %.4g per inch)", r.x * 2.54, r.y * 2.54);
    return dpi;
}

// One line of statistics from a deep profile's bins, on the picture's own
// scale (8-bit values sit at bin 257 v).
void printChannel(const char *name, const double *bins, int depth) {
    static const int percents[] = {1, 5, 25, 50, 75, 95, 99};
    const uint32_t step = depth == 8 ? 257 : 1;
    double count = 0, sum = 0;
    // NOLINTNEXTLINE(bugprone-integer-division): b / step is the level of bin b, a whole number
    for (uint32_t b = 0; b < WZ_PROFILE16_BINS; ++b) count += bins[b], sum += bins[b] * (b / step);
    std::printf("  %-7s", name);
    if (count == 0) {
        std::printf(" (no pixel counts)\n");
        return;
    }
    uint32_t lo = 0, hi = WZ_PROFILE16_BINS - 1;
    while (bins[lo] == 0) ++lo;
    while (bins[hi] == 0) --hi;
    const int width = depth == 8 ? 4 : 6;
    std::printf(" %*u %*u %9.2f", width, lo / step, width, hi / step, sum / count);
    for (int pc : percents) {
        // Nearest rank: the smallest value with at least ceil(pc% of n) samples at or below it.
        const double rank = std::max(1.0, std::ceil(count * pc / 100.0));
        double seen = 0;
        uint32_t b = 0;
        while ((seen += bins[b]) < rank) ++b;
        std::printf(" %*u", width, b / step);
    }
    std::printf("\n");
}

void printInfo(const std::string &path, const Picture &p, const std::vector<std::string> &notes) {
    std::printf("%s: %s, %d x %d, %s, %d bit%s per sample", path.c_str(), formatName(p.format),
                p.width, p.height, layoutName(p.channels), p.fileDepth,
                p.fileDepth == 1 ? "" : "s");
    if (p.fileDepth != p.depth) std::printf(" (read as %d)", p.depth);
    std::printf("\n");
    if (p.orientation != 1)
        std::printf("  orientation: EXIF %d, %s to stand upright (the size above is upright)\n",
                    p.orientation, describeOrientation(p.orientation));
    std::printf("  colour profile: %s\n", profileDescription(p.icc).c_str());
    if (p.resolution.known())
        std::printf("  resolution: %g x %g%s\n", p.resolution.x, p.resolution.y,
                    unitName(p.resolution).c_str());
    if (p.metadata)
        for (const std::string &line : describeMetadata(*p.metadata))
            std::printf("  %s\n", line.c_str());
    for (const std::string &line : notes) std::printf("  note: %s\n", line.c_str());

    const int width = p.depth == 8 ? 4 : 6;
    std::printf("  %-7s %*s %*s %9s", "channel", width, "min", width, "max", "mean");
    for (const char *label : {"p1", "p5", "p25", "p50", "p75", "p95", "p99"})
        std::printf(" %*s", width, label);
    std::printf("\n");
    const std::vector<uint8_t> visible = opaqueMask(p);
    const MaskImage mask(visible, p.width, p.height);
    const Profile16 profile = deepProfileOf(p, mask.get(), wzSpaceChannels);
    // bins[0] counts red, bins[1] green, bins[2] blue or gray.
    if (p.isGray()) {
        printChannel("gray", profile->bins[2], p.depth);
    } else {
        printChannel("red", profile->bins[0], p.depth);
        printChannel("green", profile->bins[1], p.depth);
        printChannel("blue", profile->bins[2], p.depth);
    }
    if (p.hasAlpha()) {
        Picture alpha;
        alpha.allocate(p.width, p.height, 1, p.depth);
        for (size_t i = 0; i < p.pixelCount(); ++i)
            alpha.setSample(i, p.sample(i * size_t(p.channels) + size_t(p.channels) - 1));
        printChannel("alpha", deepProfileOf(alpha, nullptr, wzSpaceChannels)->bins[2], p.depth);
    }
    if (!visible.empty()) {
        size_t counted = 0;
        for (uint8_t v : visible) counted += v != 0;
        std::printf(
            "  (colour statistics of the %zu of %zu pixels that are not fully transparent)\n",
            counted, p.pixelCount());
    }
}

}  // namespace

Command infoCommand() {
    auto files = std::make_shared<std::vector<std::string>>();
    return {"info",
            "print size, bit depth, orientation, profile, metadata and statistics",
            "morven info IMAGE...",
            "Prints each picture's format, size, channels, bit depth, orientation, colour\n"
            "profile, resolution and metadata, and per channel the minimum, maximum, mean\n"
            "and the 1st, 5th, 25th, 50th, 75th, 95th and 99th percentiles of its values\n"
            "on its own scale (0..255 or 0..65535); fully transparent pixels count in no\n"
            "colour statistic.",
            [files](Options &options) {
                options.arguments("IMAGE", *files, "pictures to describe", true);
            },
            [files](const Options &) {
                int status = kExitOk;
                for (const std::string &path : *files) {
                    try {
                        std::vector<std::string> notes;
                        const Picture picture = readPicture(path, &notes);
                        printInfo(path, picture, notes);
                    } catch (const FileError &e) {
                        std::fflush(stdout);
                        printLine("morven: " + e.file() + ": " + e.what());
                        status = kExitFailure;
                    }
                    std::fflush(stdout);
                }
                return status;
            }};
}

}  // namespace morven::tool
