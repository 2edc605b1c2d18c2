// morven equalize: every colour channel equalised by its own histogram.
#include "command.hpp"
#include "process/library.hpp"

namespace morven::tool {

Command equalizeCommand() {
    struct State {
        std::vector<std::string> input;
        OutputOptions out;
    };
    auto o = std::make_shared<State>();
    const auto equalize = [](const std::string &path, Picture &picture,
                             std::vector<std::string> &notes) {
        const MaskImage visible(opaqueMask(picture), picture.width, picture.height);
        LibraryView view(picture);
        const Stopwatch clock;
        const wzStatus status =
            wzHistogramEqualizationMasked(view.get(), visible.get(), view.get());
        const double seconds = clock.seconds();
        checkStatus(path, "equalisation", status);
        if (status == WZ_STATUS_NO_PIXELS)
            notes.push_back("every pixel is fully transparent; written unchanged");
        view.commit();
        return seconds;
    };
    return {"equalize",
            "equalise the histogram of every colour channel",
            "morven equalize INPUT -o OUTPUT [options]",
            "Equalises every colour channel by its own histogram, measured over the\n"
            "pixels that are not fully transparent (alpha is kept).",
            [o](Options &options) {
                options.arguments("INPUT", o->input, "the picture", true);
                declareOutputOptions(options, o->out, "file to write (.png, .jpg, .tif, .webp)");
            },
            [o, equalize](const Options &) {
                if (o->input.size() != 1) throw UsageError("expected one INPUT");
                return runOne(o->input[0], o->out, equalize);
            }};
}

}  // namespace morven::tool
