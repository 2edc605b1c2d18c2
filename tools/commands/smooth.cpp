// morven smooth: selective smoothing of a processed picture against a guide.
#include "command.hpp"
#include "process/library.hpp"

namespace morven::tool {

Command smoothCommand() {
    struct ParamsDeleter {
        void operator()(wzSelectiveSmoothParams *p) const { wzSelectiveSmoothParamsRelease(&p); }
    };
    struct State {
        std::vector<std::string> files;
        std::unique_ptr<wzSelectiveSmoothParams, ParamsDeleter> params{
            checked(wzSelectiveSmoothParamsDefault())};
        OutputOptions out;
    };
    auto o = std::make_shared<State>();
    return {
        "smooth",
        "smooth a processed picture selectively against a guide",
        "morven smooth GUIDE INPUT -o OUTPUT [options]",
        "Selective smoothing: where GUIDE (as a rule the picture before processing)\n"
        "is locally flat but INPUT (the processed picture) shows much larger steps,\n"
        "INPUT's steps are pulled back toward GUIDE's. Both pictures have one size;\n"
        "the guide is brought to INPUT's bit depth.",
        [o](Options &options) {
            options.arguments(
                "FILES", o->files,
                "GUIDE and INPUT: the picture before processing, and the processed one", true);
            options.number("--threshold", o->params->threshold, 0, 1, "X",
                           "largest guide step smoothed, fraction of full scale, 0 to 1 (default " +
                               shown(o->params->threshold) + ")");
            options.number("--iterations", o->params->iterations, 0, 100000, "N",
                           "passes per channel, 0 to 100000 (default " +
                               std::to_string(o->params->iterations) + ")");
            declareOutputOptions(options, o->out, "file to write (.png, .jpg, .tif, .webp)");
        },
        [o](const Options &) {
            if (o->files.size() != 2) throw UsageError("expected GUIDE and INPUT");
            const std::string guidePath = o->files[0], inputPath = o->files[1];
            std::vector<std::string> notes;
            const RunSettings settings = o->out.settings();
            Picture guide = readPicture(guidePath, &notes);
            printNotes(settings, guidePath, notes);
            const Support support = makeSupport();
            return runOne(
                inputPath, o->out,
                [&](const std::string &path, Picture &picture, std::vector<std::string> &) {
                    if (guide.width != picture.width || guide.height != picture.height)
                        throw FileError(guidePath, "the guide is " + std::to_string(guide.width) +
                                                       " x " + std::to_string(guide.height) +
                                                       " but " + path + " is " +
                                                       std::to_string(picture.width) + " x " +
                                                       std::to_string(picture.height));
                    if (picture.isGray() && !guide.isGray())
                        throw FileError(guidePath,
                                        "the guide is in colour but " + path + " is gray");
                    // The library wants the guide in the input's depth and layout.
                    guide = picture.depth == 16 ? toSixteenBits(std::move(guide))
                                                : toEightBits(std::move(guide));
                    guide = withChannels(std::move(guide), picture.channels);
                    const bool wide = picture.depth == 8;
                    LibraryView guideView(guide, wide), view(picture, wide);
                    const Stopwatch clock;
                    const wzStatus status =
                        picture.depth == 8
                            ? wzSelectiveSmooth(o->params.get(), support->smoothSupport,
                                                guideView.get(), view.get(), view.get(),
                                                cancelFlag())
                            : wzSelectiveSmooth16(o->params.get(), guideView.get(), view.get(),
                                                  view.get(), cancelFlag());
                    const double seconds = clock.seconds();
                    checkStatus(path, "selective smoothing", status);
                    view.commit();
                    return seconds;
                },
                {guidePath});
        }};
}

}  // namespace morven::tool
