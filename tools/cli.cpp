#include "cli.hpp"

#include <charconv>
#include <cmath>
#include <sstream>

#include "common.hpp"

namespace morven::tool {
namespace {

std::string spelled(const OptionSpec &o) {
    std::string s = o.shortName ? std::string("-") + o.shortName + ", " : std::string("    ");
    s += "--" + o.name;
    if (!o.valueName.empty()) s += " " + o.valueName;
    return s;
}

std::string trimmed(std::string number) {
    // 0.900000 -> 0.9, 50.000000 -> 50
    if (number.find('.') != std::string::npos) {
        while (number.back() == '0') number.pop_back();
        if (number.back() == '.') number.pop_back();
    }
    return number;
}

std::string shown(double v) { return trimmed(std::to_string(v)); }

}  // namespace

std::string helpText(const CommandSpec &command) {
    std::ostringstream out;
    out << "usage: " << command.usage << "\n\n" << command.summary << "\n";
    if (!command.options.empty()) {
        out << "\noptions:\n";
        size_t width = 0;
        for (const OptionSpec &o : command.options) width = std::max(width, spelled(o).size());
        for (const OptionSpec &o : command.options) {
            const std::string left = spelled(o);
            out << "  " << left << std::string(width - left.size() + 2, ' ') << o.help << "\n";
        }
    }
    if (!command.details.empty()) out << "\n" << command.details << "\n";
    return out.str();
}

Args::Args(const CommandSpec &command, const std::vector<std::string> &arguments) {
    const auto find = [&](const std::string &name, char shortName) -> const OptionSpec * {
        for (const OptionSpec &o : command.options)
            if ((shortName && o.shortName == shortName) || (!shortName && o.name == name)) return &o;
        return nullptr;
    };
    bool optionsEnded = false;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string &arg = arguments[i];
        if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
            positionals_.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnded = true;
            continue;
        }
        const bool isLong = arg[1] == '-';
        std::string name = isLong ? arg.substr(2) : arg.substr(1, 1);
        std::optional<std::string> inlineValue;
        if (isLong) {
            if (const size_t eq = name.find('='); eq != std::string::npos) {
                inlineValue = name.substr(eq + 1);
                name.resize(eq);
            }
        } else if (arg.size() > 2) {
            inlineValue = arg.substr(2);
        }
        const OptionSpec *option = isLong ? find(name, 0) : find("", name[0]);
        if (!option) throw UsageError("unknown option '" + (isLong ? "--" + name : arg.substr(0, 2)) + "'");
        // Short flags may be bundled: -fq is -f -q.
        while (!isLong && option->valueName.empty() && inlineValue) {
            flags_[option->name] = true;
            option = find("", (*inlineValue)[0]);
            if (!option) throw UsageError("unknown option '-" + inlineValue->substr(0, 1) + "'");
            inlineValue = inlineValue->size() > 1 ? std::optional(inlineValue->substr(1)) : std::nullopt;
        }
        if (option->valueName.empty()) {
            if (inlineValue) throw UsageError("option '--" + option->name + "' takes no value");
            flags_[option->name] = true;
            continue;
        }
        if (!inlineValue) {
            if (i + 1 >= arguments.size())
                throw UsageError("option '--" + option->name + "' needs a value (" + option->valueName + ")");
            inlineValue = arguments[++i];
        }
        values_[option->name] = *inlineValue;
    }
}

std::optional<std::string> Args::value(const std::string &name) const {
    const auto it = values_.find(name);
    if (it == values_.end()) return std::nullopt;
    return it->second;
}

double Args::number(const std::string &name, double fallback, double low, double high) const {
    const auto text = value(name);
    if (!text) return fallback;
    double v = 0;
    const char *end = text->data() + text->size();
    const auto [ptr, ec] = std::from_chars(text->data(), end, v);
    if (ec != std::errc() || ptr != end || !std::isfinite(v) || v < low || v > high)
        throw UsageError("--" + name + " must be a number from " + shown(low) + " to " + shown(high) +
                         ", not '" + *text + "'");
    return v;
}

int Args::integer(const std::string &name, int fallback, int low, int high) const {
    const auto text = value(name);
    if (!text) return fallback;
    int v = 0;
    const char *end = text->data() + text->size();
    const auto [ptr, ec] = std::from_chars(text->data(), end, v);
    if (ec != std::errc() || ptr != end || v < low || v > high)
        throw UsageError("--" + name + " must be a whole number from " + std::to_string(low) + " to " +
                         std::to_string(high) + ", not '" + *text + "'");
    return v;
}

}  // namespace morven::tool
