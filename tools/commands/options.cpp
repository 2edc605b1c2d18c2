#include "command.hpp"

#include <cstdio>

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

void addOutputOptions(CLI::App &app, OutputOptions &o, const std::string &outputHelp) {
    app.add_option("-o,--output", o.output, outputHelp)->type_name("OUTPUT");
    app.add_option("--quality", o.quality, "JPEG and lossy WebP quality, 1 to 100 (default 90)")
        ->type_name("Q")
        ->check(CLI::Range(1, 100).description(""));
    app.add_flag("--lossless", o.lossless, "write WebP lossless");
    app.add_flag("--strip", o.strip, "write no EXIF, XMP, IPTC, ICC profile or resolution");
    CLI::Option *force = app.add_flag("-f,--force", o.force, "replace an existing output");
    app.add_flag("--skip-existing", o.skipExisting, "leave an existing output alone (reported as skipped)")
        ->excludes(force);
    app.add_flag("-q,--quiet", o.quiet, "print errors only");
    app.add_flag("-v,--verbose", o.verbose, "print the time spent decoding, in the library, encoding, writing");
}

namespace {

std::string formatsHelp() {
    return "Pictures: PNG, JPEG, TIFF and WebP, 8 or 16 bits, gray or colour, with or\n"
           "without alpha, recognised by content; outputs by extension (.png, .jpg,\n"
           ".jpeg, .tif, .tiff, .webp). 16-bit pictures stay 16-bit in PNG and TIFF.\n"
           "Pictures are turned upright by their EXIF orientation; EXIF, XMP, IPTC, the\n"
           "ICC profile and the resolution of the source are written into the output\n"
           "(--strip drops them). Fully transparent pixels count in no statistics; alpha\n"
           "passes through. Pictures over " + describeLimits() + " are refused.\n"
           "An existing output is replaced only with --force; an input never is.\n"
           "Exit status: 0 done, 1 a file failed, 2 wrong command line, 130 Ctrl-C.";
}

// CLI11's layout with the usage lines first, no "Needs:" and "Excludes:"
// clutter (the option texts say it), and one line per command in the
// overview.
class HelpFormatter : public CLI::Formatter {
public:
    std::string make_help(const CLI::App *app, std::string name, CLI::AppFormatMode mode) const override {
        if (mode == CLI::AppFormatMode::Sub) return make_expanded(app);
        return make_usage(app, name) + "\n" + make_description(app) + make_positionals(app) +
               make_groups(app, mode) + make_subcommands(app, mode) + "\n" + make_footer(app);
    }
    std::string make_usage(const CLI::App *app, std::string name) const override {
        const auto it = usages.find(app);
        return it == usages.end() ? CLI::Formatter::make_usage(app, name) : "usage: " + it->second + "\n";
    }
    std::string make_option_opts(const CLI::Option *opt) const override {
        return opt->get_type_name().empty() ? std::string() : " " + opt->get_type_name();
    }
    std::map<const CLI::App *, std::string> usages;
};

std::shared_ptr<HelpFormatter> g_formatter = std::make_shared<HelpFormatter>();

}  // namespace

void describeCommand(CLI::App &app, const std::string &usage, const std::string &details) {
    g_formatter->usages[&app] = usage;
    app.footer(details.empty() ? formatsHelp() : details + "\n\n" + formatsHelp());
}

std::shared_ptr<CLI::FormatterBase> helpFormatter() { return g_formatter; }

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
    if (processFile(input, options.output, format, operation, settings, protectedInputs).outcome == Outcome::Skipped)
        printNotes(settings, options.output, {"already exists; skipped"});
    return kExitOk;
}

}  // namespace morven::tool
