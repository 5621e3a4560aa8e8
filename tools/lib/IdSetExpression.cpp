#include "tools/lib/IdSetExpression.h"

#include "tools/lib/Complaints.h"
#include "tools/lib/Input.h"
#include "tools/lib/Output.h"

#include <algorithm>
#include <optional>

namespace Tool {

namespace {

using Mox::BucketId;
using Mox::IdSet;
using Vel::U16;
using Vel::U64;

IdSet complement(IdSet const& set) {
    IdSet result = ~set;
    if (unsigned const rest = set.size() % 64u; rest != 0) {
        BucketId const last(static_cast<Vel::U8>(set.size() / 64u));
        result.updateBucket(last, result.bucket(last) & ((U64(1) << rest) - 1));
    }
    return result;
}

// Says what is wrong with a range list, without the place, which the caller adds.
std::string reason(Vel::CheckedError const& error, std::string_view list) {
    char const at = error.offset < list.size() ? list[error.offset] : '\0';
    if (at == '(') return "parentheses hold ids, not expressions: operators go from left to right";
    if (at == ' ' || at == '\t') return "no blanks inside a range list";
    std::string text = error.text.stdString();
    std::string const place = ", at offset " + std::to_string(error.offset);
    if (text.ends_with(place)) text.resize(text.size() - place.size());
    return text;
}

// Returns the union of a file's lines, each of which is a range list, an id or a range.
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

}  // namespace

IdSet idSetFrom(std::string const& expression, U16 size) { return Calculator(expression, size).result(); }

}  // namespace Tool
