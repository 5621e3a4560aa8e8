#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// How the tool speaks: answers go to standard output as one text, everything else to standard error, one line each,
// beginning with "mox: ".
namespace Tool {

using Json = nlohmann::ordered_json;

// Exit codes.
inline constexpr int fine = 0;
inline constexpr int somethingWrong = 1;  // there is an answer, and it tells of something wrong
inline constexpr int badUsage = 2;

// Ends the command: the text goes to standard error, the code to the shell.
class Failure : public std::runtime_error {
public:
    Failure(int exitCode, std::string const& text) : std::runtime_error(text), exitCode_(exitCode) {}
    int exitCode() const { return exitCode_; }

private:
    int exitCode_;
};

void complain(std::string_view text);      // "mox: TEXT" to standard error; control bytes escaped, but for newlines
void print(std::string_view text);         // to standard output. Throws Failure when it cannot be written
std::string jsonText(Json const& answer);  // with a newline; bytes that are no UTF-8 become U+FFFD

bool isUtf8();  // the locale's characters, by its variables

// Only on a terminal, and not against the user's wish (NO_COLOR, TERM=dumb); else the text as it is.
std::string bold(std::string_view text);
std::string red(std::string_view text);
std::string green(std::string_view text);

// A text as people should see it: as it stands, or as a strep when that would hide something (control bytes, blanks at
// the ends, nothing at all) or when it could be taken for a strep.
std::string shown(std::string_view text);
std::string shortened(std::string text, std::size_t size);  // at most about `size` bytes; says how long it really is
std::string inHex(unsigned char const* bytes, std::size_t size);  // "00 2a"
std::string joined(std::vector<std::string> const& texts, std::string_view separator);

// Two lines: the part of the text around `offset`, and a caret below the byte there. Control bytes are shown as blanks.
// For an empty text one line that says so.
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
