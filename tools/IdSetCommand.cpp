#include "tools/Commands.h"
#include "tools/lib/Clean.h"
#include "tools/lib/Complaints.h"
#include "tools/lib/Input.h"
#include "tools/lib/Names.h"
#include "tools/lib/Output.h"

#include "Mox/IdSet.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>

#include <sys/ioctl.h>
#include <unistd.h>

namespace Tool {

namespace {

using Mox::BucketId;
using Mox::Id;
using Mox::IdSet;
using Vel::U16;
using Vel::U64;

// Beyond, ids share bits.
constexpr unsigned largestSize = 16320;

// Every mistake is exit code 2: 1 says that --contains has not found the id.
unsigned numberFrom(std::string const& option, std::string const& text, unsigned end, std::string const& what) {
    unsigned number = 0;
    auto const [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc() && stop == text.data() + text.size() && number < end) return number;
    throw Failure(badUsage, option + ": " + shortened(shown(text), 80) + " is not " + what);
}

// --- sets ---

IdSet complement(IdSet const& set) {
    IdSet result = ~set;
    if (unsigned const rest = set.size() % 64u; rest != 0) {
        BucketId const last(static_cast<Vel::U8>(set.size() / 64u));
        result.updateBucket(last, result.bucket(last) & ((U64(1) << rest) - 1));
    }
    return result;
}

Id lastId(IdSet const& set) {
    Id last;
    for (Id const id : set) last = id;
    return last;
}

// What is wrong with a range list, without the place, which the caller knows better.
std::string reason(Vel::CheckedError const& error, std::string_view list) {
    char const at = error.offset < list.size() ? list[error.offset] : '\0';
    if (at == '(') return "parentheses hold ids, not expressions: operators go from left to right";
    if (at == ' ' || at == '\t') return "no blanks inside a range list";
    std::string text = error.text.stdString();
    std::string const place = ", at offset " + std::to_string(error.offset);
    if (text.ends_with(place)) text.resize(text.size() - place.size());
    return text;
}

// The union of a file's lines, each a range list, an id or a range.
IdSet setFrom(Input& input, U16 size) {
    IdSet result(size);
    LineReader lines(input);
    while (lines.next()) {
        if (lines.isTooLong()) throw Failure(badUsage, lines.place(0) + ": this line is longer than 1 MiB");
        if (lines.isBlank()) continue;
        std::string_view text = lines.text();
        auto const indent = text.find_first_not_of(" \t");
        text = text.substr(indent, text.find_last_not_of(" \t") + 1 - indent);
        bool const isList = text.starts_with('(');
        std::string const list = isList ? std::string(text) : "(" + std::string(text) + ")";
        auto const set = IdSet::checked(size, list);
        if (!set) {
            std::size_t const offset = indent + set.error().offset - (isList ? 0 : 1);
            Complaints complaints(input.name(), lines.nature());
            complaints.add(lines.place(offset), reason(set.error(), list), lines.text(), offset);
            throw Failure(badUsage, "");
        }
        result |= *set;
    }
    return result;
}

// --- expressions ---

enum class Operator { unite, intersect, subtract, exclude, complement };

constexpr std::pair<std::string_view, Operator> operators[] = {{"or", Operator::unite}, {"|", Operator::unite},
    {"and", Operator::intersect}, {"&", Operator::intersect}, {"minus", Operator::subtract}, {"-", Operator::subtract},
    {"xor", Operator::exclude}, {"^", Operator::exclude}, {"not", Operator::complement}, {"~", Operator::complement}};

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

class Calculator {
public:
    Calculator(std::string text, U16 size) : text_(std::move(text)), size_(size) {}

