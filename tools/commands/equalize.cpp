// morven equalize: every colour channel equalised by its own histogram.
#include "command.hpp"
#include "process/library.hpp"

namespace morven::tool {

Command addEqualizeCommand(CLI::App &root) {
    struct Options {
        std::string input;
        OutputOptions out;
    };
    auto o = std::make_shared<Options>();
    CLI::App *app = root.add_subcommand("equalize", "equalise the histogram of every colour channel");
    describeCommand(*app, "morven equalize INPUT -o OUTPUT [options]",
            "Equalises every colour channel by its own histogram, measured over the\n"
            "pixels that are not fully transparent (alpha is kept).");
    app->add_option("INPUT", o->input, "the picture")->required()->type_name("");
    addOutputOptions(*app, o->out, "file to write (.png, .jpg, .tif, .webp)");
    return {app, [o] {
                return runOne(o->input, o->out, [](const std::string &path, Picture &picture, std::vector<std::string> &notes) {
                    const MaskImage visible(opaqueMask(picture), picture.width, picture.height);
                    LibraryView view(picture);
                    const Stopwatch clock;
                    const wzStatus status = wzHistogramEqualizationMasked(view.get(), visible.get(), view.get());
                    const double seconds = clock.seconds();
                    checkStatus(path, "equalisation", status);
                    if (status == WZ_STATUS_NO_PIXELS) notes.push_back("every pixel is fully transparent; written unchanged");
                    view.commit();
                    return seconds;
                });
            }};
}

}  // namespace morven::tool
