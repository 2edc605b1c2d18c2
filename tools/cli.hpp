// Command-line parsing: long options (--name value, --name=value), short
// ones (-o value, -f), flags, and positional arguments in any order; "--"
// ends the options.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace morven::tool {

struct OptionSpec {
    std::string name;       // long name without the dashes
    char shortName = 0;     // 0 for none
    std::string valueName;  // empty for a flag
    std::string help;
};

struct CommandSpec {
    std::string name;
    std::string usage;    // lines after "usage: "
    std::string summary;  // one paragraph
    std::vector<OptionSpec> options;
    std::string details;  // free text after the options
};

std::string helpText(const CommandSpec &command);

class Args {
public:
    // Throws UsageError for an unknown option or a missing value.
    Args(const CommandSpec &command, const std::vector<std::string> &arguments);

    bool flag(const std::string &name) const { return flags_.count(name) != 0; }
    std::optional<std::string> value(const std::string &name) const;
    const std::vector<std::string> &positionals() const { return positionals_; }

    // A number in [low, high], or fallback when the option is absent; throws
    // UsageError for anything else.
    double number(const std::string &name, double fallback, double low, double high) const;
    int integer(const std::string &name, int fallback, int low, int high) const;

private:
    std::map<std::string, std::string> values_;
    std::map<std::string, bool> flags_;
    std::vector<std::string> positionals_;
};

}  // namespace morven::tool
