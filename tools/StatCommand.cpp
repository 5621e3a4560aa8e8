#include "tools/Commands.h"
#include "tools/lib/Clean.h"
#include "tools/lib/Complaints.h"
#include "tools/lib/Input.h"
#include "tools/lib/Names.h"
#include "tools/lib/Output.h"
#include "tools/lib/Progress.h"
#include "tools/lib/ValueText.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/GenericIf.h"
#include "Vel/describe/Module.h"

#include <nlohmann/json.hpp>

#include <csignal>
#include <cstdio>

#include <unistd.h>

namespace Tool {

namespace {

constexpr char help[] =
    R"~(Feeds a statistic with observations, one on each line of a file or of standard input, and prints what it then holds, as
text. A line is the text form of the value that the statistic's attribute "update" takes ("mox types TYPE" shows which);
blank lines and lines that begin with # are skipped.

Examples:
  mox stat CountStat counts.txt          the statistic at the end; counts.txt holds lines such as
                                         Value('Mox::Count', ** {'count': 3, 'when': 1700000000.125})
  grep eth0 log | mox stat CountStat     observations from standard input
  mox stat CountStat --each counts.txt   the statistic after each observation
  mox stat CountStat --from "Value('Mox::CountStat', ** {'count': 9, 'last': 0.0})" counts.txt
                                         goes on from that statistic
  mox --module ./libmytypes.so stat My::Stat FILE
                                         any type with an attribute "update" will do

A word needs no quotes where a string is meant, and 1 will do for 1.0; --verbose tells what was taken for what.

Bad lines, also those of more than 1 MiB, are left out; the exit code is then 1. The first 20 are shown on standard error,
of more it is told how many there are of which kind; of a file that is compressed or binary only that. JSON: one object
with all fields; with --each, one on each line.)~";

struct Options {
    std::string type;                 // the statistic's type, with or without its namespace
    std::optional<std::string> file;  // file of observations; empty or "-" means standard input
    std::optional<std::string> from;  // text form of the statistic to start with
    bool each = false;                // answer after each observation, instead of at the end
    bool json = false;
};

using Vel::AttributeKind;
using Vel::AttributeOp;
using Vel::GenericValue;
using Vel::VelAttr;
using Vel::VelType;

// --- which statistic ---

// Returns the attribute that takes observations, or nothing if the type is no statistic.
std::optional<VelAttr> updateOf(VelType type) {
    if (type.isEntity()) return std::nullopt;
    auto const attr = type.attribute("update");
    if (!attr || attr->kind() != AttributeKind::setter || !attr->answers(AttributeOp::set)) return std::nullopt;
    bool const takesValue = attr->valueType() && !attr->valueType().isEntity();
    return takesValue ? attr : std::nullopt;
}

std::vector<std::string> statisticNames() {
    std::vector<std::string> names;
    for (VelType const& type : Vel::Registry::types())
        if (updateOf(type)) names.emplace_back(type.name());
    return names;
}

// Returns the type with this name, or else the one with this name in Mox, or else the only one with it in another
// namespace.
VelType typeOfShortName(std::string const& name) {
    if (VelType const type = Vel::Registry::type(name)) return type;
    if (VelType const type = Vel::Registry::type("Mox::" + name)) return type;
    VelType found;
    for (VelType const& type : Vel::Registry::types()) {
        if (!std::string_view(type.name()).ends_with("::" + name)) continue;
        if (found) return VelType();
        found = type;
    }
    return found;
}

VelType statisticNamed(std::string const& name) {
    std::string const all = joined(statisticNames(), ", ");
    if (name.empty()) throw Failure(badUsage, "say which statistic: " + all);
    if (VelType const type = typeOfShortName(name)) {
        if (updateOf(type)) return type;
        throw Failure(badUsage, std::string(type.name()) +
                                    " is no statistic: it has no attribute \"update\" that takes " +
                                    "an observation; those that have: " + all);
    }
    throw Failure(badUsage, "there is no statistic " + shortened(shown(name), 80) +
                                orNearest(name, statisticNames(), "; there are " + all));
}

GenericValue startOf(VelType type, std::optional<std::string> const& text) {
    return text ? givenValue(type, *text, badUsage, "--from", "--from: ") : GenericValue(type);
}

// --- answers on the way ---

// Some text may break a precondition of a type's parser, which aborts the process. Then the handler prints the answers
// so far, and says at which line it happened; the assertion was printed before.
LineReader const* readingLines = nullptr;
std::string unprinted;

extern "C" void explainAbortOfStat(int) {
    [[maybe_unused]] ssize_t written = ::write(STDOUT_FILENO, unprinted.data(), unprinted.size());
    static constexpr char text[] = "this breaks a precondition of the type, as the assertion above says";
    char line[160];
    int const size = readingLines ? std::snprintf(line, sizeof line, "mox: line %lu: %s; nothing behind it is read\n",
                                        readingLines->number(), text)
                                  : std::snprintf(line, sizeof line, "mox: --from: %s\n", text);
    written = ::write(STDERR_FILENO, line, static_cast<std::size_t>(size));
    ::_exit(readingLines ? somethingWrong : badUsage);
}

void flush() {
    if (!unprinted.empty()) print(unprinted);
    unprinted.clear();
}

void answer(std::string_view line) {
    constexpr std::size_t enough = 65536;
    unprinted += line;
    unprinted += '\n';
    if (unprinted.size() >= enough) flush();
}

// --- the replay ---

class Replay {
public:
    Replay(Options const& options, VelType type)
        : options_(options),
          update_(*updateOf(type)),
          statistic_(startOf(type, options.from)),
          input_(options.file.value_or("-")),
          progress_(input_, options.each),
          lines_(input_,
              [this] {
                  flush();
                  progress_.tell(lines_);
              }),
          complaints_(input_.name(), lines_.nature(), [this] {
              progress_.clear();
              flush();
          }) {}

