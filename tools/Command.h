#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

// The interface between main() and a command. It does not need the headers of CLI11, which take long to compile.
namespace Tool {

// A command of the tool: its name, its options, its help, and its work.
class Command {
public:
    Command(Command const&) = delete;
    Command& operator=(Command const&) = delete;
    virtual ~Command();

    virtual int run() = 0;                    // prints the answer and returns the exit code, or throws Failure
    CLI::App& line() const { return line_; }  // the parser of this command's part of the command line

protected:
    // what: describes the command in one line. help: the text below the options, with examples.
    Command(CLI::App& app, char const* name, char const* what, char const* help);
    void alias(char const* name);

    // These define the arguments and options. The parser writes the value into `to`; if none is given, `to` does not
    // change. For arguments, `to` is a text, an optional text or a list of texts.
    template <class T> void argument(char const* name, T& to, char const* what);
    void neededArgument(char const* name, std::string& to, char const* what);
    // to: a text, a number of seconds, or either of them as an optional. unit: the value's name in the help.
    template <class T> void option(char const* name, T& to, char const* unit, char const* what);
    // An option that may be given several times.
    void options(char const* name, std::vector<std::string>& to, char const* unit, char const* what);
    void number(char const* name, std::optional<std::uint64_t>& to, char const* what);
    void flag(char const* name, bool& to, char const* what);

private:
    CLI::App& line_;
};

// CLI11 parses an argument such as "[a]" as a list and drops the brackets, but it may be a path. So this appends a
// newline as a mark to such an argument until it is parsed.
std::string markedArgument(std::string argument);
std::string unmarked(std::string text);  // removes the marks

}  // namespace Tool