    IdSet result() {
        IdSet set = operand();
        while (skipBlanks(), at_ < text_.size()) {
            Operator const op = binaryOperator();
            IdSet const right = operand();
            if (op == Operator::unite) set |= right;
            if (op == Operator::intersect) set &= right;
            if (op == Operator::subtract) set -= right;
            if (op == Operator::exclude) set ^= right;
        }
        return set;
    }

private:
    void skipBlanks() {
        while (at_ < text_.size() && isBlank(text_[at_])) ++at_;
    }

    std::optional<Operator> takeOperator() {
        std::size_t end = at_;
        while (end < text_.size() && isLetter(text_[end])) ++end;
        if (end == at_) end = std::min(at_ + 1, text_.size());
        for (auto const& [name, op] : operators)
            if (std::string_view(text_).substr(at_, end - at_) == name) {
                at_ = end;
                return op;
            }
        return std::nullopt;
    }

    Operator binaryOperator() {
        std::size_t const place = at_;
        auto const op = takeOperator();
        if (op && *op != Operator::complement) return *op;
        throw failure("an operator expected: or |, and &, minus -, xor ^", place);
    }

    IdSet operand() {
        bool isComplement = false;
        for (;;) {
            skipBlanks();
            std::size_t const place = at_;
            if (takeOperator() != Operator::complement) {
                at_ = place;
                return isComplement ? complement(plainOperand()) : plainOperand();
            }
            isComplement = !isComplement;
        }
    }

    IdSet plainOperand() {
        char const first = at_ < text_.size() ? text_[at_] : '\0';
        if (first == '(') return rangeList();
        if (first == '@') return file();
        if (first == '-') return standardInput();
        if (first >= '0' && first <= '9') throw failure("ids stand in parentheses: (1-3,5)", at_);
        throw failure("a range list such as (1-3,5), @FILE or - expected", at_);
    }

    IdSet rangeList() {
        std::size_t const place = at_;
        auto const close = text_.find(')', at_);
        at_ = close == std::string::npos ? text_.size() : close + 1;
        std::string const list = text_.substr(place, at_ - place);
        auto set = IdSet::checked(size_, list);
        if (!set) throw failure(reason(set.error(), list), place + set.error().offset);
        return *set;
    }

    IdSet file() {
        std::size_t const place = ++at_;
        while (at_ < text_.size() && !isBlank(text_[at_])) ++at_;
        std::string const path = text_.substr(place, at_ - place);
        if (path.empty()) throw failure("the name of a file expected behind the @", place);
        Input input(path == "-" ? "./-" : path);
        return setFrom(input, size_);
    }

    IdSet standardInput() {
        if (hasReadInput_) throw failure("standard input can be read only once", at_);
        hasReadInput_ = true;
        ++at_;
        Input input("-");
        return setFrom(input, size_);
    }

    Failure failure(std::string const& what, std::size_t offset) const {
        return {badUsage, what + ", at offset " + std::to_string(offset) + "\n" + caretBelow(text_, offset)};
    }

    std::string text_;
    U16 size_;
    std::size_t at_ = 0;
    bool hasReadInput_ = false;
};

// --- the picture ---

// Ids in a row: 64, or on a terminal the power of two that fits.
unsigned idsPerRow() {
    constexpr unsigned label = 7;
    winsize window{};
    if (::isatty(STDOUT_FILENO) == 0 || ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) != 0 || window.ws_col == 0)
        return 64;
    unsigned ids = 128;
    while (ids > 8 && label + ids + ids / 8 - 1 > window.ws_col) ids /= 2;
    return ids;
}

class Picture {
public:
    Picture(IdSet const& set, unsigned perRow) : set_(set), perRow_(perRow) {}

    std::string text() {
        for (unsigned begin = 0; begin < set_.size(); begin = end(begin)) {
            unsigned const members = count(begin);
            if (members == 0 || members == end(begin) - begin)
                addToRun(begin, members != 0);
            else {
                closeRun(begin);
                addRow(begin);
            }
        }
        closeRun(set_.size());
        return text_.empty() ? "no ids are below the size 0\n" : text_;
    }

private:
    unsigned end(unsigned begin) const { return std::min(begin + perRow_, unsigned(set_.size())); }
    bool has(unsigned id) const { return set_.id(Id(static_cast<U16>(id))); }
    unsigned count(unsigned begin) const {
        unsigned members = 0;
        for (unsigned id = begin; id < end(begin); ++id) members += has(id);
        return members;
    }

