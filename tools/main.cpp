// morven: the command-line tool of the Morven library.
//
//   morven transfer SOURCE REFERENCE -o OUTPUT       one picture
//   morven transfer --reference REF -o FOLDER INPUT... many, in parallel
//   morven equalize | stretch | contrast | smooth | info ...
//
// Exit statuses: 0 done, 1 a file could not be read, processed or written,
// 2 a wrong command line, 130 interrupted by Ctrl-C.
#include <cmath>
#include <cstdio>
#include <functional>
#include <thread>

#include "batch.hpp"
#include "cli.hpp"
#include "compare.hpp"

#ifndef MORVEN_TOOL_VERSION
#define MORVEN_TOOL_VERSION "unknown"
#endif

namespace morven::tool {
namespace {

std::string num(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", v);
    return text;
}

const std::string kFormats =
    "Inputs: PNG (8 or 16 bits; gray, gray+alpha, RGB, RGBA, palette) and JPEG\n"
    "(baseline or progressive; gray or colour), recognised by content. 16-bit\n"
    "samples are scaled to 8 bits. Alpha passes through unchanged. Outputs: PNG,\n"
    "or JPEG (no alpha) for a name ending in .jpg or .jpeg. Pictures larger than\n"
    "65535 pixels on a side or 2^28 pixels in all are refused.\n"
    "An existing output is replaced only with --force; an input never is.\n"
    "Exit status: 0 done, 1 a file failed, 2 wrong command line, 130 Ctrl-C.";

std::vector<OptionSpec> outputOptions() {
    return {{"output", 'o', "OUTPUT", "file to write (.png, .jpg or .jpeg)"},
            {"quality", 0, "Q", "JPEG quality, 1 to 100 (default 90)"},
            {"force", 'f', "", "replace an existing output"},
            {"quiet", 'q', "", "print errors only"},
            {"verbose", 'v', "", "print the time spent decoding, in the library, encoding, writing"},
            {"help", 'h', "", "show this help"}};
}

CommandSpec withOutputOptions(CommandSpec syntax) {
    for (OptionSpec &o : outputOptions()) syntax.options.push_back(std::move(o));
    return syntax;
}

// Options every command that writes a picture shares.
struct Output {
    std::string path;
    Format format = Format::Png;
    int quality = 90;
    bool force = false, quiet = false, verbose = false;
};

Output outputOf(const Args &args, bool needPath = true) {
    Output out;
    out.quality = args.integer("quality", 90, 1, 100);
    out.force = args.flag("force");
    out.quiet = args.flag("quiet");
    out.verbose = args.flag("verbose");
    if (!needPath) return out;
    const auto path = args.value("output");
    if (!path) throw UsageError("missing -o OUTPUT");
    const auto format = formatForPath(*path);
    if (!format) throw UsageError("cannot tell the output format of '" + *path + "' (use .png, .jpg or .jpeg)");
    out.path = *path;
    out.format = *format;
    return out;
}

void noteLine(const Output &out, const std::string &file, const std::string &text) {
    if (!out.quiet) printLine("morven: note: " + file + ": " + text);
}

Picture readInput(const std::string &path, const Output &out, Timings &timings) {
    const Stopwatch clock;
    Picture picture = readPicture(path);
    timings.decode += clock.seconds();
    if (picture.bitDepth == 16) noteLine(out, path, "16-bit samples converted to 8 bits for processing");
    if (cancelled()) throw Interrupted();
    return picture;
}

void writeOutput(const Picture &picture, const Output &out, Timings &timings) {
    Stopwatch clock;
    bool droppedAlpha = false;
    const std::vector<uint8_t> bytes = encodePicture(picture, out.format, out.quality, &droppedAlpha);
    timings.encode += clock.seconds();
    if (droppedAlpha) noteLine(out, out.path, "JPEG has no alpha channel; alpha dropped");
    clock = Stopwatch();
    writeFileAtomically(out.path, bytes, out.force);
    timings.write += clock.seconds();
    if (out.verbose) printLine("morven: " + out.path + ": " + describeTimings(timings));
}

void requirePositionals(const Args &args, size_t count, const std::string &names) {
    if (args.positionals().size() != count)
        throw UsageError("expected " + names + ", got " + std::to_string(args.positionals().size()) +
                         " argument" + (args.positionals().size() == 1 ? "" : "s"));
}

// ---------------------------------------------------------------------------
// transfer

CommandSpec transferSpec() {
    const TransferOptions d = defaultTransferOptions();
    CommandSpec syntax{
        "transfer",
        "morven transfer SOURCE REFERENCE -o OUTPUT [options]\n"
        "       morven transfer --reference REFERENCE -o FOLDER INPUT... [options]",
        "Gives SOURCE the colour distribution of REFERENCE (histogram matching, per\n"
        "channel), optionally followed by a contrast stretch and selective smoothing,\n"
        "optionally blended back under a mask. A gray source is matched to the\n"
        "reference's gray conversion. With --reference, every INPUT (files, or\n"
        "folders whose .png/.jpg/.jpeg files are taken) is transferred into FOLDER in\n"
        "parallel, keeping its name; one failed file does not stop the others.",
        {{"strength", 0, "X", "share of the matched value, 0 to 1 (default " + num(d.strength) + ")"},
         {"fidelity", 0, "X", "below 1 smooths the matching curve, 0 to 1 (default " + num(d.fidelity) + ")"},
         {"max-step", 0, "N", "largest step of the matching curve, 0 to 255; 255 is no limit (default " +
                                  std::to_string(d.maxStep) + ")"},
         {"contrast", 0, "", "stretch the contrast after matching"},
         {"high-tail", 0, "P", "with --contrast: per mille of pixels clipped at the bright end (default " +
                                   num(d.highTail) + ")"},
         {"low-tail", 0, "P", "with --contrast: per mille clipped at the dark end (default " + num(d.lowTail) + ")"},
         {"smooth", 0, "", "smooth the result selectively against the source"},
         {"smooth-threshold", 0, "X", "with --smooth: largest source step smoothed, fraction of 255 (default " +
                                          num(d.smoothThreshold) + ")"},
         {"smooth-iterations", 0, "N", "with --smooth: passes per channel (default " +
                                           std::to_string(d.smoothIterations) + ")"},
         {"mask", 0, "MASK", "gray picture of the source's size: 255 keeps the result, 0 the source"},
         {"compare", 0, "FILE", "also write source, reference and result side by side with histograms"},
         {"reference", 0, "REF", "batch mode: the reference for every INPUT; -o names a folder"},
         {"jobs", 'j', "N", "batch mode: parallel jobs (default: the number of processors)"},
         {"format", 0, "png|jpeg", "batch mode: output format (default: each input's own)"}},
        kFormats};
    syntax = withOutputOptions(std::move(syntax));
    for (OptionSpec &o : syntax.options)
        if (o.name == "output") o.help = "file to write (.png, .jpg, .jpeg); with --reference, a folder";
    return syntax;
}

int runTransfer(const Args &args) {
    TransferOptions options = defaultTransferOptions();
    options.strength = float(args.number("strength", options.strength, 0, 1));
    options.fidelity = float(args.number("fidelity", options.fidelity, 0, 1));
    options.maxStep = args.integer("max-step", options.maxStep, 0, 255);
    options.contrast = args.flag("contrast");
    options.highTail = float(args.number("high-tail", options.highTail, 0, 1000));
    options.lowTail = float(args.number("low-tail", options.lowTail, 0, 1000));
    options.smooth = args.flag("smooth");
    options.smoothThreshold = float(args.number("smooth-threshold", options.smoothThreshold, 0, 1));
    options.smoothIterations = args.integer("smooth-iterations", options.smoothIterations, 0, 100000);
    for (const char *name : {"high-tail", "low-tail"})
        if (args.value(name) && !options.contrast) throw UsageError(std::string("--") + name + " needs --contrast");
    for (const char *name : {"smooth-threshold", "smooth-iterations"})
        if (args.value(name) && !options.smooth) throw UsageError(std::string("--") + name + " needs --smooth");

    const auto batchReference = args.value("reference");
    const Output out = outputOf(args, false);
    const auto outputPath = args.value("output");
    if (!outputPath) throw UsageError(batchReference ? "missing -o FOLDER" : "missing -o OUTPUT");
    const auto comparePath = args.value("compare");
    std::optional<Format> batchFormat;
    if (const auto f = args.value("format")) {
        if (*f == "png") batchFormat = Format::Png;
        else if (*f == "jpeg" || *f == "jpg") batchFormat = Format::Jpeg;
        else throw UsageError("--format must be png or jpeg, not '" + *f + "'");
    }
    const unsigned processors = std::max(1u, std::thread::hardware_concurrency());
    const int jobs = args.integer("jobs", int(processors), 1, 1024);

    std::string source, referencePath;
    if (batchReference) {
        if (args.positionals().empty()) throw UsageError("expected at least one INPUT file or folder");
        if (comparePath) throw UsageError("--compare works on a single source, not with --reference");
        referencePath = *batchReference;
    } else {
        requirePositionals(args, 2, "SOURCE and REFERENCE");
        for (const char *name : {"jobs", "format"})
            if (args.value(name))
                throw UsageError(std::string("--") + name + " is for batch runs (with --reference)");
        source = args.positionals()[0];
        referencePath = args.positionals()[1];
        if (!formatForPath(*outputPath))
            throw UsageError("cannot tell the output format of '" + *outputPath + "' (use .png, .jpg or .jpeg)");
        if (comparePath && !formatForPath(*comparePath))
            throw UsageError("cannot tell the format of '" + *comparePath + "' (use .png, .jpg or .jpeg)");
        if (comparePath && *comparePath == *outputPath)
            throw UsageError("--compare and -o name the same file");
    }

    TransferContext context;
    context.options = options;
    context.quality = out.quality;
    context.force = out.force;
    context.quiet = out.quiet;
    context.verbose = out.verbose;
    context.protectedInputs.push_back(referencePath);
    if (const auto mask = args.value("mask")) {
        context.maskPath = *mask;
        context.protectedInputs.push_back(*mask);
    }
    if (!batchReference) {
        // Refuse early, before any decoding, when the outputs cannot be written.
        std::vector<std::string> inputs = context.protectedInputs;
        inputs.push_back(source);
        checkOutputPath(*outputPath, inputs, out.force);
        if (comparePath) checkOutputPath(*comparePath, inputs, out.force);
    }

    Timings setup;
    const Picture reference = readInput(referencePath, out, setup);
    const Stopwatch clock;
    const Support support = makeSupport();
    const ReferenceProfiles profiles = makeReferenceProfiles(reference);
    setup.library = clock.seconds();
    context.reference = &profiles;
    context.support = support.get();
    std::vector<uint8_t> maskSamples;
    if (!context.maskPath.empty()) {
        const Picture mask = readInput(context.maskPath, out, setup);
        maskSamples = maskPlane(mask);
        context.mask = &maskSamples;
        context.maskWidth = mask.width;
        context.maskHeight = mask.height;
    }
    if (out.verbose) {
        char text[128];
        std::snprintf(text, sizeof text, ": decode %.1f ms, library %.1f ms (support tables and profiles)",
                      setup.decode * 1e3, setup.library * 1e3);
        printLine("morven: reference " + referencePath + text);
    }

    if (batchReference) {
        BatchSettings batch{args.positionals(), *outputPath, batchFormat, jobs};
        return runBatch(batch, context);
    }

    Picture original, result;
    transferFile(source, *outputPath, context, comparePath ? &original : nullptr,
                 comparePath ? &result : nullptr);
    if (comparePath) {
        Output compareOut = out;
        compareOut.path = *comparePath;
        compareOut.format = *formatForPath(*comparePath);
        compareOut.verbose = false;
        Timings timings;
        writeOutput(composeComparison(original, reference, result), compareOut, timings);
    }
    return kExitOk;
}

// ---------------------------------------------------------------------------
// equalize, stretch, contrast: one picture in, one out

int runOnePicture(const Args &args, const std::function<double(const std::string &, Picture &, const Output &)> &op) {
    const Output out = outputOf(args);
    requirePositionals(args, 1, "one INPUT");
    const std::string input = args.positionals()[0];
    checkOutputPath(out.path, {input}, out.force);
    Timings timings;
    Picture picture = readInput(input, out, timings);
    timings.library = op(input, picture, out);
    writeOutput(picture, out, timings);
    return kExitOk;
}

CommandSpec equalizeSpec() {
    return withOutputOptions({"equalize", "morven equalize INPUT -o OUTPUT [options]",
                              "Equalises every colour channel by its own histogram (alpha is kept).",
                              {},
                              kFormats});
}

int runEqualize(const Args &args) {
    return runOnePicture(args, [](const std::string &, Picture &picture, const Output &) {
        LibraryView view(picture);
        const Stopwatch clock;
        wzHistogramEqualization(view.get(), view.get());  // always 0
        const double seconds = clock.seconds();
        view.commit();
        return seconds;
    });
}

CommandSpec stretchSpec() {
    return withOutputOptions({"stretch", "morven stretch INPUT -o OUTPUT [options]",
                              "Stretches the occupied range of every colour channel onto 0..255\n"
                              "(alpha is kept). A channel holding a single value stays as it is.",
                              {},
                              kFormats});
}

int runStretch(const Args &args) {
    return runOnePicture(args, [](const std::string &input, Picture &picture, const Output &out) {
        LibraryView view(picture);
        const Stopwatch clock;
        const wzStatus status = wzHistogramStretch(view.get(), view.get());
        const double seconds = clock.seconds();
        view.commit();
        // 1 means every channel holds one value: copied unchanged.
        if (status != WZ_STATUS_OK) noteLine(out, input, "every channel holds a single value; written unchanged");
        return seconds;
    });
}

CommandSpec contrastSpec() {
    wzContrastEnhanceParams *d = wzContrastEnhanceParamsDefault();
    if (!d) throw std::bad_alloc();
    const float high = d->highTail, low = d->lowTail;
    wzContrastEnhanceParamsRelease(&d);
    return withOutputOptions(
        {"contrast", "morven contrast INPUT -o OUTPUT [options]",
         "Stretches the levels: the brightness (largest of red, green, blue) below the\n"
         "dark level becomes 0 and above the bright level 255, the levels found by\n"
         "clipping the given shares of pixels at each end.",
         {{"high-tail", 0, "P", "per mille of pixels clipped at the bright end (default " + num(high) + ")"},
          {"low-tail", 0, "P", "per mille of pixels clipped at the dark end (default " + num(low) + ")"}},
         kFormats});
}

int runContrast(const Args &args) {
    wzContrastEnhanceParams *raw = wzContrastEnhanceParamsDefault();
    if (!raw) throw std::bad_alloc();
    const std::unique_ptr<wzContrastEnhanceParams, void (*)(wzContrastEnhanceParams *)> params(
        raw, [](wzContrastEnhanceParams *p) { wzContrastEnhanceParamsRelease(&p); });
    params->highTail = float(args.number("high-tail", params->highTail, 0, 1000));
    params->lowTail = float(args.number("low-tail", params->lowTail, 0, 1000));
    return runOnePicture(args, [&](const std::string &input, Picture &picture, const Output &) {
        LibraryView view(picture);
        const Stopwatch clock;
        const wzStatus status = wzContrastEnhanceFilter(params.get(), view.get(), nullptr, view.get(), cancelFlag());
        const double seconds = clock.seconds();
        checkStatus(input, "contrast enhancement", status);
        view.commit();
        return seconds;
    });
}

// ---------------------------------------------------------------------------
// smooth

CommandSpec smoothSpec() {
    wzSelectiveSmoothParams *d = wzSelectiveSmoothParamsDefault();
    if (!d) throw std::bad_alloc();
    const float threshold = d->threshold;
    const int iterations = d->iterations;
    wzSelectiveSmoothParamsRelease(&d);
    return withOutputOptions(
        {"smooth", "morven smooth GUIDE INPUT -o OUTPUT [options]",
         "Selective smoothing: where GUIDE (as a rule the picture before processing)\n"
         "is locally flat but INPUT (the processed picture) shows much larger steps,\n"
         "INPUT's steps are pulled back toward GUIDE's. Both pictures have one size.",
         {{"threshold", 0, "X", "largest guide step smoothed, fraction of 255, 0 to 1 (default " +
                                    num(threshold) + ")"},
          {"iterations", 0, "N", "passes per channel, 0 to 100000 (default " + std::to_string(iterations) + ")"}},
         kFormats});
}

int runSmooth(const Args &args) {
    const Output out = outputOf(args);
    requirePositionals(args, 2, "GUIDE and INPUT");
    wzSelectiveSmoothParams *raw = wzSelectiveSmoothParamsDefault();
    if (!raw) throw std::bad_alloc();
    const std::unique_ptr<wzSelectiveSmoothParams, void (*)(wzSelectiveSmoothParams *)> params(
        raw, [](wzSelectiveSmoothParams *p) { wzSelectiveSmoothParamsRelease(&p); });
    params->threshold = float(args.number("threshold", params->threshold, 0, 1));
    params->iterations = args.integer("iterations", params->iterations, 0, 100000);

    const std::string guidePath = args.positionals()[0], inputPath = args.positionals()[1];
    checkOutputPath(out.path, {guidePath, inputPath}, out.force);
    Timings timings;
    Picture guide = readInput(guidePath, out, timings);
    Picture picture = readInput(inputPath, out, timings);
    if (guide.width != picture.width || guide.height != picture.height)
        throw FileError(guidePath, "the guide is " + std::to_string(guide.width) + " x " +
                                       std::to_string(guide.height) + " but " + inputPath + " is " +
                                       std::to_string(picture.width) + " x " + std::to_string(picture.height));
    const Support support = makeSupport();
    LibraryView guideView(guide, true), view(picture, true);
    const Stopwatch clock;
    const wzStatus status = wzSelectiveSmooth(params.get(), support->smoothSupport, guideView.get(), view.get(),
                                              view.get(), cancelFlag());
    timings.library = clock.seconds();
    checkStatus(inputPath, "selective smoothing", status);
    view.commit();
    writeOutput(picture, out, timings);
    return kExitOk;
}

// ---------------------------------------------------------------------------
// info

CommandSpec infoSpec() {
    return {"info", "morven info IMAGE...",
            "Prints each picture's format, size and channels, and per channel the\n"
            "minimum, maximum, mean and the 1st, 5th, 25th, 50th, 75th, 95th and 99th\n"
            "percentiles of its 8-bit values (16-bit files are shown scaled to 8 bits).",
            {{"help", 'h', "", "show this help"}},
            ""};
}

void printInfo(const std::string &path, const Picture &p) {
    static const char *const names[5][4] = {
        {}, {"gray"}, {"gray", "alpha"}, {"red", "green", "blue"}, {"red", "green", "blue", "alpha"}};
    static const int percents[] = {1, 5, 25, 50, 75, 95, 99};
    std::printf("%s: %s, %d x %d, %s (%d channel%s), %d bits per sample\n", path.c_str(), formatName(p.format),
                p.width, p.height, layoutName(p.channels), p.channels, p.channels == 1 ? "" : "s", p.bitDepth);
    std::printf("  %-7s %4s %4s %8s", "channel", "min", "max", "mean");
    for (int pc : percents) {
        char label[8];
        std::snprintf(label, sizeof label, "p%d", pc);
        std::printf(" %4s", label);
    }
    std::printf("\n");
    const uint64_t count = uint64_t(p.width) * uint64_t(p.height);
    for (int c = 0; c < p.channels; ++c) {
        uint64_t histogram[256] = {};
        for (size_t i = size_t(c); i < p.pixels.size(); i += size_t(p.channels)) ++histogram[p.pixels[i]];
        int lo = 0, hi = 255;
        while (histogram[lo] == 0) ++lo;
        while (histogram[hi] == 0) --hi;
        uint64_t sum = 0;
        for (int v = 0; v < 256; ++v) sum += histogram[v] * uint64_t(v);
        std::printf("  %-7s %4d %4d %8.2f", names[p.channels][c], lo, hi, double(sum) / double(count));
        for (int pc : percents) {
            // Nearest rank: the smallest value with at least ceil(pc% of n) samples at or below it.
            const uint64_t rank = std::max<uint64_t>(1, (count * uint64_t(pc) + 99) / 100);
            uint64_t seen = 0;
            int v = 0;
            while ((seen += histogram[v]) < rank) ++v;
            std::printf(" %4d", v);
        }
        std::printf("\n");
    }
}

int runInfo(const Args &args) {
    if (args.positionals().empty()) throw UsageError("expected at least one IMAGE");
    int status = kExitOk;
    for (const std::string &path : args.positionals()) {
        try {
            printInfo(path, readPicture(path));
        } catch (const FileError &e) {
            std::fflush(stdout);
            printLine("morven: " + e.file() + ": " + e.what());
            status = kExitFailure;
        }
    }
    return status;
}

// ---------------------------------------------------------------------------

struct Command {
    const char *name;
    const char *summary;
    std::function<CommandSpec()> syntax;
    std::function<int(const Args &)> run;
};

const std::vector<Command> &commands() {
    static const std::vector<Command> list{
        {"transfer", "give pictures the colours of a reference (one, or many in parallel)", transferSpec, runTransfer},
        {"equalize", "equalise the histogram of every channel", equalizeSpec, runEqualize},
        {"stretch", "stretch every channel's range onto 0..255", stretchSpec, runStretch},
        {"contrast", "stretch the levels, clipping a share of pixels at each end", contrastSpec, runContrast},
        {"smooth", "smooth a processed picture selectively against a guide", smoothSpec, runSmooth},
        {"info", "print size, channels and per-channel statistics", infoSpec, runInfo}};
    return list;
}

std::string overview() {
    std::string text = "usage: morven COMMAND [options] [arguments]\n\ncommands:\n";
    for (const Command &c : commands()) {
        std::string name = c.name;
        text += "  " + name + std::string(10 - name.size(), ' ') + c.summary + "\n";
    }
    text += "\n'morven COMMAND --help' describes a command.\n"
            "Exit status: 0 done, 1 a file failed, 2 wrong command line, 130 Ctrl-C.\n";
    return text;
}

int run(int argc, char **argv) {
    std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.empty()) {
        std::fputs(overview().c_str(), stderr);
        return kExitUsage;
    }
    const std::string name = arguments[0];
    if (name == "--help" || name == "-h" || name == "help") {
        if (arguments.size() > 1) arguments = {arguments[1], "--help"};
        else {
            std::fputs(overview().c_str(), stdout);
            return kExitOk;
        }
    }
    if (arguments[0] == "--version") {
        std::printf("morven %s\n", MORVEN_TOOL_VERSION);
        return kExitOk;
    }
    const Command *command = nullptr;
    for (const Command &c : commands())
        if (arguments[0] == c.name) command = &c;
    if (!command) {
        std::fprintf(stderr, "morven: unknown command '%s'\n\n%s", arguments[0].c_str(), overview().c_str());
        return kExitUsage;
    }
    const std::string prefix = std::string("morven ") + command->name + ": ";
    try {
        const CommandSpec syntax = command->syntax();
        const Args args(syntax, {arguments.begin() + 1, arguments.end()});
        if (args.flag("help")) {
            std::fputs(helpText(syntax).c_str(), stdout);
            return kExitOk;
        }
        return command->run(args);
    } catch (const UsageError &e) {
        printLine(prefix + e.what() + " (see 'morven " + command->name + " --help')");
        return kExitUsage;
    } catch (const FileError &e) {
        printLine("morven: " + e.file() + ": " + e.what());
        return kExitFailure;
    } catch (const Interrupted &) {
        printLine("morven: interrupted; no output written");
        return kExitInterrupted;
    } catch (const std::bad_alloc &) {
        printLine("morven: out of memory");
        return kExitFailure;
    } catch (const std::exception &e) {
        printLine("morven: " + std::string(e.what()));
        return kExitFailure;
    }
}

}  // namespace
}  // namespace morven::tool

int main(int argc, char **argv) {
    morven::tool::installSignalHandlers();
    morven::tool::initFileCreationMask();
    return morven::tool::run(argc, argv);
}