    int run() {
        if (::isatty(input_.descriptor()) == 1 && ::isatty(STDERR_FILENO) == 1)
            complain(std::string("type observations, each a ") + update_.valueType().name() +
                     " on a line of its own; Ctrl-D ends");
        readingLines = &lines_;
        while (lines_.next())
            if (lines_.isTooLong())
                reject("this line is longer than 1 MiB, which no observation needs", lines_.text().size());
            else if (!lines_.isBlank())
                take();
        readingLines = nullptr;
        progress_.clear();
        if (!options_.each) answer(options_.json ? jsonOfAll() : valueText(statistic_));
        flush();
        complaints_.end();
        std::uint64_t const bad = complaints_.count();
        if (bad == 0) return fine;
        complain(std::to_string(bad) + " of " + std::to_string(taken_ + bad) + " observations " +
                 (bad == 1 ? "is" : "are") + " bad and left out");
        return somethingWrong;
    }

private:
    void take() {
        std::string const what = std::string("this is no ") + update_.valueType().name() + ": ";
        try {
            GenericValue const observation = valueFrom(update_.valueType(), lines_.text(),
                [this](std::string const& note, std::size_t offset) { remarkOn(note, offset); });
            GenericValue updated(statistic_);  // a copy, so that an observation is taken in full or not at all
            int const code = updated.type().glue().genericIfAttributeOp(
                nullptr, updated.data(), update_, AttributeOp::set, nullptr, observation.data());
            if (code != 0) throw Vel::TypeException("the statistic does not take it");
            statistic_ = std::move(updated);
        } catch (Vel::ParseException const& error) {
            return reject(what + error.text().stdString(), error.offset());
        } catch (Vel::Exception const& error) {
            return reject(error.text().stdString(), 0);
        } catch (std::logic_error const& error) {  // thrown by the standard library's conversions
            return reject(what + error.what(), 0);
        }
        ++taken_;
        if (options_.each) answer(options_.json ? jsonOfLine() : valueText(statistic_));
    }

    void reject(std::string const& why, std::size_t offset) {
        complaints_.add(lines_.place(offset), why, lines_.text(), offset);
    }

    // Shows only the first remarks, as is done for mistakes: such a difference is often in every line of a file.
    void remarkOn(std::string const& note, std::size_t offset) {
        if (!isVerbose() || remarks_++ > Complaints::mostShown) return;
        progress_.clear();
        flush();
        remark(remarks_ > Complaints::mostShown ? "more that is taken for something else is not shown"
                                                : lines_.place(offset) + ": " + cleaned(note));
    }

    std::string jsonOfLine() const {
        return jsonLine({{"line", lines_.number()}, {"text", statistic_.strep().stdString()}});
    }

    std::string jsonOfAll() const {
        VelType const type = statistic_.type();
        Json attributes = Json::array();
        for (VelAttr const& attr : fieldsOf(type))
            if (auto const value = statistic_.get(attr))
                attributes.push_back(
                    {{"name", attr.name()}, {"type", attr.valueType().name()}, {"text", value->strep().stdString()}});
        std::string text = jsonText({{"type", type.name()}, {"observationType", update_.valueType().name()},
            {"observations", taken_}, {"bad", complaints_.count()}, {"text", statistic_.strep().stdString()},
            {"attributes", std::move(attributes)}});
        text.pop_back();  // removes the newline, since answer() adds one
        return text;
    }

    Options const& options_;
    VelAttr update_;
    GenericValue statistic_;
    Input input_;
    Progress progress_;
    LineReader lines_;
    Complaints complaints_;
    std::uint64_t taken_ = 0, remarks_ = 0;
};

class StatCommand final : public Command {
public:
    explicit StatCommand(CLI::App& app) : Command(app, "stat", "A statistic of the observations in a file", help) {
        argument("TYPE", options_.type, "The statistic's type; \"Mox::\" may be left out");
        argument("FILE", options_.file, "Observations, one a line; default: standard input, as -");
        option("--from", options_.from, "TEXT", "Text of the statistic to begin with");
        flag("--each", options_.each, "Answer after each observation, not only at the end");
        flag("--json", options_.json, "Answer in JSON");
    }

    int run() override {
        std::signal(SIGABRT, explainAbortOfStat);
        return Replay(options_, statisticNamed(options_.type)).run();
    }

private:
    Options options_;
};

}  // namespace

std::unique_ptr<Command> makeStat(CLI::App& app) { return std::make_unique<StatCommand>(app); }

}  // namespace Tool
