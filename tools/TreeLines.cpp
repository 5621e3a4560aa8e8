#include "tools/TreeLines.h"

#include "Vel/Strep.h"

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

void eachReference(
    EntityTree::Node const& node, std::function<void(StreamAttribute const&, std::string const&, Entity&)> const& f) {
    for (StreamAttribute const& collection : node.table().attributes) {
        if (!collection.isCollection()) continue;
        std::unique_ptr<Vel::NboAttrLog::Bookmark> const keys(collection.bookmark(node.entity()));
        Vel::NboAttrLog::Out out;
        while (keys->left() != 0) {
            out.clear();
            keys->next(out);
            std::string const key =
                keyFromEncoding(collection, {reinterpret_cast<char const*>(out.data()), out.size()});
            if (node.children().contains({&collection, key})) continue;
            if (Entity* const member = memberOf(node.entity(), collection, key)) f(collection, key, *member);
        }
    }
}

void TreeLines::add(Json const& json) {
    ++count_;
    answers_.add(json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
}

void TreeLines::add(std::string_view mark, std::string const& text) {
    ++count_;
    answers_.add(mark);
    answers_.add(text);
    answers_.add("\n");
}

void TreeLines::entity(Node const& node, bool isNew) {
    if (json_) return add({{"event", "entity"}, {"path", node.path()}, {"type", node.type().name()}});
    std::string text = node.path() + " " + node.type().name();
    if (node.above() && node.table().takesName && node.step().starts_with('@'))
        text += " " + Vel::valueToStrep(node.entity().name()).stdString();
    add(isNew ? "+ " : "", text);
}

void TreeLines::whole(EntityTree const& tree, Node const& node, bool isNew) {
    entity(node, isNew);
    for (StreamAttribute const& attribute : node.table().attributes)
        if (!attribute.isCollection()) this->attribute(tree, node, attribute);
    eachReference(node, [&](StreamAttribute const& collection, std::string const& key, Entity&) {
        member(tree, node, collection, key);
    });
}

void TreeLines::attribute(EntityTree const& tree, Node const& node, StreamAttribute const& attribute) {
    std::string const name = attributeName(node.type(), attribute.id);
    bool const isValue = attribute.kind == StreamKind::value;
    if (json_) {
        Json json{{"event", "set"}, {"path", node.path()}, {"attribute", name}};
        if (isValue)
            json["value"] = jsonValue(storedValue(node.entity(), attribute));
        else
            json["target"] = referenceJson(tree, attribute.target(node.entity()));
        return add(json);
    }
    add("", node.path() + " " + name + " = " +
                (isValue ? storedValue(node.entity(), attribute).strep().stdString()
                         : referenceText(tree, attribute.target(node.entity()))));
}

void TreeLines::member(
    EntityTree const& tree, Node const& node, StreamAttribute const& collection, std::string const& key) {
    if (node.children().contains({&collection, key})) return;
    std::string const name = attributeName(node.type(), collection.id);
    Entity const* const member = memberOf(node.entity(), collection, key);
    Vel::GenericValue const value = keyValue(node.type(), collection, key);
    if (json_)
        return add({{"event", "member"}, {"path", node.path()}, {"collection", name}, {"key", jsonValue(value)},
            {"target", referenceJson(tree, member)}});
    std::string const at = node.path() + " " + name + " " + value.strep().stdString();
    if (member)
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
        answers_.add(json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
    } else {
        answers_.add("# " + std::string(event) + (text.empty() ? "" : ": " + text) + "\n");
    }
}

}  // namespace Tool
