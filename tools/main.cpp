// morven: the command-line tool of the Morven library.
//
//   morven transfer SOURCE REFERENCE -o OUTPUT       one picture
//   morven transfer --reference REF -o FOLDER INPUT... many, in parallel
//   morven equalize | stretch | contrast | smooth | info ...
//
// Each command lives in commands/<name>.cpp; every picture goes through
// run/pipeline.cpp (read, process, write), alone or in a batch.
//
// Exit statuses: 0 done, 1 a file could not be read, processed or written,
// 2 a wrong command line, 130 interrupted by Ctrl-C.
#include <cstdio>

#include <morven/morven.h>

#include "commands/command.hpp"
#include "io/files.hpp"
#include "io/metadata.hpp"

namespace morven::tool {
namespace {

int run(int argc, char **argv) {
    CLI::App app("Colour transfer and histogram tools for photographs, on the Morven library.\n"
                 "'morven COMMAND --help' describes a command.",
                 "morven");
    app.set_version_flag("--version", std::string("morven ") + wzMorvenVersionString() +
                                          (metadataAvailable() ? "" : " (built without Exiv2: no metadata, no orientation)"));
    app.require_subcommand(1);
    app.formatter(helpFormatter());
    app.get_formatter()->column_width(30);
    describeCommand(app, "morven COMMAND [options] [arguments]", "");
    app.footer("Exit status: 0 done, 1 a file failed, 2 wrong command line, 130 Ctrl-C.");
    const std::vector<Command> commands{addTransferCommand(app), addEqualizeCommand(app), addStretchCommand(app),
                                        addContrastCommand(app), addSmoothCommand(app),   addInfoCommand(app)};
    if (argc < 2) {
        std::fputs(app.help().c_str(), stderr);
        return kExitUsage;
    }
    const Command *chosen = nullptr;
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion &e) {
        return app.exit(e);
    } catch (const CLI::ParseError &e) {
        std::string name = "morven";
        for (const Command &c : commands)
            if (c.app->parsed()) name += " " + c.app->get_name();
        printLine(name + ": " + e.what() + " (see '" + name + " --help')");
        return kExitUsage;
    }
    for (const Command &c : commands)
        if (c.app->parsed()) chosen = &c;
    const std::string name = "morven " + chosen->app->get_name();
    try {
        return chosen->run();
    } catch (const UsageError &e) {
        printLine(name + ": " + e.what() + " (see '" + name + " --help')");
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
    morven::tool::initMetadata();
    return morven::tool::run(argc, argv);
}
