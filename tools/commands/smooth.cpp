// morven smooth: selective smoothing of a processed picture against a guide.
#include "command.hpp"
#include "process/library.hpp"

namespace morven::tool {

Command addSmoothCommand(CLI::App &root) {
    struct ParamsDeleter {
        void operator()(wzSelectiveSmoothParams *p) const { wzSelectiveSmoothParamsRelease(&p); }
    };
    struct Options {
        std::string guide, input;
        std::unique_ptr<wzSelectiveSmoothParams, ParamsDeleter> params{checked(wzSelectiveSmoothParamsDefault())};
        OutputOptions out;
    };
    auto o = std::make_shared<Options>();
    CLI::App *app = root.add_subcommand("smooth", "smooth a processed picture selectively against a guide");
    describeCommand(*app, "morven smooth GUIDE INPUT -o OUTPUT [options]",
            "Selective smoothing: where GUIDE (as a rule the picture before processing)\n"
            "is locally flat but INPUT (the processed picture) shows much larger steps,\n"
            "INPUT's steps are pulled back toward GUIDE's. Both pictures have one size;\n"
            "the guide is brought to INPUT's bit depth.");
    app->add_option("GUIDE", o->guide, "the picture before processing")->required()->type_name("");
    app->add_option("INPUT", o->input, "the processed picture")->required()->type_name("");
    app->add_option("--threshold", o->params->threshold,
                    "largest guide step smoothed, fraction of full scale, 0 to 1 (default " +
                        shown(o->params->threshold) + ")")
        ->type_name("X")->check(CLI::Range(0.0, 1.0).description(""));
    app->add_option("--iterations", o->params->iterations,
                    "passes per channel, 0 to 100000 (default " + std::to_string(o->params->iterations) + ")")
        ->type_name("N")->check(CLI::Range(0, 100000).description(""));
    addOutputOptions(*app, o->out, "file to write (.png, .jpg, .tif, .webp)");
    return {app, [o] {
                std::vector<std::string> notes;
                const RunSettings settings = o->out.settings();
                Picture guide = readPicture(o->guide, &notes);
                printNotes(settings, o->guide, notes);
                const Support support = makeSupport();
                return runOne(o->input, o->out,
                              [&](const std::string &path, Picture &picture, std::vector<std::string> &) {
                    if (guide.width != picture.width || guide.height != picture.height)
                        throw FileError(o->guide, "the guide is " + std::to_string(guide.width) + " x " +
                                                      std::to_string(guide.height) + " but " + path + " is " +
                                                      std::to_string(picture.width) + " x " +
                                                      std::to_string(picture.height));
                    if (picture.isGray() && !guide.isGray())
                        throw FileError(o->guide, "the guide is in colour but " + path + " is gray");
                    // The library wants the guide in the input's depth and layout.
                    guide = picture.depth == 16 ? toSixteenBits(std::move(guide)) : toEightBits(std::move(guide));
                    guide = withChannels(std::move(guide), picture.channels);
                    const bool wide = picture.depth == 8;
                    LibraryView guideView(guide, wide), view(picture, wide);
                    const Stopwatch clock;
                    const wzStatus status =
                        picture.depth == 8
                            ? wzSelectiveSmooth(o->params.get(), support->smoothSupport, guideView.get(), view.get(),
                                                view.get(), cancelFlag())
                            : wzSelectiveSmooth16(o->params.get(), guideView.get(), view.get(), view.get(), cancelFlag());
                    const double seconds = clock.seconds();
                    checkStatus(path, "selective smoothing", status);
                    view.commit();
                    return seconds;
                }, {o->guide});
            }};
}

}  // namespace morven::tool
