#include "tools/Commands.h"
#include "tools/LiveCommand.h"
#include "tools/lib/TreeLines.h"

namespace Tool {

namespace {

constexpr char help[] =
    R"~(Asks a server for one attribute of an entity, or for all of them.

Examples:
  mox get /run/mox.sock /ql/cell                 all attributes, with their types
  mox get /run/mox.sock /ql/cell product         one, as the text of its type
  mox get tcp:127.0.0.1:7400 /ql/cell --json

A path has a "/" before each name; "mox ls ADDRESS PATH" lists what is there. In a name, "/" and "%", blanks, control
bytes and what is no UTF-8 stand as %XX. @ATTRIBUTE is the entity that an attribute refers to, @COLLECTION[KEY] a member
of a collection that has no names.
Exit code 1 when there is no such entity or attribute, or no answer.)~";

using Vel::Entity;
using Vel::StreamAttribute;
using Vel::StreamKind;

void getAll(Found& found, std::string const& path, bool json) {
    Entity const& entity = found.entity();
    EntityTree const tree(found.connection().root(), found.rootPath());
    Table table;
    table.add({bold("attribute"), bold("type"), bold("value")});
    Json all = Json::object();
    for (StreamAttribute const& attribute : streamTableOf(entity)->attributes) {
        if (attribute.isCollection()) continue;
        std::string const name = attributeName(entity.fwkType(), attribute.id);
        if (json)
            all[name] = heldJson(tree, found.entity(), attribute);
        else
            table.add({name, typeName(attribute), heldText(tree, found.entity(), attribute)});
    }
    if (json)
        print(jsonText({{"path", path}, {"type", entity.fwkType().name()}, {"attributes", std::move(all)}}));
    else
        print(path + " " + bold(entity.fwkType().name()) + "\n" + table.text());
}

void getOne(Found& found, std::string const& name, ConnectionOptions const& where, bool json) {
    StreamAttribute const& attribute = singleAttribute(found.entity(), name, where);
    EntityTree const tree(found.connection().root(), found.rootPath());
    if (!json) return print(heldText(tree, found.entity(), attribute) + "\n");
    print(jsonText({{"path", normalPath(where.path)}, {"attribute", name}, {"type", typeName(attribute)},
        {attribute.kind == StreamKind::value ? "value" : "target", heldJson(tree, found.entity(), attribute)}}));
}

class GetCommand final : public LiveCommand {
public:
    explicit GetCommand(CLI::App& app) : LiveCommand(app, "get", "Attributes of an entity at a server", help) {
        neededArgument("PATH", where_.path, "Of the entity");
        argument("ATTRIBUTE", attribute_, "Only this one");
        addTimeoutAndJson();
    }

    int run() override {
        Found found(where_, where_.path);
        if (attribute_.empty())
            getAll(found, normalPath(where_.path), json_);
        else
            getOne(found, attribute_, where_, json_);
        return fine;
    }

private:
    std::string attribute_;  // empty means all
};

}  // namespace

std::unique_ptr<Command> makeGet(CLI::App& app) { return std::make_unique<GetCommand>(app); }

}  // namespace Tool
