#include "tools/Commands.h"
#include "tools/lib/IdSetExpression.h"
#include "tools/lib/IdSetPicture.h"
#include "tools/lib/Numbers.h"
#include "tools/lib/Output.h"

#include "Mox/IdSet.h"

#include <nlohmann/json.hpp>

#include <sys/ioctl.h>
#include <unistd.h>

namespace Tool {

namespace {

constexpr char help[] =
    R"~(Calculates with sets of ids. Operands are range lists such as (1-3,5), in quotes because the shell has its own use for
parentheses; @FILE for a file's ids (the name ends at a blank); - for those on standard input. Each line of a file is a
range list, a range or an id; blank lines and lines that begin with # are skipped.

Operators: or |, and &, minus -, xor ^ between operands, not ~ before one: all ids below the size that it does not hold.
They go from left to right, as on a pocket calculator: (1) or (2) and (3) is ((1) or (2)) and (3). There is no grouping,
since parentheses stand around ids; not belongs to the operand right behind it.

Examples:
  mox idset '(1-9) minus (3,5)'                   (1-2,4,6-9)
  mox idset '(1-9)-(3,5)|(20)'                    the same with signs, and 20 added
  mox idset 'not (0-16000)' --count               how many ids are left
  mox idset @used.txt or @reserved.txt --picture  drawn, 64 ids in a row
  mox idset '(1-9)' --contains 3 && echo yes      exit code 0 when it holds the id, 1 when not
  seq 5 3 20 | mox idset -                        ids on standard input, as a range list
  mox idset '(1-9)' --list | mox idset - xor '(3)'

Ids are below the size (--size, at most 16320: beyond, ids share bits). Exit code 2 for everything wrong with the expression
or the files.)~";

struct Options {
    std::vector<std::string> expression;  // its parts; they are joined with blanks
    std::string size = "16320";
    bool count = false;
    bool list = false;
    bool picture = false;
    std::optional<std::string> contains;
    bool json = false;
};

using Mox::Id;
using Mox::IdSet;
using Vel::U16;

// In sets of a larger size, ids share bits.
constexpr unsigned largestSize = 16320;

// Parses a number below `end`. Every mistake has exit code 2, since 1 means that --contains has not found the id.
unsigned idFrom(std::string const& option, std::string const& text, unsigned end, std::string const& what) {
    auto const number = numberFrom<unsigned>(text);
    if (number && *number < end) return *number;
    throw Failure(badUsage, option + ": " + shortened(shown(text), 80) + " is not " + what);
}

Id lastId(IdSet const& set) {
    Id last;
    for (Id const id : set) last = id;
    return last;
}

// Returns how many ids are drawn in a row: 64, or on a terminal the largest power of two from 8 to 128 that fits.
unsigned idsPerRow() {
    constexpr unsigned label = 7;
    winsize window{};
    if (::isatty(STDOUT_FILENO) == 0 || ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) != 0 || window.ws_col == 0)
        return 64;
    unsigned ids = 128;
    while (ids > 8 && label + ids + ids / 8 - 1 > window.ws_col) ids /= 2;
    return ids;
}

std::string listText(IdSet const& set) {
    std::string text;
    for (Id const id : set) text += std::to_string(id.value()) + "\n";
    return text;
}

Json idOrNull(Id id) { return id == Id() ? Json() : Json(id.value()); }

Json jsonOf(IdSet const& set, Options const& options, std::optional<Id> contained) {
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

std::string textOf(IdSet const& set, Options const& options, std::optional<Id> contained) {
    if (options.json) return jsonText(jsonOf(set, options, contained));
    if (contained) return set.id(*contained) ? "True\n" : "False\n";
    if (options.count) return std::to_string(set.ids()) + "\n";
    if (options.list) return listText(set);
    if (options.picture) return pictureOf(set, idsPerRow());
    return set.stringValue().stdString() + "\n";
}

void checkOptions(Options const& options) {
    if (options.expression.empty())
        throw Failure(badUsage, "give an expression, such as '(1-3,5) minus (2)'; see \"mox idset --help\"");
    if (options.count + options.list + options.picture + options.contains.has_value() > 1)
        throw Failure(badUsage, "choose one of --count, --contains, --list and --picture");
    if (options.picture && options.json) throw Failure(badUsage, "choose one of --picture and --json");
}

class IdSetCommand final : public Command {
public:
    explicit IdSetCommand(CLI::App& app)
        : Command(app, "idset", "A calculator on sets of ids: (1-9) minus (3,5)", help) {
        argument("EXPRESSION", options_.expression, "Operands and operators, best in one pair of quotes");
        option("--size", options_.size, "N", "Ids are below this (default: 16320)");
        flag("--count", options_.count, "Answer with the number of ids");
        option("--contains", options_.contains, "ID", "Answer whether it holds the id: exit code 0 or 1");
        flag("--list", options_.list, "Answer with one id a line");
        flag("--picture", options_.picture, "Draw it");
        flag("--json", options_.json, "Answer in JSON");
    }

    // Returns somethingWrong only if the set does not have the id of --contains.
    int run() override {
        checkOptions(options_);
        U16 const size = static_cast<U16>(
            idFrom("--size", options_.size, largestSize + 1, "a number from 0 to " + std::to_string(largestSize)));
        std::optional<Id> contained;
        if (options_.contains)
            contained = Id(static_cast<U16>(
                idFrom("--contains", *options_.contains, size, "an id below the size " + std::to_string(size))));
        IdSet const set = idSetFrom(joined(options_.expression, " "), size);
        print(textOf(set, options_, contained));
        return !contained || set.id(*contained) ? fine : somethingWrong;
    }

private:
    Options options_;
};

}  // namespace

std::unique_ptr<Command> makeIdSet(CLI::App& app) { return std::make_unique<IdSetCommand>(app); }

}  // namespace Tool
