#include "tools/Commands.h"
#include "tools/Sources.h"
#include "tools/lib/Clean.h"
#include "tools/lib/Output.h"

#include "Mox/Cell.h"
#include "Redundancy/RedundancyStatus.h"
#include "Vel/ActivityManager.h"
#include "Vel/Dir.h"
#include "Vel/Exception.h"
#include "Vel/System.h"
#include "Vel/Trace.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <sys/stat.h>

namespace Tool {

namespace {

struct Fact {
    char const* key;      // in JSON
    char const* label;    // for people
    char const* demands;  // what its sources must hold; null: anything goes
    Json (*ask)();        // throws what the library throws
};

constexpr char cellNumber[] = "a number from 0 to 65535";
constexpr char flag[] = "TRUE or FALSE";

Fact const facts[] = {
    {"cellId", "cell id", cellNumber, [] { return Json(Cell::cellId()); }},
    {"activeCellId", "active cell", cellNumber, [] { return Json(Cell::activeCellId()); }},
    {"cellType", "cell type", nullptr, [] { return Json(Cell::cellType().stdString()); }},
    {"product", "product", nullptr, [] { return Json(Cell::product().stdString()); }},
    {"electionMgrSupported", "election manager supported", flag, [] { return Json(Cell::electionMgrSupported()); }},
    {"cpuBmcMode", "CPU/BMC mode", flag, [] { return Json(Cell::cpuBmcMode()); }},
};

struct Answer {
    Fact const* fact;
    Json value;
    std::string error;  // empty: none
    Source source;
};

// --- asking ---

// Publishes the status that the redundancy service would. Returns its path.
std::string publishStatus(std::string const& system, Vel::U32 activeCell) {
    Vel::Ptr<Vel::Dir> folder = Vel::globalDir();
    std::string const path = system + "/Zendb/" + Cell::path("redundancy/status", 0).stdString();
    std::size_t at = 0;
    for (std::size_t slash; (slash = path.find('/', at)) != std::string::npos; at = slash + 1)
        folder = Vel::ptr_cast<Vel::Dir>(folder->createEntity("Vel::Dir", path.substr(at, slash - at)));
    auto const status = Redundancy::redundancyStatusFactory(path.substr(at));
    status->activeCellIdIs(activeCell);
    folder->entryIs(status);
    return status->path().stdString();
}

Answer ask(Fact const& fact, SourceCalls& calls, std::string const& publishedStatus) {
    Answer answer{&fact, {}, {}, {}};
    calls.take();
    try {
        answer.value = fact.ask();
    } catch (Vel::Exception const& error) {
        answer.error = error.text().stdString();
    }
    bool const isActiveCell = std::string_view(fact.key) == "activeCellId";
    answer.source = isActiveCell ? sourceOfActiveCell(calls.take(), !answer.error.empty(), publishedStatus)
                                 : sourceOfFact(calls.take());
    return answer;
}

std::vector<Answer> askAll(CellOptions const& options, SourceCalls& calls) {
    std::vector<Answer> answers;
    std::string publishedStatus;
    for (Fact const& fact : facts) {
        answers.push_back(ask(fact, calls, publishedStatus));
        // The status stands below the own cell's number, so that comes first. Without one, nobody will look for it.
        if (answers.size() == 1 && options.redundancyStatus && answers[0].error.empty())
            publishedStatus = publishStatus(options.system, *options.redundancyStatus);
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

std::string quoted(std::string const& text) {
    return shortened(cleaned(Vel::valueToStrep(Vel::String(text)).view()), 80);
}

// "no CELLID, no /etc/cellid"; of mode files that did not both open, the one that was missing.
std::string missingText(std::vector<SourceCall> const& asked) {
    std::vector<std::string> texts;
    for (SourceCall const& call : asked) {
        if (call.found) continue;
        bool const failed = call.error != 0 && call.error != ENOENT;
        texts.push_back(failed ? call.name + ": " + errnoText(call.error) : "no " + call.name);
    }
    return joined(texts, ", ");
}

std::string modeFileText(SourceCall const& file) {
    if (file.error) return file.name + ": " + errnoText(file.error);
    return file.name + (file.text ? " holds " + quoted(*file.text) : " not read");
}

std::string sourceText(Answer const& answer) {
    Source const& source = answer.source;
    switch (source.kind) {
    case Source::Kind::variable:
        return "variable " + source.name;
    case Source::Kind::file:
        return "file " + source.name;
    case Source::Kind::redundancyStatus:
        return "redundancy status " + source.name;
    case Source::Kind::modeFiles:
        return "mode files: " + modeFileText(source.asked[0]) + ", " + modeFileText(source.asked[1]);
    case Source::Kind::builtIn:
        break;
    }
    bool const isActiveCell = std::string_view(answer.fact->key) == "activeCellId";
    return (isActiveCell ? "own cell (" : "default (") + missingText(source.asked) + ")";
}

std::string textOf(std::vector<Answer> const& answers) {
    Table table;
    for (Answer const& answer : answers) {
        std::string const value =
            answer.error.empty() ? bold(valueText(answer.value)) : red("error: " + cleaned(answer.error));
        table.add({answer.fact->label, value, sourceText(answer)});
    }
    return table.text();
}

// What to do about a fact that has no answer.
std::string advice(Answer const& answer) {
    Source const& source = answer.source;
    std::string const subject = std::string(answer.fact->label) + ": ";
    std::string const demands = answer.fact->demands ? answer.fact->demands : "a text";
    if (source.kind == Source::Kind::variable)
        return subject + source.name + " is " + quoted(source.text.value_or("")) + "; set it to " + demands +
               " with nothing behind it, or unset it";
    if (source.kind == Source::Kind::file && source.error == 0)
        return subject + source.name + " holds " + quoted(source.text.value_or("")) + "; it must hold " + demands +
               " with nothing behind it, not even a newline (write it with printf, not echo)";
    if (source.kind == Source::Kind::file)
        return subject + source.name + " cannot be read; mend that" +
               (source.alternative.empty() ? "" : ", or set " + source.alternative);
    return subject + "a mode file cannot be read; mend that, or set ACTIVE_CELLID";
}

// --- for programs ---

Json textOrNull(std::optional<std::string> const& text) { return text ? Json(*text) : Json(); }

Json callJson(SourceCall const& call) {
    bool const variable = call.kind == SourceCall::Kind::variable;
    Json json{{variable ? "variable" : "file", call.name}, {"found", call.found}};
    if (call.found) json["text"] = textOrNull(call.text);
    if (call.error) json["error"] = errnoText(call.error);
    return json;
}

Json callsJson(std::vector<SourceCall> const& calls) {
    Json json = Json::array();
    for (SourceCall const& call : calls) json.push_back(callJson(call));
    return json;
}

Json sourceJson(Source const& source) {
    switch (source.kind) {
    case Source::Kind::variable:
        return {{"kind", "variable"}, {"name", source.name}, {"text", *source.text}};
    case Source::Kind::file:
        return {{"kind", "file"}, {"path", source.name}, {"text", textOrNull(source.text)}};
    case Source::Kind::redundancyStatus:
        return {{"kind", "redundancyStatus"}, {"path", source.name}};
    case Source::Kind::modeFiles:
        return {{"kind", "modeFiles"}, {"local", callJson(source.asked[0])}, {"peer", callJson(source.asked[1])}};
    case Source::Kind::builtIn:
        break;
    }
    return {{"kind", "default"}, {"asked", callsJson(source.asked)}};
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

void checkOptions(CellOptions const& options) {
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

}  // namespace

int runCell(CellOptions const& options) {
    checkOptions(options);
    if (options.trace) traceToStandardError();
    SourceCalls calls(options.root, options.noEnvironment);
    Vel::System::callsIs(&calls);
    Vel::activityManager().systemNameIs(options.system);
    std::vector<Answer> const answers = askAll(options, calls);
    Vel::System::callsIs(nullptr);

    print(options.json ? jsonText(jsonOf(answers)) : textOf(answers));
    int code = fine;
    for (Answer const& answer : answers) {
        if (answer.error.empty()) continue;
        complain(advice(answer));
        code = somethingWrong;
    }
    return code;
}

}  // namespace Tool
