// morven contrast: the levels stretched, a share of pixels clipped at each
// end.
#include "command.hpp"
#include "process/library.hpp"

namespace morven::tool {

Command contrastCommand() {
    struct ParamsDeleter {
        void operator()(wzContrastEnhanceParams *p) const { wzContrastEnhanceParamsRelease(&p); }
    };
    struct State {
        std::vector<std::string> input;
        std::unique_ptr<wzContrastEnhanceParams, ParamsDeleter> params{
            checked(wzContrastEnhanceParamsDefault())};
        OutputOptions out;
    };
    auto o = std::make_shared<State>();
    const auto contrast = [o](const std::string &path, Picture &picture,
                              std::vector<std::string> &notes) {
        const MaskImage visible(opaqueMask(picture), picture.width, picture.height);
        LibraryView view(picture);
        const Stopwatch clock;
        const wzStatus status = wzContrastEnhanceFilterMasked(
            o->params.get(), view.get(), visible.get(), nullptr, view.get(), cancelFlag());
        const double seconds = clock.seconds();
        checkStatus(path, "contrast enhancement", status);
        if (status == WZ_STATUS_NO_PIXELS)
            notes.push_back("every pixel is fully transparent; written unchanged");
        view.commit();
        return seconds;
    };
    return {"contrast",
            "stretch the levels, clipping a share of pixels at each end",
            "morven contrast INPUT -o OUTPUT [options]",
            "Stretches the levels: the brightness (largest of red, green, blue) below the\n"
            "dark level becomes black and above the bright level white, the levels found\n"
            "by clipping the given shares of the pixels that are not fully transparent.",
            [o](Options &options) {
                options.arguments("INPUT", o->input, "the picture", true);
                options.number("--high-tail", o->params->highTail, 0, 1000, "P",
                               "per mille of pixels clipped at the bright end (default " +
                                   shown(o->params->highTail) + ")");
                options.number("--low-tail", o->params->lowTail, 0, 1000, "P",
                               "per mille of pixels clipped at the dark end (default " +
                                   shown(o->params->lowTail) + ")");
                declareOutputOptions(options, o->out, "file to write (.png, .jpg, .tif, .webp)");
            },
            [o, contrast](const Options &) {
                if (o->input.size() != 1) throw UsageError("expected one INPUT");
                return runOne(o->input[0], o->out, contrast);
            }};
}

}  // namespace morven::tool
