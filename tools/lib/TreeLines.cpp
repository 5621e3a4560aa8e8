#include "tools/lib/TreeLines.h"

#include "tools/lib/Clean.h"
#include "tools/lib/ValueText.h"

#include "Vel/text/Strep.h"

namespace Tool {

using Vel::Entity;
using Vel::StreamAttribute;
using Vel::StreamKind;

std::string referenceText(EntityTree const& tree, Entity const* target) {
    EntityTree::Node const* const node = target ? tree.find(*target) : nullptr;
    return node ? node->path() : "None";
}

Json referenceJson(EntityTree const& tree, Entity const* target) {
    EntityTree::Node const* const node = target ? tree.find(*target) : nullptr;
    return node ? Json(node->path()) : Json();
}

std::string heldText(EntityTree const& tree, Entity const& entity, StreamAttribute const& attribute) {
    if (attribute.kind == StreamKind::value) return valueText(storedValue(entity, attribute));
    return referenceText(tree, attribute.target(entity));
}

Json heldJson(EntityTree const& tree, Entity const& entity, StreamAttribute const& attribute) {
    if (attribute.kind == StreamKind::value) return jsonValue(storedValue(entity, attribute));
    return referenceJson(tree, attribute.target(entity));
}

void eachReference(
    EntityTree::Node const& node, std::function<void(StreamAttribute const&, std::string const&, Entity&)> const& f) {
    for (StreamAttribute const& collection : node.table().attributes) {
        if (!collection.holdsEntities()) continue;
        eachKey(node.entity(), collection, [&](std::string const& key) {
            if (node.children().contains({&collection, key})) return;
            if (Entity* const member = memberOf(node.entity(), collection, key)) f(collection, key, *member);
        });
    }
}

void eachItem(EntityTree::Node const& node,
    std::function<void(StreamAttribute const&, std::string const&, Vel::GenericValue const&)> const& f) {
    for (StreamAttribute const& collection : node.table().attributes) {
        if (collection.kind != StreamKind::values) continue;
        eachKey(node.entity(), collection, [&](std::string const& key) {
            if (auto const item = storedItem(node.entity(), collection, key)) f(collection, key, *item);
        });
    }
}

std::vector<std::pair<std::string, std::string>> referencesOf(EntityTree const& tree, EntityTree::Node const& node) {
    std::vector<std::pair<std::string, std::string>> references;
    auto const add = [&](StreamAttribute const& attribute, std::string const& key, Entity const* target) {
        EntityTree::Node const* const at = target ? tree.find(*target) : nullptr;
        if (at && at->above() == &node) return;
        std::string name = attributeName(node.type(), attribute.id);
        if (attribute.isCollection()) name = stepText(node.type(), attribute, key);
        references.emplace_back(std::move(name), referenceText(tree, target));
    };
    for (StreamAttribute const& attribute : node.table().attributes)
        if (attribute.kind == StreamKind::pointer) add(attribute, "", attribute.target(node.entity()));
    eachReference(node, [&](StreamAttribute const& attribute, std::string const& key, Entity const& member) {
        add(attribute, key, &member);
    });
    return references;
}

Json entityJson(EntityTree const& tree, EntityTree::Node const& node) {
    Json attributes = Json::object(), members = Json::array();
    for (StreamAttribute const& attribute : node.table().attributes)
        if (!attribute.isCollection())
            attributes[attributeName(node.type(), attribute.id)] = heldJson(tree, node.entity(), attribute);
    eachReference(node, [&](StreamAttribute const& collection, std::string const& key, Entity const& member) {
        members.push_back({{"collection", attributeName(node.type(), collection.id)},
            {"key", jsonValue(keyValue(node.type(), collection, key))}, {"target", referenceJson(tree, &member)}});
    });
    eachItem(node, [&](StreamAttribute const& collection, std::string const& key, Vel::GenericValue const& item) {
        members.push_back({{"collection", attributeName(node.type(), collection.id)},
            {"key", jsonValue(keyValue(node.type(), collection, key))}, {"value", jsonValue(item)}});
    });
    return {{"path", node.path()}, {"type", node.type().name()}, {"attributes", std::move(attributes)},
        {"members", std::move(members)}};
}

int exitCodeOf(EntityTree const& tree) {
    if (tree.isWhole()) return fine;
    complain("what has a path of more than 64 KiB is left out");
    return somethingWrong;
}

// --- lines ---

void TreeLines::add(Json json, bool isNote) {
    count_ += !isNote;
    if (std::string time = time_ ? time_(isNote) : ""; !time.empty()) json["time"] = std::move(time);
    answers_.add(jsonLine(json) + "\n");
}

void TreeLines::add(std::string_view mark, std::string const& text) {
    ++count_;
    if (std::string const time = time_ ? time_(false) : ""; !time.empty()) answers_.add(time + " ");
    answers_.add(mark);
    answers_.add(text);
    answers_.add("\n");
}

void TreeLines::entity(Node const& node, bool isNew) {
    if (json_) return add({{"event", "entity"}, {"path", node.path()}, {"type", node.type().name()}});
    std::string text = node.path() + " " + node.type().name();
    if (node.above() && node.table().takesName && node.step().starts_with('@'))
        text += " " + cleaned(Vel::valueToStrep(node.entity().name()).view());
    add(isNew ? "+ " : "", text);
}

void TreeLines::whole(EntityTree const& tree, Node const& node, bool isNew) {
    entity(node, isNew);
    for (StreamAttribute const& attribute : node.table().attributes)
        if (!attribute.isCollection()) this->attribute(tree, node, attribute);
    eachReference(node, [&](StreamAttribute const& collection, std::string const& key, Entity&) {
        member(tree, node, collection, key);
    });
    eachItem(node, [&](StreamAttribute const& collection, std::string const& key, Vel::GenericValue const&) {
        member(tree, node, collection, key);
    });
}

void TreeLines::attribute(EntityTree const& tree, Node const& node, StreamAttribute const& attribute) {
    std::string const name = attributeName(node.type(), attribute.id);
    if (!json_) return add("", node.path() + " " + name + " = " + heldText(tree, node.entity(), attribute));
    add({{"event", "set"}, {"path", node.path()}, {"attribute", name},
        {attribute.kind == StreamKind::value ? "value" : "target", heldJson(tree, node.entity(), attribute)}});
}

void TreeLines::member(
    EntityTree const& tree, Node const& node, StreamAttribute const& collection, std::string const& key) {
    if (node.children().contains({&collection, key})) return;
    std::string const name = attributeName(node.type(), collection.id);
    Vel::GenericValue const value = keyValue(node.type(), collection, key);
    bool const holdsValues = collection.kind == StreamKind::values;
    Entity const* const member = holdsValues ? nullptr : memberOf(node.entity(), collection, key);
    auto const item = holdsValues ? storedItem(node.entity(), collection, key) : std::nullopt;
    if (json_)
        return add({{"event", "member"}, {"path", node.path()}, {"collection", name}, {"key", jsonValue(value)},
            {holdsValues ? "value" : "target", item          ? jsonValue(*item)
                                               : holdsValues ? Json()
                                                             : referenceJson(tree, member)}});
    std::string const at = node.path() + " " + name + " " + valueText(value);
    if (item)
        add("", at + " = " + valueText(*item));
    else if (member)
        add("", at + " = " + referenceText(tree, member));
    else
        add("- ", at);
}

void TreeLines::gone(Node const& node) {
    if (json_) return add({{"event", "gone"}, {"path", node.path()}});
    add("- ", node.path());
}

void TreeLines::note(std::string_view event, std::string const& text, Json const& more) {
    if (json_) {
        Json json{{"event", event}};
        json.update(more);
        return add(std::move(json), true);
    }
    if (std::string const time = time_ ? time_(true) : ""; !time.empty()) answers_.add(time + " ");
    answers_.add("# " + std::string(event) + (text.empty() ? "" : ": " + cleaned(text)) + "\n");
}

}  // namespace Tool
