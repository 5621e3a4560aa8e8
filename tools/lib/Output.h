#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// Prints the tool's output. Answers go to standard output. Everything else goes to standard error, in lines that begin
// with "mox: ". Texts of other origin pass through cleaned() before (see Clean.h).
namespace Tool {

using Json = nlohmann::ordered_json;

// Exit codes.
inline constexpr int fine = 0;
inline constexpr int somethingWrong = 1;  // there is an answer, but it is "no" or reports a problem
inline constexpr int badUsage = 2;

// Ends the command: the text is written to standard error unless it is empty, and the process exits with the code.
class Failure : public std::runtime_error {
public:
    Failure(int exitCode, std::string const& text) : std::runtime_error(text), exitCode_(exitCode) {}
    int exitCode() const { return exitCode_; }

private:
    int exitCode_;
};

// Writes "mox: TEXT" to standard error. Further lines of the text must begin with four blanks, as those of caretBelow()
// do. Any other newline is escaped like all bytes that are not safe to print.
void complain(std::string_view text);
void verboseIs(bool wanted);
bool isVerbose();
void remark(std::string_view text);  // does the same as complain(), but only with --verbose
// Writes to standard output. Throws Failure if that fails; its text is empty if the reader has gone.
void print(std::string_view text);
std::string jsonText(Json const& answer);  // with a newline; bytes that are no UTF-8 become U+FFFD
std::string jsonLine(Json const& answer);  // the same on one line, without a newline

bool isUtf8();  // whether the locale's variables say that it uses UTF-8

// Return the text with colour or bold, but only on a terminal, and not if NO_COLOR is set or TERM is "dumb".
std::string bold(std::string_view text);
std::string red(std::string_view text);
std::string green(std::string_view text);

// Returns a text for people: unchanged, or as a quoted strep. It is quoted if it has bytes that are not safe to print
// or blanks at an end, if it is empty, or if it could be mistaken for a strep.
std::string shown(std::string_view text);
std::string shortened(std::string text, std::size_t size);  // cuts to about `size` bytes, and says how long it was
std::string joined(std::vector<std::string> const& texts, std::string_view separator);

// Returns two lines: the part of the text around `offset`, and a caret below the character there. A tab becomes a
// blank; other bytes that are not safe to print become \xNN. For an empty text returns one line that says so.
std::string caretBelow(std::string_view text, std::size_t offset);

// A table with left-aligned columns, which are separated by two blanks.
class Table {
public:
    explicit Table(std::string indent = {}) : indent_(std::move(indent)) {}
    void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
    std::string text() const;

private:
    std::string indent_;
    std::vector<std::vector<std::string>> rows_;
};

}  // namespace Tool
