// What the commands share: the output options, the help on formats, and the
// run of one picture.
#include <cstdio>

#include "command.hpp"
#include "core/limits.hpp"

namespace morven::tool {

RunSettings OutputOptions::settings() const {
    RunSettings s;
    s.write.encode.quality = quality;
    s.write.encode.lossless = lossless;
    s.write.strip = strip;
    s.force = force;
    s.skipExisting = skipExisting;
    s.quiet = quiet;
    s.verbose = verbose;
    return s;
}

void declareOutputOptions(Options &options, OutputOptions &o, const std::string &outputHelp) {
    options.text("-o,--output", o.output, "OUTPUT", outputHelp);
    options.number("--quality", o.quality, 1, 100, "Q",
                   "JPEG and lossy WebP quality, 1 to 100 (default 90)");
    options.flag("--lossless", o.lossless, "write WebP lossless");
    options.flag("--strip", o.strip, "write no EXIF, XMP, IPTC, ICC profile or resolution");
    options.flag("-f,--force", o.force, "replace an existing output");
    options.flag("--skip-existing", o.skipExisting,
                 "leave an existing output alone (reported as skipped)");
    options.excludes("--skip-existing", "--force");
    options.flag("-q,--quiet", o.quiet, "print errors only");
    options.flag("-v,--verbose", o.verbose,
                 "print the time spent decoding, in the library, encoding, writing");
}

std::string formatsHelp() {
    return "Pictures: PNG, JPEG, TIFF and WebP, 8 or 16 bits, gray or colour, with or\n"
           "without alpha, recognised by content; outputs by extension (.png, .jpg,\n"
           ".jpeg, .tif, .tiff, .webp). 16-bit pictures stay 16-bit in PNG and TIFF.\n"
           "Pictures are turned upright by their EXIF orientation; EXIF, XMP, IPTC, the\n"
           "ICC profile and the resolution of the source are written into the output\n"
           "(--strip drops them). Fully transparent pixels count in no statistics; alpha\n"
           "passes through. Pictures over " +
           describeLimits() +
           " are refused.\n"
           "An existing output is replaced only with --force; an input never is.\n"
           "Exit status: 0 done, 1 a file failed, 2 wrong command line, 130 Ctrl-C.";
}

Format outputFormat(const std::string &path, const char *what) {
    const auto format = formatForPath(path);
    if (!format)
        throw UsageError(std::string("cannot tell the ") + what + " format of '" + path +
                         "' (use .png, .jpg, .jpeg, .tif, .tiff or .webp)");
    return *format;
}

std::string shown(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

int runOne(const std::string &input, const OutputOptions &options, const Operation &operation,
           const std::vector<std::string> &protectedInputs) {
    if (options.output.empty()) throw UsageError("missing -o OUTPUT");
    const Format format = outputFormat(options.output);
    const RunSettings settings = options.settings();
    if (processFile(input, options.output, format, operation, settings, protectedInputs).outcome ==
        Outcome::Skipped)
        printNotes(settings, options.output, {"already exists; skipped"});
    return kExitOk;
}

}  // namespace morven::tool
