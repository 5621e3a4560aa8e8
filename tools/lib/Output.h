#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// How the tool speaks: answers go to standard output as one text, everything else to standard error, one line each,
// beginning with "mox: ". Texts of others go through cleaned() on their way into either (see Clean.h).
namespace Tool {

using Json = nlohmann::ordered_json;

// Exit codes.
inline constexpr int fine = 0;
inline constexpr int somethingWrong = 1;  // there is an answer, and it tells of something wrong
inline constexpr int badUsage = 2;

// Ends the command: the text goes to standard error unless it is empty, the code to the shell.
class Failure : public std::runtime_error {
public:
    Failure(int exitCode, std::string const& text) : std::runtime_error(text), exitCode_(exitCode) {}
    int exitCode() const { return exitCode_; }

private:
    int exitCode_;
};

// "mox: TEXT" to standard error. Further lines of the text begin with four blanks, as those of caretBelow() do; any
// other newline is no line's end, but shown like all else that is not for a terminal.
void complain(std::string_view text);
void verboseIs(bool wanted);
bool isVerbose();
void remark(std::string_view text);  // the same for who wants to know it: with --verbose only
// To standard output. Throws Failure when it cannot be written, without a text when nobody reads on.
void print(std::string_view text);
std::string jsonText(Json const& answer);  // with a newline; bytes that are no UTF-8 become U+FFFD
std::string jsonLine(Json const& answer);  // the same on one line, without a newline

bool isUtf8();  // the locale's characters, by its variables

// Only on a terminal, and not against the user's wish (NO_COLOR, TERM=dumb); else the text as it is.
std::string bold(std::string_view text);
std::string red(std::string_view text);
std::string green(std::string_view text);

// A text as people should see it: as it stands, or as a strep when that would hide something (what is not for a
// terminal, blanks at the ends, nothing at all) or when it could be taken for a strep.
std::string shown(std::string_view text);
std::string shortened(std::string text, std::size_t size);  // at most about `size` bytes; says how long it really is
std::string joined(std::vector<std::string> const& texts, std::string_view separator);

// Two lines: the part of the text around `offset`, and a caret below the character there. Tabs are shown as blanks,
// what else is not for a terminal as \xNN. For an empty text one line that says so.
std::string caretBelow(std::string_view text, std::size_t offset);

// Left-aligned columns, two blanks between them.
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
