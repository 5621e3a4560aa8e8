#include "tools/Command.h"

#include "tools/lib/Numbers.h"
#include "tools/lib/Output.h"

#include <CLI/CLI.hpp>

#include <limits>

namespace Tool {

namespace {

constexpr std::string_view mark = "]\n";

// Makes an option's value what the user gave, without the marks of markedArgument().
CLI::Option& plain(CLI::Option* option) { return *option->transform(unmarked); }

}  // namespace

std::string markedArgument(std::string argument) {
    if (argument.starts_with('[') && argument.ends_with(']')) argument += '\n';
    return argument;
}

std::string unmarked(std::string text) {
    for (std::size_t at = 0; (at = text.find(mark, at)) != std::string::npos;) text.erase(++at, 1);
    return text;
}

Command::Command(CLI::App& app, char const* name, char const* what, char const* help)
    : line_(*app.add_subcommand(name, what)->footer(help)->fallthrough()) {}

Command::~Command() = default;

void Command::alias(char const* name) { line_.alias(name); }

template <class T> void Command::argument(char const* name, T& to, char const* what) {
    plain(line_.add_option(name, to, what)).type_name("");
}
template void Command::argument(char const*, std::string&, char const*);
template void Command::argument(char const*, std::optional<std::string>&, char const*);
template void Command::argument(char const*, std::vector<std::string>&, char const*);

void Command::neededArgument(char const* name, std::string& to, char const* what) {
    plain(line_.add_option(name, to, what)).type_name("")->required();
}

template <class T> void Command::option(char const* name, T& to, char const* unit, char const* what) {
    plain(line_.add_option(name, to, what)).type_name(unit);
}
template void Command::option(char const*, std::string&, char const*, char const*);
template void Command::option(char const*, std::optional<std::string>&, char const*, char const*);
template void Command::option(char const*, double&, char const*, char const*);
template void Command::option(char const*, std::optional<double>&, char const*, char const*);

void Command::options(char const* name, std::vector<std::string>& to, char const* unit, char const* what) {
    plain(line_.add_option(name, to, what)).type_name(unit)->take_all()->expected(1)->allow_extra_args(false);
}

// Accepts digits only. CLI11's own conversion would accept "-1" as the largest number, and truncate larger ones.
void Command::number(char const* name, std::optional<std::uint64_t>& to, char const* what) {
    auto const take = [&to, name](std::string const& text) {
        to = numberFrom<std::uint64_t>(unmarked(text));
        if (!to)
            throw Failure(badUsage, std::string(name) + ": " + shortened(shown(unmarked(text)), 80) +
                                        " is no number from 0 to " +
                                        std::to_string(std::numeric_limits<std::uint64_t>::max()));
    };
    line_.add_option_function<std::string>(name, take, what)->type_name("N");
}

void Command::flag(char const* name, bool& to, char const* what) { line_.add_flag(name, to, what); }

}  // namespace Tool
