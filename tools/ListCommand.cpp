#include "tools/Commands.h"
#include "tools/LiveCommand.h"
#include "tools/lib/FoundTree.h"
#include "tools/lib/TreeLines.h"
#include "tools/lib/ValueText.h"

namespace Tool {

namespace {

constexpr char help[] =
    R"~(Lists the entities below one, with their types. The names are those of paths. "-> PATH" is what a reference leads to
that has its place elsewhere.

Examples:
  mox ls /run/mox.sock
  mox ls /run/mox.sock /ql/Zendb/cell)~";

using Vel::StreamAttribute;

void list(FoundTree const& found) {
    Table table;
    for (auto const& [at, node] : found.top().children()) table.add({bold(node->step()), node->type().name()});
    eachItem(
        found.top(), [&](StreamAttribute const& collection, std::string const& key, Vel::GenericValue const& item) {
            table.add({stepText(found.top().type(), collection, key), "= " + valueText(item)});
        });
    for (auto const& [name, target] : referencesOf(found.tree(), found.top()))
        if (target != "None") table.add({name, "-> " + target});
    print(table.text());
}

void listJson(FoundTree const& found) {
    Answers answers;
    JsonList list(answers, "\"path\": " + jsonLine(Json(found.top().path())) + ", \"members\": ");
    for (auto const& [at, node] : found.top().children())
        list.add({{"name", node->step()}, {"type", node->type().name()}});
    for (auto const& [name, target] : referencesOf(found.tree(), found.top()))
        if (target != "None") list.add({{"name", name}, {"target", target}});
    eachItem(
        found.top(), [&](StreamAttribute const& collection, std::string const& key, Vel::GenericValue const& item) {
            list.add({{"name", stepText(found.top().type(), collection, key)}, {"value", jsonValue(item)}});
        });
    list.closeWith("");
    answers.flush();
}

class ListCommand final : public LiveCommand {
public:
    explicit ListCommand(CLI::App& app)
        : LiveCommand(app, "ls", "What there is at a server, and of which types", help) {
        addPath("Of the entity; default: /");
        addTimeoutAndJson();
    }

    int run() override {
        FoundTree const found(where_);
        if (json_)
            listJson(found);
        else
            list(found);
        return found.done();
    }
};

}  // namespace

std::unique_ptr<Command> makeList(CLI::App& app) { return std::make_unique<ListCommand>(app); }

}  // namespace Tool
