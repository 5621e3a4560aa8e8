#include "tools/Commands.h"
#include "tools/lib/Clean.h"
#include "tools/lib/Output.h"
#include "tools/lib/RightsFile.h"

#include "Vel/base/Exception.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace Tool {

namespace {

constexpr char help[] =
    R"~(Says what somebody may do at a path of a server, and which rule of a file decides. Without a path, shows all rules
that apply, the deepest paths first.

A file of rights has a rule on each line: who, a path, and what that may do there and below:
  # who              path          may
  everybody          /             read
  group:netops       /ql/agents    read write
  user:root          /             read write call
  name:*.lab.example '/ql/my lab'  read         a certificate's common name
  everybody          /ql/secrets   nothing
The deepest path decides, whoever the rule is for. At one path a rule for a user decides before one for a certificate's
name, that before one for a pattern of names, then a group, then everybody. Where no rule applies, nothing is allowed.
docs/rights.md has more.

Examples:
  mox rights rights.txt --who user:alice /ql/agents
  mox rights rights.txt --who user:1000 --who group:netops
  mox rights rights.txt --who name:db7.lab.example /ql --json
  mox rights rights.txt /ql                       somebody who is neither a user nor has a certificate

A user has the groups that this machine knows, and those of --who. Exit code 1 when nothing is allowed at the path, 2
when the file or the command line is wrong.)~";

using Mount::Access;
using Mount::Rights;
using Mount::textOf;
using Rule = Rights::Rule;

class RightsCommand final : public Command {
public:
    explicit RightsCommand(CLI::App& app) : Command(app, "rights", "What somebody may do at a server, and why", help) {
        neededArgument("FILE", file_, "Of rules; - for standard input");
        argument("PATH", path_, "Of an entity; default: show all rules that apply");
        options("--who", who_, "WHO", "user:NAME, group:NAME or name:NAME; may be given several times");
        flag("--json", json_, "Answer in JSON");
    }

    int run() override {
        auto const rights = readRights(file_);
        Mount::RightsPeer const peer = peerOf();
        std::vector<Rule const*> const rules = path_ ? rights->deciding(peer, *path_) : allOf(*rights, peer);
        Access const access = accessOf(rules);
        if (json_)
            showJson(rules, access);
        else if (path_)
            showDecision(rules, access);
        else
            showTable(rules);
        return path_ && access == Access::none ? somethingWrong : fine;
    }

private:
    Mount::RightsPeer peerOf() const {
        try {
            return Rights::peerOf(std::vector<Vel::String>(who_.begin(), who_.end()));
        } catch (Vel::RangeException const& error) {
            throw Failure(badUsage, "--who: " + cleaned(error.text().view()));
        }
    }
    // The deepest paths first, and at one path those that decide.
    static std::vector<Rule const*> allOf(Rights const& rights, Mount::RightsPeer const& peer) {
        std::vector<Rule const*> rules;
        for (Rule const& rule : rights.rules())
            if (Rights::applies(rule, peer)) rules.push_back(&rule);
        std::stable_sort(rules.begin(), rules.end(), [](Rule const* a, Rule const* b) {
            auto const depth = [](Rule const* r) { return std::ranges::count(r->path.view(), '/') + !r->path.empty(); };
            if (depth(a) != depth(b)) return depth(a) > depth(b);
            return a->path == b->path ? a->who > b->who : a->path.view() < b->path.view();
        });
        return rules;
    }

    static std::string pathOf(Rule const& rule) { return "/" + cleaned(rule.path.view()); }
    static std::string lineOf(Rule const& rule) { return std::to_string(rule.line); }

    void showDecision(std::vector<Rule const*> const& rules, Access access) const {
        std::string text = cleaned(*path_) + ": " + bold(cleaned(textOf(access).view())) + ", by ";
        if (rules.empty()) text += "no rule";
        for (Rule const* const rule : rules)
            text += (rule == rules.front() ? "line " : ", line ") + lineOf(*rule) + " (" +
                    cleaned(rule->whoText.view()) + " " + pathOf(*rule) + ")";
        print(text + "\n");
    }
    static void showTable(std::vector<Rule const*> const& rules) {
        if (rules.empty()) return complain("no rule applies, so nothing is allowed");
        Table table;
        table.add({bold("path"), bold("may"), bold("who"), bold("line")});
        for (Rule const* const rule : rules)
            table.add({pathOf(*rule), cleaned(textOf(rule->may).view()), cleaned(rule->whoText.view()), lineOf(*rule)});
        print(table.text());
    }
    void showJson(std::vector<Rule const*> const& rules, Access access) const {
        Json all = Json::array();
        for (Rule const* const rule : rules)
            all.push_back({{"line", rule->line}, {"who", cleaned(rule->whoText.view())}, {"path", pathOf(*rule)},
                {"may", textOf(rule->may).stdString()}});
        Json json{{"rules", std::move(all)}};
        if (path_) json["path"] = cleaned(*path_);
        if (path_) json["may"] = textOf(access).stdString();
        print(jsonText(json));
    }

    std::string file_;
    std::optional<std::string> path_;
    std::vector<std::string> who_;
    bool json_ = false;
};

}  // namespace

std::unique_ptr<Command> makeRights(CLI::App& app) { return std::make_unique<RightsCommand>(app); }

}  // namespace Tool
