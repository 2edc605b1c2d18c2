// morven contrast: the levels stretched, a share of pixels clipped at each
// end.
#include "command.hpp"
#include "process/library.hpp"

namespace morven::tool {

Command addContrastCommand(CLI::App &root) {
    struct ParamsDeleter {
        void operator()(wzContrastEnhanceParams *p) const { wzContrastEnhanceParamsRelease(&p); }
    };
    struct Options {
        std::string input;
        std::unique_ptr<wzContrastEnhanceParams, ParamsDeleter> params{checked(wzContrastEnhanceParamsDefault())};
        OutputOptions out;
    };
    auto o = std::make_shared<Options>();
    CLI::App *app = root.add_subcommand("contrast", "stretch the levels, clipping a share of pixels at each end");
    describeCommand(*app, "morven contrast INPUT -o OUTPUT [options]",
            "Stretches the levels: the brightness (largest of red, green, blue) below the\n"
            "dark level becomes black and above the bright level white, the levels found\n"
            "by clipping the given shares of the pixels that are not fully transparent.");
    app->add_option("INPUT", o->input, "the picture")->required()->type_name("");
    const auto range = CLI::Range(0.0, 1000.0).description("");
    app->add_option("--high-tail", o->params->highTail,
                    "per mille of pixels clipped at the bright end (default " + shown(o->params->highTail) + ")")
        ->type_name("P")->check(range);
    app->add_option("--low-tail", o->params->lowTail,
                    "per mille of pixels clipped at the dark end (default " + shown(o->params->lowTail) + ")")
        ->type_name("P")->check(range);
    addOutputOptions(*app, o->out, "file to write (.png, .jpg, .tif, .webp)");
    return {app, [o] {
                return runOne(o->input, o->out, [o](const std::string &path, Picture &picture, std::vector<std::string> &notes) {
                    const MaskImage visible(opaqueMask(picture), picture.width, picture.height);
                    LibraryView view(picture);
                    const Stopwatch clock;
                    const wzStatus status = wzContrastEnhanceFilterMasked(o->params.get(), view.get(), visible.get(),
                                                                          nullptr, view.get(), cancelFlag());
                    const double seconds = clock.seconds();
                    checkStatus(path, "contrast enhancement", status);
                    if (status == WZ_STATUS_NO_PIXELS) notes.push_back("every pixel is fully transparent; written unchanged");
                    view.commit();
                    return seconds;
                });
            }};
}

}  // namespace morven::tool
