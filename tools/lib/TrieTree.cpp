#include "tools/lib/TrieTree.h"

#include "tools/lib/Branches.h"

namespace Tool {

namespace {

struct Signs {
    char const *present, *mountPoint, *other;
};
constexpr Signs symbols = {"●", "◆", "○"};
constexpr Signs ascii = {"[x]", "[*]", "[ ]"};

class Drawing {
public:
    Drawing(Answers& answers, bool asciiOnly)
        : answers_(answers), branches_(branches(asciiOnly)), signs_(asciiOnly || !isUtf8() ? ascii : symbols) {}

    void draw(TagTrie const& trie, std::string const& name) {
        answers_.add(bold(name) + "\n");
        drawBelow(trie);
        answers_.add(std::string("\n") + signs_.present + " prefix in the set, a mount point, too   " +
                     signs_.mountPoint + " only a mount point   " + signs_.other + " neither\n");
    }

private:
    void drawBelow(PrefixTrie const& node) {
        auto const children = childrenInOrder(node);
        std::size_t const size = indent_.size();
        for (auto const& child : children) {
            bool const isLast = child == children.back();
            drawNode(*child, isLast);
            indent_ += isLast ? branches_.below : branches_.beside;
            drawBelow(*child);
            indent_.resize(size);
        }
    }
    void drawNode(PrefixTrie const& node, bool isLast) {
        char const* const sign = node.present() ? signs_.present : node.mountPoint() ? signs_.mountPoint : signs_.other;
        std::string const name = shown(node.name());
        answers_.add(indent_ + (isLast ? branches_.lastBranch : branches_.branch) + sign + " " +
                     (node.present() ? bold(name) : name) + tagsBehind(node) + "\n");
    }

    Answers& answers_;
    Branches const& branches_;
    Signs const& signs_;
    std::string indent_;
};

std::string dotQuoted(std::string_view text) {
    std::string quoted;
    for (char const c : text) {
        if (c == '"' || c == '\\') quoted += '\\';
        quoted += c;
    }
    return quoted;
}

}  // namespace

void drawTree(Answers& answers, TagTrie const& trie, std::string const& name, bool asciiOnly) {
    Drawing(answers, asciiOnly).draw(trie, name);
}

void writeDot(Answers& answers, TagTrie const& trie, std::string const& name) {
    answers.add("// filled: prefixes in the set; two frames: only mount points; dashed: neither\n"
                "digraph trie {\n  rankdir=LR;\n  node [shape=box, fontname=monospace];\n"
                "  n0 [label=\"" +
                dotQuoted(name) + "\", shape=plaintext];\n");
    std::vector<std::size_t> way{0};  // numbers of the nodes above the current one
    std::size_t nodes = 0;
    walk(trie, [&](PrefixTrie const& node, std::string const&, std::size_t level) {
        way.resize(level);
        std::string const number = "n" + std::to_string(++nodes);
        std::string const tags = tagsOf(node).empty() ? "" : "\\n" + dotQuoted(tagText(node));
        char const* const style = node.present()      ? ", style=filled"
                                  : node.mountPoint() ? ", peripheries=2"
                                                      : ", style=dashed";
        answers.add("  " + number + " [label=\"" + dotQuoted(shown(node.name())) + tags + "\"" + style + "];\n  n" +
                    std::to_string(way.back()) + " -> " + number + ";\n");
        way.push_back(nodes);
    });
    answers.add("}\n");
}

void writeTreeJson(Answers& answers, TagTrie const& trie, std::uint64_t bad) {
    JsonList list(answers, "\"nodes\": ");
    walk(trie, [&](PrefixTrie const& node, std::string const& path, std::size_t level) {
        Json item = jsonOf(node, path);
        item["key"] = node.name().view();
        item["level"] = level;
        list.add(item);
    });
    list.close(bad);
}

}  // namespace Tool
