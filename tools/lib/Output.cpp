#include "tools/lib/Output.h"

#include "tools/lib/Clean.h"

#include "Vel/text/Strep.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace Tool {

namespace {

bool isVerbose_ = false;

bool continuesCharacter(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }  // in UTF-8

// Returns the offset of the character that has the byte at `at`. A character has at most four bytes.
std::size_t characterBegin(std::string_view text, std::size_t at) {
    for (std::size_t back = 0; back < 4 && back <= at && at < text.size(); ++back)
        if (!continuesCharacter(text[at - back])) return at - back;
    return at;
}

// For cleanedBut(): a complaint keeps a newline that four blanks follow.
std::size_t ownInComplaint(std::string_view rest) { return rest.starts_with("\n    ") ? 1 : 0; }

// For cleanedBut(): an answer keeps newlines, and the escape sequences of colours if it uses them.
std::size_t ownInAnswer(std::string_view rest);

// Returns the number of columns on the screen. Escape sequences for colour take none; wide characters count as narrow.
std::size_t width(std::string_view text) {
    std::size_t count = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\x1b')
            i = std::min(text.find('m', i), text.size());
        else if (!continuesCharacter(text[i]))
            ++count;
    }
    return count;
}

bool isSet(char const* variable) {
    char const* const value = std::getenv(variable);
    return value && *value;
}

bool useColour() {
    static bool const answer = [] {
        char const* const terminal = std::getenv("TERM");
        return ::isatty(STDOUT_FILENO) == 1 && !isSet("NO_COLOR") && terminal && std::string_view(terminal) != "dumb";
    }();
    return answer;
}

std::string coloured(std::string_view code, std::string_view text) {
    if (!useColour()) return std::string(text);
    return "\x1b[" + std::string(code) + "m" + std::string(text) + "\x1b[0m";
}

std::size_t ownInAnswer(std::string_view rest) {
    if (rest.starts_with('\n')) return 1;
    for (std::string_view const code : {"\x1b[0m", "\x1b[1m", "\x1b[31m", "\x1b[32m"})
        if (rest.starts_with(code) && useColour()) return code.size();
    return 0;
}

}  // namespace

void complain(std::string_view text) {
    std::string const line = "mox: " + cleanedBut(text, ownInComplaint) + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
}

void verboseIs(bool wanted) { isVerbose_ = wanted; }
bool isVerbose() { return isVerbose_; }

void remark(std::string_view text) {
    if (isVerbose_) complain(text);
}

void print(std::string_view text) {
    std::string const out = cleanedBut(text, ownInAnswer);
    if (std::fwrite(out.data(), 1, out.size(), stdout) == out.size() && std::fflush(stdout) == 0) return;
    if (errno == EPIPE) throw Failure(somethingWrong, "");
    throw Failure(somethingWrong, std::string("cannot write the answer: ") + std::strerror(errno));
}

std::string jsonText(Json const& answer) {
    return cleanedJson(answer.dump(2, ' ', false, Json::error_handler_t::replace)) + "\n";
}

std::string jsonLine(Json const& answer) {
    return cleanedJson(answer.dump(-1, ' ', false, Json::error_handler_t::replace));
}

bool isUtf8() {
    for (char const* const variable : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        char const* const value = std::getenv(variable);
        if (!value || !*value) continue;
        std::string name(value);
        for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return name.find("utf-8") != std::string::npos || name.find("utf8") != std::string::npos;
    }
    return false;
}

std::string bold(std::string_view text) { return coloured("1", text); }
std::string red(std::string_view text) { return coloured("31", text); }
std::string green(std::string_view text) { return coloured("32", text); }

std::string shown(std::string_view text) {
    bool const plain = !text.empty() && uncleanAt(text) == std::string_view::npos && text.front() != ' ' &&
                       text.back() != ' ' && text.front() != '\'';
    return plain ? std::string(text) : cleaned(Vel::valueToStrep(Vel::String(text)).view());
}

std::string shortened(std::string text, std::size_t size) {
    if (text.size() <= size) return text;
    std::string const all = std::to_string(text.size());
    text.resize(characterBegin(text, size));
    return text + "... (" + all + " bytes in all)";
}

std::string joined(std::vector<std::string> const& texts, std::string_view separator) {
    std::string out;
    for (std::string const& text : texts) {
        if (!out.empty()) out += separator;
        out += text;
    }
    return out;
}

std::string caretBelow(std::string_view text, std::size_t offset) {
    constexpr std::size_t before = 50, behind = 25;  // bytes that are shown before and after the offset
    if (text.empty()) return "    (empty)";
    offset = std::min(offset, text.size());
    std::size_t begin = offset > before ? offset - before : 0;
    std::size_t end = std::min(text.size(), offset + behind);
    begin = characterBegin(text, begin);
    end = characterBegin(text, end);
    offset = characterBegin(text, offset);
    std::string const cutBefore = begin > 0 ? "..." : "", cutBehind = end < text.size() ? "..." : "";
    auto const part = [&](std::size_t from, std::size_t to) {
        std::string line(text.substr(from, to - from));
        std::replace(line.begin(), line.end(), '\t', ' ');
        return cleaned(line);
    };
    std::string const left = part(begin, offset);
    std::size_t const column = cutBefore.size() + width(left);
    return "    " + cutBefore + left + part(offset, end) + cutBehind + "\n    " + std::string(column, ' ') + "^";
}

std::string Table::text() const {
    std::vector<std::size_t> widths;
    for (auto const& row : rows_) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i + 1 < row.size(); ++i) widths[i] = std::max(widths[i], width(row[i]));
    }
    std::string out;
    for (auto const& row : rows_) {
        std::string line = indent_;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) line.append(widths[i] - width(row[i]) + 2, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out += line + "\n";
    }
    return out;
}

}  // namespace Tool
