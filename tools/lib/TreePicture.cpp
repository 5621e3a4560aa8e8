#include "tools/lib/TreePicture.h"

#include "tools/lib/Branches.h"
#include "tools/lib/TreeLines.h"
#include "tools/lib/ValueText.h"

namespace Tool {

namespace {

using Node = EntityTree::Node;
using Vel::StreamAttribute;
using Vel::StreamKind;

constexpr std::size_t mostOfValue = 200;  // bytes to which a value is shortened

class Drawing {
public:
    Drawing(Answers& answers, EntityTree const& tree, bool asciiOnly, std::uint64_t depth)
        : answers_(answers), tree_(tree), signs_(branches(asciiOnly)), depth_(depth) {}

    void draw(Node& top) {
        std::size_t const first = top.depth();
        for (Node* node = &top; node;) {
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
        for (auto const& [name, target] : referencesOf(tree_, node))
            texts.emplace_back(name).append(target == "None" ? " = " : " -> ").append(target);
        for (std::size_t i = 0; i < texts.size(); ++i) {
            bool const isLast = endsHere && i + 1 == texts.size();
            answers_.add(indent_ + (isLast ? signs_.lastBranch : signs_.branch) + texts[i] + "\n");
        }
    }

    Answers& answers_;
    EntityTree const& tree_;
    Branches const& signs_;
    std::uint64_t depth_;
    std::string indent_;
    std::vector<std::size_t> indents_;  // size of the indentation at each level
};

}  // namespace

void drawEntities(
    Answers& answers, EntityTree const& tree, Node& top, bool asciiOnly, std::optional<std::uint64_t> depth) {
    Drawing(answers, tree, asciiOnly, depth.value_or(EntityTree::longestPath)).draw(top);
}

}  // namespace Tool
