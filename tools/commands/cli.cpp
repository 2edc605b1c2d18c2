// The command line through CLI11: the commands' options, the help layout,
// parsing, and the exit statuses of what goes wrong. The only file that
// includes CLI11.
#include <cstdio>
#include <map>

#include <morven/morven.h>
#include <CLI/CLI.hpp>

#include "command.hpp"
#include "io/metadata.hpp"

namespace morven::tool {
namespace {

class CliOptions : public Options {
public:
    explicit CliOptions(CLI::App &app) : app_(app) {}

    void arguments(const std::string &name, std::vector<std::string> &to, const std::string &help,
                   bool required) override {
        CLI::Option *option = app_.add_option(name, to, help)->type_name("");
        if (required) option->required();
    }
    void flag(const std::string &names, bool &to, const std::string &help) override {
        app_.add_flag(names, to, help);
    }
    void text(const std::string &names, std::string &to, const std::string &valueName,
              const std::string &help) override {
        app_.add_option(names, to, help)->type_name(valueName);
    }
    void number(const std::string &names, float &to, double low, double high,
                const std::string &valueName, const std::string &help) override {
        app_.add_option(names, to, help)
            ->type_name(valueName)
            ->check(CLI::Range(low, high).description(""));
    }
    void number(const std::string &names, int &to, int low, int high, const std::string &valueName,
                const std::string &help) override {
        app_.add_option(names, to, help)
            ->type_name(valueName)
            ->check(CLI::Range(low, high).description(""));
    }
    void choice(const std::string &names, std::string &to, const std::vector<std::string> &words,
                const std::string &valueName, const std::string &help) override {
        app_.add_option(names, to, help)
            ->type_name(valueName)
            ->transform(CLI::IsMember(words, CLI::ignore_case).description(""));
    }
    void needs(const std::string &option, const std::string &other) override {
        app_.get_option(option)->needs(app_.get_option(other));
    }
    void excludes(const std::string &option, const std::string &other) override {
        app_.get_option(option)->excludes(app_.get_option(other));
    }
    bool given(const std::string &option) const override { return app_.count(option) > 0; }

private:
    CLI::App &app_;
};

// CLI11's layout with the usage lines first, no "Needs:" and "Excludes:"
// clutter (the option texts say it), and one line per command in the
// overview.
class HelpFormatter : public CLI::Formatter {
public:
    std::string make_help(const CLI::App *app, std::string name,
                          CLI::AppFormatMode mode) const override {
        if (mode == CLI::AppFormatMode::Sub) return make_expanded(app);
        return make_usage(app, name) + "\n" + make_description(app) + make_positionals(app) +
               make_groups(app, mode) + make_subcommands(app, mode) + "\n" + make_footer(app);
    }
    std::string make_usage(const CLI::App *app, std::string name) const override {
        const auto it = usages.find(app);
        return it == usages.end() ? CLI::Formatter::make_usage(app, name)
                                  : "usage: " + it->second + "\n";
    }
    std::string make_option_opts(const CLI::Option *opt) const override {
        return opt->get_type_name().empty() ? std::string() : " " + opt->get_type_name();
    }
    std::map<const CLI::App *, std::string> usages;
};

}  // namespace

int runCommandLine(int argc, char **argv, const std::vector<Command> &commands) {
    CLI::App app(
        "Colour transfer and histogram tools for photographs, on the Morven library.\n"
        "'morven COMMAND --help' describes a command.",
        "morven");
    const auto formatter = std::make_shared<HelpFormatter>();
    app.formatter(formatter);
    formatter->column_width(30);
    formatter->usages[&app] = "morven COMMAND [options] [arguments]";
    app.footer("Exit status: 0 done, 1 a file failed, 2 wrong command line, 130 Ctrl-C.");
    app.set_version_flag(
        "--version",
        std::string("morven ") + wzMorvenVersionString() +
            (metadataAvailable() ? "" : " (built without Exiv2: no metadata, no orientation)"));
    app.require_subcommand(1);
    std::vector<std::pair<CLI::App *, std::unique_ptr<CliOptions>>> parsers;
    for (const Command &command : commands) {
        CLI::App *sub = app.add_subcommand(command.name, command.summary);
        formatter->usages[sub] = command.usage;
        sub->footer(command.details + "\n\n" + formatsHelp());
        parsers.emplace_back(sub, std::make_unique<CliOptions>(*sub));
        command.declare(*parsers.back().second);
    }
    if (argc < 2) {
        std::fputs(app.help().c_str(), stderr);
        return kExitUsage;
    }
    const auto chosen = [&]() -> size_t {
        for (size_t i = 0; i < parsers.size(); ++i)
            if (parsers[i].first->parsed()) return i;
        return parsers.size();
    };
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion &e) {
        return app.exit(e);
    } catch (const CLI::ParseError &e) {
        const size_t i = chosen();
        const std::string name = i < commands.size() ? "morven " + commands[i].name : "morven";
        printLine(name + ": " + e.what() + " (see '" + name + " --help')");
        return kExitUsage;
    }
    const size_t i = chosen();
    const std::string name = "morven " + commands[i].name;
    try {
        return commands[i].run(*parsers[i].second);
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

}  // namespace morven::tool
