#include "tools/Commands.h"
#include "tools/LiveCommand.h"
#include "tools/lib/Clean.h"
#include "tools/lib/Moments.h"

#include "Mount/History.h"
#include "Mount/Server.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <nlohmann/json.hpp>
#include <set>
#include <tuple>

namespace Tool {

namespace {

constexpr char help[] =
    R"~(Shows who has asked a server for a change of an entity: when, who, the value before, the value that was asked for, and
what has become of it. The newest change comes first. "mox serve" keeps the newest 1024 changes, and of 4096 attributes
the last change. Other servers may also keep what their process has changed itself; the author is "this process" then.

Examples:
  mox why /tmp/s.sock /ql/cell product        of one attribute
  mox why /tmp/s.sock /ql/cell                of the entity
  mox why /tmp/s.sock                         of all entities
  mox why /tmp/s.sock /ql/cell --json

Exit code 1 when the server keeps no changes, or when it knows of none.)~";

// Returns the path as a history has it, without the escapes of the tool's paths.
std::string pathInHistory(std::string const& path) {
    std::string plain;
    for (Step const& step : stepsOf(path)) plain += "/" + step.key;
    return plain.empty() ? "/" : plain;
}

class WhyCommand final : public LiveCommand {
public:
    explicit WhyCommand(CLI::App& app) : LiveCommand(app, "why", "Who has changed an entity at a server", help) {
        argument("PATH", path_, "Of the entity");
        argument("ATTRIBUTE", attribute_, "Only this one");
        addTimeoutAndJson();
    }

    int run() override {
        Connection connection(where_, Mount::historyPath);
        if (!connection.sync()) throw Failure(somethingWrong, where_.address + " does not keep who has changed what");
        auto const* const history = dynamic_cast<Mount::History const*>(&connection.root());
        if (!history) throw Failure(somethingWrong, where_.address + " has something else in place of its changes");
        std::vector<Mount::Change> const changes = changesOf(*history);
        json_ ? showJson(changes) : showTable(changes);
        return changes.empty() ? somethingWrong : fine;
    }

private:
    using Fields = std::tuple<double, std::array<Vel::String, 8>>;
    // In seconds since 1970. What is no number comes from a server that lies, and would have no place in an order.
    static double timeOf(Mount::Change const& change) {
        double const time = change.time().value();
        return std::isnan(time) ? 0 : time;
    }
    static Fields fieldsOf(Mount::Change const& change) {
        return {timeOf(change), {change.author(), change.path(), change.attribute(), change.key(), change.before(),
                                    change.wanted(), change.result(), change.text()}};
    }

    std::vector<Mount::Change> changesOf(Mount::History const& history) const {
        using List = Mount::History::List;
        std::vector<Mount::Change> changes;
        std::set<Fields> known;  // the last change of an attribute may also be one of the newest
        std::string const path = path_ ? pathInHistory(*path_) : "";
        for (List const list : {List::own, List::asked, List::last}) {
            history.visitChanges(list, [&](Vel::U64 number) {
                Mount::Change change = history.change(list, number);
                if (path_ && change.path() != path) return;
                if (attribute_ && change.attribute() != *attribute_) return;
                if (known.insert(fieldsOf(change)).second || list != List::last) changes.push_back(std::move(change));
            });
        }
        std::reverse(changes.begin(), changes.end());
        std::stable_sort(changes.begin(), changes.end(),
            [](Mount::Change const& a, Mount::Change const& b) { return timeOf(b) < timeOf(a); });
        return changes;
    }

    void showTable(std::vector<Mount::Change> const& changes) const {
        if (changes.empty()) return complain("nobody has asked for a change of it, among the changes that are kept");
        Table table;
        table.add({bold("time"), bold("author"), bold("path"), bold("attribute"), bold("before"), bold("wanted"),
            bold("result")});
        for (Mount::Change const& change : changes)
            table.add({localTime(change.time().value()), text(change.author()), text(change.path()), nameOf(change),
                text(change.before()), text(change.wanted()), resultOf(change)});
        print(table.text());
    }

    void showJson(std::vector<Mount::Change> const& changes) const {
        Json all = Json::array();
        for (Mount::Change const& change : changes)
            all.push_back({{"time", change.time().value()}, {"author", text(change.author())},
                {"path", text(change.path())}, {"attribute", text(change.attribute())}, {"key", text(change.key())},
                {"before", text(change.before())}, {"wanted", text(change.wanted())}, {"result", text(change.result())},
                {"text", text(change.text())}});
        print(jsonText({{"changes", std::move(all)}}));
    }

    static std::string text(Vel::String const& text) { return cleaned(text.view()); }
    static std::string nameOf(Mount::Change const& change) {
        return text(change.attribute()) + (change.key().empty() ? "" : "[" + text(change.key()) + "]");
    }
    static std::string resultOf(Mount::Change const& change) {
        return text(change.result()) + (change.text().empty() ? "" : ": " + text(change.text()));
    }

    std::optional<std::string> path_, attribute_;
};

}  // namespace

std::unique_ptr<Command> makeWhy(CLI::App& app) { return std::make_unique<WhyCommand>(app); }

}  // namespace Tool
