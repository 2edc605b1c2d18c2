// morven stretch: the occupied range of every colour channel onto the full
// scale.
#include "command.hpp"
#include "process/library.hpp"

namespace morven::tool {

Command addStretchCommand(CLI::App &root) {
    struct Options {
        std::string input;
        OutputOptions out;
    };
    auto o = std::make_shared<Options>();
    CLI::App *app = root.add_subcommand("stretch", "stretch every colour channel's range onto the full scale");
    describeCommand(*app, "morven stretch INPUT -o OUTPUT [options]",
            "Stretches the range every colour channel occupies (among the pixels that\n"
            "are not fully transparent) onto the full scale, 0..255 or 0..65535; alpha\n"
            "is kept. A channel holding a single value stays as it is.");
    app->add_option("INPUT", o->input, "the picture")->required()->type_name("");
    addOutputOptions(*app, o->out, "file to write (.png, .jpg, .tif, .webp)");
    return {app, [o] {
                return runOne(o->input, o->out, [](const std::string &path, Picture &picture, std::vector<std::string> &notes) {
                    const MaskImage visible(opaqueMask(picture), picture.width, picture.height);
                    LibraryView view(picture);
                    const Stopwatch clock;
                    const wzStatus status = wzHistogramStretchMasked(view.get(), visible.get(), view.get());
                    const double seconds = clock.seconds();
                    view.commit();
                    // 1: every channel holds one value, copied unchanged.
                    if (status == WZ_STATUS_ERROR) notes.push_back("every channel holds a single value; written unchanged");
                    else checkStatus(path, "the stretch", status);
                    if (status == WZ_STATUS_NO_PIXELS) notes.push_back("every pixel is fully transparent; written unchanged");
                    return seconds;
                });
            }};
}

}  // namespace morven::tool