    void addToRun(unsigned begin, bool isFull) {
        if (runBegin_ && runIsFull_ != isFull) closeRun(begin);
        if (!runBegin_) runBegin_ = begin;
        runIsFull_ = isFull;
    }
    void closeRun(unsigned runEnd) {
        if (!runBegin_) return;
        addLabel(*runBegin_);
        text_ += "to " + std::to_string(runEnd - 1) + (runIsFull_ ? ": all\n" : ": none\n");
        runBegin_.reset();
    }
    void addLabel(unsigned id) {
        std::string const label = std::to_string(id);
        text_.append(5 - label.size(), ' ').append(label).append("  ");
    }
    void addRow(unsigned begin) {
        addLabel(begin);
        for (unsigned id = begin; id < end(begin); ++id) {
            if (id != begin && id % 8 == 0) text_ += ' ';
            text_ += has(id) ? "█" : "·";
        }
        text_ += '\n';
    }

    IdSet const& set_;
    unsigned perRow_;
    std::string text_;
    std::optional<unsigned> runBegin_;  // of rows that are all empty, or all full
    bool runIsFull_ = false;
};

// --- answers ---

std::string listText(IdSet const& set) {
    std::string text;
    for (Id const id : set) text += std::to_string(id.value()) + "\n";
    return text;
}

Json idOrNull(Id id) { return id == Id() ? Json() : Json(id.value()); }

Json jsonOf(IdSet const& set, IdSetOptions const& options, std::optional<Id> contained) {
    Json json{{"rangeList", set.stringValue().stdString()}, {"count", set.ids()}, {"first", idOrNull(set.firstId())},
        {"last", idOrNull(lastId(set))}, {"size", set.size()}};
    if (contained) {
        json["id"] = contained->value();
        json["contains"] = set.id(*contained);
    }
    if (options.list) {
        json["ids"] = Json::array();
        for (Id const id : set) json["ids"].push_back(id.value());
    }
    return json;
}

std::string textOf(IdSet const& set, IdSetOptions const& options, std::optional<Id> contained) {
    if (options.json) return jsonText(jsonOf(set, options, contained));
    if (contained) return set.id(*contained) ? "True\n" : "False\n";
    if (options.count) return std::to_string(set.ids()) + "\n";
    if (options.list) return listText(set);
    if (options.picture) return Picture(set, idsPerRow()).text();
    return set.stringValue().stdString() + "\n";
}

void checkOptions(IdSetOptions const& options) {
    if (options.expression.empty())
        throw Failure(badUsage, "give an expression, such as '(1-3,5) minus (2)'; see \"mox idset --help\"");
    if (options.count + options.list + options.picture + options.contains.has_value() > 1)
        throw Failure(badUsage, "choose one of --count, --contains, --list and --picture");
    if (options.picture && options.json) throw Failure(badUsage, "choose one of --picture and --json");
}

}  // namespace

int runIdSet(IdSetOptions const& options) {
    checkOptions(options);
    U16 const size = static_cast<U16>(
        numberFrom("--size", options.size, largestSize + 1, "a number from 0 to " + std::to_string(largestSize)));
    std::optional<Id> contained;
    if (options.contains)
        contained = Id(static_cast<U16>(
            numberFrom("--contains", *options.contains, size, "an id below the size " + std::to_string(size))));
    IdSet const set = Calculator(joined(options.expression, " "), size).result();
    print(textOf(set, options, contained));
    return !contained || set.id(*contained) ? fine : somethingWrong;
}

}  // namespace Tool
