#include "tools/Commands.h"
#include "tools/lib/Connection.h"
#include "tools/lib/TreeLines.h"
#include "tools/lib/ValueText.h"

#include <algorithm>

namespace Tool {

namespace {

using Node = EntityTree::Node;
using Vel::Entity;
using Vel::StreamAttribute;
using Vel::StreamKind;

constexpr std::size_t mostOfValue = 200;  // bytes, in a picture

// A found entity in the tree of the copy that it is in.
class Place {
public:
    explicit Place(LiveOptions const& options)
        : found_(options, options.path), tree_(found_.connection().root(), found_.rootPath()) {
        top_ = tree_.find(found_.entity());
        if (!top_) throw Failure(somethingWrong, "this path is too long");
    }
    EntityTree const& tree() const { return tree_; }
    Node& top() const { return *top_; }
    template <class F> void each(F const& f) const {
        for (Node* node = top_; node; node = EntityTree::next(*node, *top_)) f(*node);
    }
    int done() const {
        if (tree_.isWhole()) return fine;
        complain("what has a path of more than 64 KiB is left out");
        return somethingWrong;
    }

private:
    Found found_;
    EntityTree tree_;
    Node* top_ = nullptr;
};

// References to what is not just below the node anyway: "@collection[key]" and the path.
std::vector<std::pair<std::string, std::string>> referencesOf(EntityTree const& tree, Node const& node) {
    std::vector<std::pair<std::string, std::string>> references;
    auto const add = [&](StreamAttribute const& attribute, std::string const& key, Entity const* target) {
        Node const* const at = target ? tree.find(*target) : nullptr;
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

// --- ls ---

void list(Place const& place) {
    Table table;
    for (auto const& [at, node] : place.top().children()) table.add({bold(node->step()), node->type().name()});
    eachItem(
        place.top(), [&](StreamAttribute const& collection, std::string const& key, Vel::GenericValue const& item) {
            table.add({stepText(place.top().type(), collection, key), "= " + valueText(item)});
        });
    for (auto const& [name, target] : referencesOf(place.tree(), place.top()))
        if (target != "None") table.add({name, "-> " + target});
    print(table.text());
}

void listJson(Place const& place) {
    Answers answers;
    JsonList list(answers, "\"path\": " + jsonLine(Json(place.top().path())) + ", \"members\": ");
    for (auto const& [at, node] : place.top().children())
        list.add({{"name", node->step()}, {"type", node->type().name()}});
    for (auto const& [name, target] : referencesOf(place.tree(), place.top()))
        if (target != "None") list.add({{"name", name}, {"target", target}});
    eachItem(
        place.top(), [&](StreamAttribute const& collection, std::string const& key, Vel::GenericValue const& item) {
            list.add({{"name", stepText(place.top().type(), collection, key)}, {"value", jsonValue(item)}});
        });
    list.closeWith("");
    answers.flush();
}

// --- tree ---

struct Signs {
    char const *branch, *lastBranch, *beside, *below;
};
constexpr Signs lines = {"├─ ", "└─ ", "│  ", "   "};
constexpr Signs ascii = {"|-- ", "`-- ", "|   ", "    "};

class Drawing {
public:
    Drawing(Answers& answers, Place const& place, TreeOptions const& options)
        : answers_(answers),
          place_(place),
          signs_(options.ascii || !isUtf8() ? ascii : lines),
          depth_(options.depth.value_or(EntityTree::longestPath)) {}

    void draw() {
        Node const& top = place_.top();
        std::size_t const first = top.depth();
        for (Node* node = &place_.top(); node;) {
            std::size_t const level = node->depth() - first;
            bool const isCut = level == depth_;
            drawNode(*node, top, level, isCut);
            node = isCut ? EntityTree::nextBeside(*node, top) : EntityTree::next(*node, top);
        }
    }

private:
    void drawNode(Node const& node, Node const& top, std::size_t level, bool isCut) {
        if (&node == &top) {
            answers_.add(bold(node.path()) + "  " + node.type().name());
        } else {
            indents_.resize(level - 1);
            bool const isLast = &node == std::prev(node.above()->children().end())->second;
            indent_.resize(level > 1 ? indents_.back() : 0);
            answers_.add(
                indent_ + (isLast ? signs_.lastBranch : signs_.branch) + bold(node.step()) + "  " + node.type().name());
            indent_ += isLast ? signs_.below : signs_.beside;
            indents_.push_back(indent_.size());
        }
        answers_.add(isCut && !node.children().empty() ? "  ...\n" : "\n");
        drawAttributes(node, isCut || node.children().empty());
    }

    void drawAttributes(Node const& node, bool endsHere) {
        std::vector<std::string> texts;
        for (StreamAttribute const& attribute : node.table().attributes)
            if (attribute.kind == StreamKind::value)
                texts.push_back(attributeName(node.type(), attribute.id) + " = " +
                                shortened(valueText(storedValue(node.entity(), attribute)), mostOfValue));
        eachItem(node, [&](StreamAttribute const& collection, std::string const& key, Vel::GenericValue const& item) {
            texts.push_back(stepText(node.type(), collection, key) + " = " + shortened(valueText(item), mostOfValue));
        });
        for (auto const& [name, target] : referencesOf(place_.tree(), node))
            texts.emplace_back(name).append(target == "None" ? " = " : " -> ").append(target);
        for (std::size_t i = 0; i < texts.size(); ++i) {
            bool const isLast = endsHere && i + 1 == texts.size();
            answers_.add(indent_ + (isLast ? signs_.lastBranch : signs_.branch) + texts[i] + "\n");
        }
    }

    Answers& answers_;
    Place const& place_;
    Signs const& signs_;
    std::size_t depth_;
    std::string indent_;
    std::vector<std::size_t> indents_;  // sizes, by level
};

Json jsonOf(EntityTree const& tree, Node const& node) {
    Json attributes = Json::object(), members = Json::array();
    for (StreamAttribute const& attribute : node.table().attributes) {
        std::string const name = attributeName(node.type(), attribute.id);
        if (attribute.kind == StreamKind::value) attributes[name] = jsonValue(storedValue(node.entity(), attribute));
        if (attribute.kind == StreamKind::pointer)
            attributes[name] = referenceJson(tree, attribute.target(node.entity()));
    }
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

}  // namespace

int runList(ListOptions const& options) {
    Place const place(options);
    if (options.json)
        listJson(place);
    else
        list(place);
    return place.done();
}

int runTree(TreeOptions const& options) {
    if (options.json + options.state + options.ascii > 1)
        throw Failure(badUsage, "choose one of --json, --state and --ascii");
    if (options.depth && options.state) throw Failure(badUsage, "--depth goes with a picture only");
    Place const place(options);
    Answers answers;
    if (options.json) {
        std::optional<JsonList> list;
        list.emplace(answers, "\"entities\": ");
        place.each([&](Node const& node) {
            if (!options.depth || node.depth() - place.top().depth() <= *options.depth)
                list->add(jsonOf(place.tree(), node));
        });
        list->closeWith("");
    } else if (options.state) {
        TreeLines lines(answers, false);
        place.each([&](Node const& node) { lines.whole(place.tree(), node, false); });
    } else {
        Drawing(answers, place, options).draw();
    }
    answers.flush();
    return place.done();
}

}  // namespace Tool
