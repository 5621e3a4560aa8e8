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

// What main() knows of a command. The parser's own headers take long to compile; the commands need none of them.
namespace Tool {

// A command of the tool: what it is called and takes, its help, and its work.
class Command {
public:
    Command(Command const&) = delete;
    Command& operator=(Command const&) = delete;
    virtual ~Command();

    virtual int run() = 0;                    // prints the answer and returns the exit code, or throws Failure
    CLI::App& line() const { return line_; }  // its part of the command line

protected:
    // what: in one line. help: what stands below the options, examples among it.
    Command(CLI::App& app, char const* name, char const* what, char const* help);
    void alias(char const* name);

    // What it takes. The parser writes into `to`, which keeps what it has when nothing is given, and may be a text, an
    // optional text, or, for arguments, several texts.
    template <class T> void argument(char const* name, T& to, char const* what);
    void neededArgument(char const* name, std::string& to, char const* what);
    // to: a text, a number of seconds, or either as an optional. unit: what help calls the value.
    template <class T> void option(char const* name, T& to, char const* unit, char const* what);
    void options(
        char const* name, std::vector<std::string>& to, char const* unit, char const* what);  // any number of them
    void number(char const* name, std::optional<std::uint64_t>& to, char const* what);
    void flag(char const* name, bool& to, char const* what);

private:
    CLI::App& line_;
};

// CLI11 takes an argument such as "[a]" for a list of which the brackets are no part, but a path is a path. Until it is
// parsed, a byte behind it says so, which no argument has otherwise a use for.
std::string markedArgument(std::string argument);
std::string unmarked(std::string text);  // without these bytes

}  // namespace Tool
