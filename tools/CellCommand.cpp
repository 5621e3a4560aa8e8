#include "tools/Commands.h"
#include "tools/lib/Clean.h"
#include "tools/lib/Numbers.h"
#include "tools/lib/Output.h"
#include "tools/lib/RootedCalls.h"

#include "Mox/CellSource.h"
#include "Redundancy/RedundancyStatus.h"
#include "Vel/base/Exception.h"
#include "Vel/entity/ActivityManager.h"
#include "Vel/entity/Dir.h"
#include "Vel/text/Trace.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <sys/stat.h>

namespace Tool {

namespace {

constexpr char help[] =
    R"~(Shows this machine's cell id, active cell, cell type, product, election manager support and CPU/BMC mode, each with the
place that its value came from: an environment variable, a file, a redundancy status, the election manager's mode files,
or a default. Values with control characters or blanks at an end are shown as quoted text.

Examples:
  mox cell                            this machine
  CELLID=2 mox cell                   as a process sees it that has this variable
  mox cell --root /mnt/image          as a machine with these files would say
  mox cell --root /mnt/image --no-env the same, whatever the variables here
  mox cell --redundancy-status 1      as if the redundancy service had published cell 1 as active
  mox cell --trace                    with the steps of the resolution on standard error
  mox cell --json | jq .activeCellId  for programs

Each fact, its variable, its file and its default:
  cell id                     CELLID                /etc/cellid               42
  active cell                 ACTIVE_CELLID         redundancy status, mode files, own cell
  cell type                   CELLTYPE              /etc/celltype             generic
  product                     PRODUCT               /etc/product              generic
  election manager supported  ELECTIONMGRSUPPORTED  /etc/electionMgrSupported FALSE
  CPU/BMC mode                CPUBMCMODE            /etc/cpuBmcMode           FALSE
The mode files: /sys/quelto/election_manager/local_redundancy_mode and peer_redundancy_mode, or those that
REDSUPDUT_LOCAL_REDMODE and REDSUPDUT_PEER_REDMODE name, when both are set. Files are taken exactly as they stand: a
trailing newline counts. Exit code 1 when a fact has no answer.)~";

struct Options {
    std::string root;                             // look for files below this folder; empty means "/"
    bool noEnvironment = false;                   // treat all variables except those for tracing as unset
    std::string system = "ql";                    // the activity manager's system name
    std::optional<std::string> redundancyStatus;  // publish a status with this active cell; "none" means unknown
    bool trace = false;
    bool json = false;
};

struct Fact {
    char const* key;                    // name in JSON
    char const* label;                  // name for people
    char const* demands;                // what its sources must hold; null if they may hold any text
    Json (*ask)(Cell::Source& source);  // throws what the library throws
};

constexpr char cellNumber[] = "a number from 0 to 65535";
constexpr char flag[] = "TRUE or FALSE";

using Cell::Explained;
using Cell::Source;

Fact const facts[] = {
    {"cellId", "cell id", cellNumber, [](Source& from) { return Json(Explained::cellId(from)); }},
    {"activeCellId", "active cell", cellNumber, [](Source& from) { return Json(Explained::activeCellId(from)); }},
    {"cellType", "cell type", nullptr, [](Source& from) { return Json(Explained::cellType(from).stdString()); }},
    {"product", "product", nullptr, [](Source& from) { return Json(Explained::product(from).stdString()); }},
    {"electionMgrSupported", "election manager supported", flag,
        [](Source& from) { return Json(Explained::electionMgrSupported(from)); }},
    {"cpuBmcMode", "CPU/BMC mode", flag, [](Source& from) { return Json(Explained::cpuBmcMode(from)); }},
};

struct Answer {
    Fact const* fact;
    Json value;
    std::string error;  // empty if there is a value
    Source source;      // with the real paths of its files, below --root
};

// --- asking ---

// Parses a number from 0 to 0xFFFFFFFF, or "none". Throws Failure.
std::uint32_t redundancyStatusFrom(std::string const& text) {
    if (text == "none") return Redundancy::RedundancyStatus::unknownCell;
    if (auto const id = numberFrom<std::uint32_t>(text)) return *id;
    throw Failure(
        badUsage, "--redundancy-status: " + shown(text) + " is neither a number from 0 to 4294967295 nor none");
}

// Publishes a redundancy status, in place of the redundancy service.
void publishStatus(std::string const& system, Vel::U32 activeCell) {
    Vel::Ptr<Vel::Dir> folder = Vel::globalDir();
    std::string const path = system + "/Zendb/" + Cell::path("redundancy/status", 0).stdString();
    std::size_t at = 0;
    for (std::size_t slash; (slash = path.find('/', at)) != std::string::npos; at = slash + 1)
        folder = Vel::ptr_cast<Vel::Dir>(folder->createEntity("Vel::Dir", path.substr(at, slash - at)));
    auto const status = Redundancy::redundancyStatusFactory(path.substr(at));
    status->activeCellIdIs(activeCell);
    folder->entryIs(status);
}

Answer ask(Fact const& fact, RootedCalls const& calls) {
    Answer answer{&fact, {}, {}, {}};
    try {
        answer.value = fact.ask(answer.source);
    } catch (Vel::Exception const& error) {
        answer.error = error.text().stdString();
    }
    for (Source::Asked& asked : answer.source.asked)
        if (!asked.isVariable) asked.name = calls.realPath(asked.name);
    return answer;
}

std::vector<Answer> askAll(Options const& options, RootedCalls const& calls) {
    std::vector<Answer> answers;
    for (Fact const& fact : facts) {
        answers.push_back(ask(fact, calls));
        // The status is below the own cell's number, so that fact is asked first. If it fails, no status is needed,
        // since nobody can look for it.
        if (answers.size() == 1 && options.redundancyStatus && answers[0].error.empty())
            publishStatus(options.system, redundancyStatusFrom(*options.redundancyStatus));
    }
    return answers;
}

// --- for people ---

std::string valueText(Json const& value) {
    if (value.is_boolean()) return value.get<bool>() ? "True" : "False";
    if (value.is_string()) return shown(value.get_ref<std::string const&>());
    return value.dump();
}

std::string errnoText(int error) { return Vel::ErrnoException(error).what(); }

std::string quoted(std::optional<std::string> const& text) {
    return shortened(cleaned(Vel::valueToStrep(Vel::String(text.value_or(""))).view()), 80);
}

// Returns what was asked and is not there: "no CELLID, no /etc/cellid". Of the mode files, names those that could not
// be opened.
std::string missingText(std::vector<Source::Asked> const& asked) {
    std::vector<std::string> texts;
    for (Source::Asked const& one : asked) {
        if (one.found) continue;
        bool const failed = one.error != 0 && one.error != ENOENT;
        texts.push_back(failed ? one.name + ": " + errnoText(one.error) : "no " + one.name);
    }
    return joined(texts, ", ");
}

std::string modeFileText(Source::Asked const& file) {
    if (file.error) return file.name + ": " + errnoText(file.error);
    return file.name + (file.text ? " holds " + quoted(file.text) : " not read");
}

std::string sourceText(Source const& source) {
    auto const& asked = source.asked;
    switch (source.kind) {
    case Source::Kind::status:
        return "known before";
    case Source::Kind::variable:
        return "variable " + asked.back().name;
    case Source::Kind::file:
        return "file " + asked.back().name;
    case Source::Kind::redundancyStatus:
        return "redundancy status " + source.path;
    case Source::Kind::modeFiles:
        return "mode files: " + modeFileText(asked[0]) + ", " + modeFileText(asked[1]);
    case Source::Kind::ownCell:
        return "own cell (" + missingText(asked) + ")";
    case Source::Kind::builtIn:
        break;
    }
    return "default (" + missingText(asked) + ")";
}

std::string textOf(std::vector<Answer> const& answers) {
    Table table;
    for (Answer const& answer : answers) {
        std::string const value =
            answer.error.empty() ? bold(valueText(answer.value)) : red("error: " + cleaned(answer.error));
        table.add({answer.fact->label, value, sourceText(answer.source)});
    }
    return table.text();
}

// Says what the user can do about a fact that has no answer.
std::string advice(Answer const& answer) {
    Source const& source = answer.source;
    std::string const subject = std::string(answer.fact->label) + ": ";
    std::string const demands = answer.fact->demands ? answer.fact->demands : "a text";
    bool const isVariable = source.kind == Source::Kind::variable;
    if (!isVariable && source.kind != Source::Kind::file)
        return subject + "a mode file cannot be read; mend that, or set ACTIVE_CELLID";
    Source::Asked const& asked = source.asked.back();
    if (isVariable)
        return subject + asked.name + " is " + quoted(asked.text) + "; set it to " + demands +
               " with nothing behind it, or unset it";
    if (asked.error == 0)
        return subject + asked.name + " holds " + quoted(asked.text) + "; it must hold " + demands +
               " with nothing behind it, not even a newline (write it with printf, not echo)";
    return subject + asked.name + " cannot be read; mend that, or set " + source.asked[0].name;
}

// --- for programs ---

Json textOrNull(std::optional<std::string> const& text) { return text ? Json(*text) : Json(); }

Json askedJson(Source::Asked const& asked) {
    Json json{{asked.isVariable ? "variable" : "file", asked.name}, {"found", asked.found}};
    if (asked.found) json["text"] = textOrNull(asked.text);
    if (asked.error) json["error"] = errnoText(asked.error);
    return json;
}

Json sourceJson(Source const& source) {
    auto const& asked = source.asked;
    switch (source.kind) {
    case Source::Kind::status:
        return {{"kind", "status"}};
    case Source::Kind::variable:
        return {{"kind", "variable"}, {"name", asked.back().name}, {"text", textOrNull(asked.back().text)}};
    case Source::Kind::file:
        return {{"kind", "file"}, {"path", asked.back().name}, {"text", textOrNull(asked.back().text)}};
    case Source::Kind::redundancyStatus:
        return {{"kind", "redundancyStatus"}, {"path", source.path}};
    case Source::Kind::modeFiles:
        return {{"kind", "modeFiles"}, {"local", askedJson(asked[0])}, {"peer", askedJson(asked[1])}};
    case Source::Kind::ownCell:
    case Source::Kind::builtIn:
        break;
    }
    Json all = Json::array();
    for (Source::Asked const& one : asked) all.push_back(askedJson(one));
    return {{"kind", "default"}, {"asked", std::move(all)}};
}

Json jsonOf(std::vector<Answer> const& answers) {
    Json json = Json::object();
    for (Answer const& answer : answers) {
        Json& entry = json[answer.fact->key] = Json::object();
        if (answer.error.empty())
            entry["value"] = answer.value;
        else
            entry["error"] = answer.error;
        entry["source"] = sourceJson(answer.source);
    }
    return json;
}

// --- setting up ---

void checkOptions(Options const& options) {
    if (options.redundancyStatus) redundancyStatusFrom(*options.redundancyStatus);
    struct stat status {};
    if (!options.root.empty() && (::stat(options.root.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)))
        throw Failure(badUsage, "--root: " + shown(options.root) + " is no folder");
    if (options.system.empty() || options.system.find('/') != std::string::npos)
        throw Failure(badUsage, "--system: " + shown(options.system) + " is no name: it is empty or holds a \"/\"");
}

void traceToStandardError() {
    char const* const wanted = std::getenv("VELTRACE");
    try {
        Vel::Trace::levelsIs(std::string(wanted ? wanted : "") + ",Cell/0");
    } catch (Vel::RangeException const& error) {
        complain("VELTRACE: " + cleaned(error.text().view()) + "; ignored");
        Vel::Trace::levelsIs("Cell/0");
    }
    Vel::Trace::sinkIs([](Vel::TraceRecord const& record) { std::fputs(Vel::Trace::line(record).c_str(), stderr); });
}

class CellCommand final : public Command {
public:
    explicit CellCommand(CLI::App& app) : Command(app, "cell", "Who this machine is, and where we know it from", help) {
        option("--root", options_.root, "DIR", "Look for all files below this folder");
        flag("--no-env", options_.noEnvironment, "Take the environment's variables as unset");
        option("--system", options_.system, "NAME", "System name of the activity manager (default: ql)");
        option("--redundancy-status", options_.redundancyStatus, "ID|none",
            "Publish a redundancy status with this active cell first; none: not known");
        flag("--trace", options_.trace, "Trace the resolution to standard error, as VELTRACE=Cell/0 does");
        flag("--json", options_.json, "Answer in JSON");
    }

    int run() override {
        checkOptions(options_);
        if (options_.trace) traceToStandardError();
        RootedCalls calls(options_.root, options_.noEnvironment);
        Vel::System::callsIs(&calls);
        Vel::activityManager().systemNameIs(options_.system);
        std::vector<Answer> const answers = askAll(options_, calls);
        Vel::System::callsIs(nullptr);

        print(options_.json ? jsonText(jsonOf(answers)) : textOf(answers));
        int code = fine;
        for (Answer const& answer : answers) {
            if (answer.error.empty()) continue;
            complain(advice(answer));
            code = somethingWrong;
        }
        return code;
    }

private:
    Options options_;
};

}  // namespace

std::unique_ptr<Command> makeCell(CLI::App& app) { return std::make_unique<CellCommand>(app); }

}  // namespace Tool
