// morven stretch: the occupied range of every colour channel onto the full
// scale.
#include "command.hpp"
#include "process/library.hpp"

namespace morven::tool {

Command stretchCommand() {
    struct State {
        std::vector<std::string> input;
        OutputOptions out;
    };
    auto o = std::make_shared<State>();
    const auto stretch = [](const std::string &path, Picture &picture,
                            std::vector<std::string> &notes) {
        const MaskImage visible(opaqueMask(picture), picture.width, picture.height);
        LibraryView view(picture);
        const Stopwatch clock;
        const wzStatus status = wzHistogramStretchMasked(view.get(), visible.get(), view.get());
        const double seconds = clock.seconds();
        view.commit();
        // 1: every channel holds one value, copied unchanged.
        if (status == WZ_STATUS_ERROR)
            notes.push_back("every channel holds a single value; written unchanged");
        else
            checkStatus(path, "the stretch", status);
        if (status == WZ_STATUS_NO_PIXELS)
            notes.push_back("every pixel is fully transparent; written unchanged");
        return seconds;
    };
    return {"stretch",
            "stretch every colour channel's range onto the full scale",
            "morven stretch INPUT -o OUTPUT [options]",
            "Stretches the range every colour channel occupies (among the pixels that\n"
            "are not fully transparent) onto the full scale, 0..255 or 0..65535; alpha\n"
            "is kept. A channel holding a single value stays as it is.",
            [o](Options &options) {
                options.arguments("INPUT", o->input, "the picture", true);
                declareOutputOptions(options, o->out, "file to write (.png, .jpg, .tif, .webp)");
            },
            [o, stretch](const Options &) {
                if (o->input.size() != 1) throw UsageError("expected one INPUT");
                return runOne(o->input[0], o->out, stretch);
            }};
}

}  // namespace morven::tool
