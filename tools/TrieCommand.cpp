#include "tools/Commands.h"
#include "tools/Names.h"
#include "tools/Output.h"
#include "tools/TrieFile.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include <unistd.h>

namespace Tool {

namespace {

using Mox::PrefixTrie;
using Tags::TagTrie;
using Vel::Ptr;

// --- answers of any length ---

class Answers {
public:
    void add(std::string_view text) {
        text_ += text;
        if (text_.size() >= 65536) flush();
    }
    void flush() {
        print(text_);
        text_.clear();
    }

private:
    std::string text_;
};

// A JSON object with one long list, one item on a line.
class JsonList {
public:
    JsonList(Answers& answers, std::string const& begin) : answers_(answers) { answers_.add("{" + begin + "["); }
    void add(Json const& item) {
        answers_.add(count_++ == 0 ? "\n  " : ",\n  ");
        answers_.add(item.dump(-1, ' ', false, Json::error_handler_t::replace));
    }
    void next(std::string const& begin) {  // one more list
        end();
        answers_.add(", " + begin + "[");
        count_ = 0;
    }
    void close(std::uint64_t bad) {
        end();
        answers_.add(", \"bad\": " + std::to_string(bad) + "}\n");
    }

private:
    void end() { answers_.add(count_ == 0 ? "]" : "\n]"); }

    Answers& answers_;
    std::size_t count_ = 0;
};

// --- nodes ---

Vel::String tagsOf(PrefixTrie const& node) {
    return node.state() ? Vel::ptr_cast<Tags::TagState>(node.state())->tags() : Vel::String();
}
std::string tagText(PrefixTrie const& node) { return "{" + tagsOf(node).stdString() + "}"; }
std::string tagsBehind(PrefixTrie const& node) { return tagsOf(node).empty() ? "" : " " + tagText(node); }

Json tagList(std::string_view tags) {
    Json list = Json::array();
    while (!tags.empty()) {
        auto const comma = std::min(tags.find(','), tags.size());
        list.push_back(tags.substr(0, comma));
        tags.remove_prefix(std::min(comma + 1, tags.size()));
    }
    return list;
}

bool isMountPointOnly(PrefixTrie const& node) { return node.mountPoint() && !node.present(); }
bool isListed(PrefixTrie const& node) { return node.present() || node.mountPoint(); }

std::vector<Ptr<PrefixTrie>> childrenInOrder(PrefixTrie const& node) {
    std::vector<Ptr<PrefixTrie>> children;
    children.reserve(node.children());
    for (auto const& child : node.childMembers()) children.push_back(child);
    std::sort(children.begin(), children.end(), [](auto const& a, auto const& b) { return a->name() < b->name(); });
    return children;
}

// Calls visit(node, path, level) for all that is below `trie`, in order, each before what is below it; a path has
// spell(node) behind the key of each node. No recursion: visiting may need a good deal of the stack.
template <class Spell, class Visit> void walk(PrefixTrie const& trie, Spell spell, Visit const& visit) {
    struct Level {
        std::vector<Ptr<PrefixTrie>> children;
        std::size_t pathSize;  // of their parent
        std::size_t next = 0;
    };
    std::vector<Level> way;
    way.push_back({childrenInOrder(trie), 0});
    for (std::string path; !way.empty();) {
        Level& level = way.back();
        path.resize(level.pathSize);
        if (level.next == level.children.size()) {
            way.pop_back();
            continue;
        }
        PrefixTrie const& child = *level.children[level.next++];
        path += child.name().view();
        path += spell(child);
        visit(child, path, way.size());
        way.push_back({childrenInOrder(child), path.size()});
    }
}
template <class Visit> void walk(PrefixTrie const& trie, Visit const& visit) {
    walk(
        trie, [](PrefixTrie const&) { return ""; }, visit);
}

// --- the drawing ---

bool isUtf8() {
    for (char const* const variable : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        char const* const value = std::getenv(variable);
        if (!value || !*value) continue;
        std::string name(value);
        for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return name.find("utf-8") != std::string::npos || name.find("utf8") != std::string::npos;
    }
    return false;
}

struct Signs {
    char const *branch, *lastBranch, *beside, *below;
    char const *present, *mountPoint, *other;
};
constexpr Signs lines = {"├─ ", "└─ ", "│  ", "   ", "●", "◆", "○"};
constexpr Signs ascii = {"|-- ", "`-- ", "|   ", "    ", "[x]", "[*]", "[ ]"};

class Drawing {
public:
    Drawing(Answers& answers, Signs const& signs) : answers_(answers), signs_(signs) {}

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
            indent_ += isLast ? signs_.below : signs_.beside;
            drawBelow(*child);
            indent_.resize(size);
        }
    }
    void drawNode(PrefixTrie const& node, bool isLast) {
        char const* const sign = node.present() ? signs_.present : node.mountPoint() ? signs_.mountPoint : signs_.other;
        std::string const name = shown(node.name());
        answers_.add(indent_ + (isLast ? signs_.lastBranch : signs_.branch) + sign + " " +
                     (node.present() ? bold(name) : name) + tagsBehind(node) + "\n");
    }

    Answers& answers_;
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

void writeDot(Answers& answers, TagTrie const& trie, std::string const& name) {
    answers.add("// filled: prefixes in the set; two frames: only mount points; dashed: neither\n"
                "digraph trie {\n  rankdir=LR;\n  node [shape=box, fontname=monospace];\n"
                "  n0 [label=\"" +
                dotQuoted(name) + "\", shape=plaintext];\n");
    std::vector<std::size_t> way{0};  // the numbers of the nodes above
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

Json jsonOf(PrefixTrie const& node, std::string const& path) {
    return {{"path", path}, {"present", node.present()}, {"mountPoint", node.mountPoint()},
        {"tags", tagList(tagsOf(node))}};
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

// --- questions about paths ---

struct Answer {
    bool isYes;
    std::string text;
    Json json;  // without the path
};
using Question = Answer (*)(TagTrie const&, std::string_view path);

Answer yesOrNo(bool yes) { return {yes, yes ? "True" : "False", {{"answer", yes}}}; }
Answer prefixOrNone(TagTrie const& trie, Vel::String const& prefix) {
    if (prefix.empty()) return {false, "-", {{"answer", nullptr}, {"tags", Json::array()}}};
    auto const tags = trie.tagsOf(prefix);
    return {true, prefix.stdString(), {{"answer", prefix.view()}, {"tags", tagList(tags)}}};
}
Answer stateOrNone(TagTrie const& trie, std::string_view path) {
    auto const state = trie.prefixState(path);
    if (!state) return {false, "-", {{"answer", nullptr}}};
    return {true, state->outputForm().stdString(), {{"answer", tagList(Vel::ptr_cast<Tags::TagState>(state)->tags())}}};
}

constexpr std::pair<std::string_view, Question> questions[] = {
    {"has", [](TagTrie const& trie, std::string_view path) { return yesOrNo(trie.hasPrefix(path)); }},
    {"enclosing",
        [](TagTrie const& trie, std::string_view path) { return prefixOrNone(trie, trie.enclosingPrefix(path)); }},
    {"proper", [](TagTrie const& trie,
                   std::string_view path) { return prefixOrNone(trie, trie.properEnclosingPrefix(path)); }},
    {"leaf", [](TagTrie const& trie, std::string_view path) { return yesOrNo(trie.isLeaf(path)); }},
    {"state", stateOrNone},
};

// Answers as they come, since there may be many: to a single path its answer only, else "PATH ANSWER" for each.
class Asking {
public:
    Asking(Answers& answers, TagTrie const& trie, Question question, bool json, bool isOnly)
        : answers_(answers), trie_(trie), question_(question), json_(json), isOnly_(isOnly) {}

    void ask(std::string_view path, JsonList* list) {
        Answer answer = question_(trie_, path);
        isYes_ = isYes_ && answer.isYes;
        if (json_) {
            Json item{{"path", path}};
            item.update(answer.json);
            list->add(item);
        } else {
            answers_.add(isOnly_ ? answer.text + "\n" : shown(path) + " " + answer.text + "\n");
        }
    }
    bool isYes() const { return isYes_; }

private:
    Answers& answers_;
    TagTrie const& trie_;
    Question question_;
    bool json_, isOnly_;
    bool isYes_ = true;
};

// --- differences ---

class Difference {
public:
    Difference(Answers& answers, bool json) : answers_(answers), json_(json) {}

    bool write(TagTrie const& here, TagTrie const& there, std::string const& hereName, std::string const& thereName,
        std::uint64_t bad) {
        names_ = red("--- " + hereName) + "\n" + green("+++ " + thereName) + "\n";
        compareAll(here, there);
        if (json_) {
            JsonList list(answers_, "\"onlyHere\": ");
            for (Json const& item : onlyHere_) list.add(item);
            list.next("\"onlyThere\": ");
            for (Json const& item : onlyThere_) list.add(item);
            list.next("\"different\": ");
            for (Json const& item : different_) list.add(item);
            list.close(bad);
        }
        return found_;
    }

private:
    // As walk, through both at once; one of them may end before the other.
    struct Level {
        std::vector<Ptr<PrefixTrie>> left, right;
        std::size_t pathSize;
        std::size_t l = 0, r = 0;

        Level(PrefixTrie const* here, PrefixTrie const* there, std::size_t size) : pathSize(size) {
            if (here) left = childrenInOrder(*here);
            if (there) right = childrenInOrder(*there);
        }
        bool isDone() const { return l == left.size() && r == right.size(); }
        // The next two with the same key, or one and null.
        std::pair<PrefixTrie const*, PrefixTrie const*> next() {
            bool const takeLeft = r == right.size() || (l < left.size() && left[l]->name() <= right[r]->name());
            bool const takeRight = l == left.size() || (r < right.size() && right[r]->name() <= left[l]->name());
            return {takeLeft ? left[l++].get() : nullptr, takeRight ? right[r++].get() : nullptr};
        }
    };
    void compareAll(TagTrie const& here, TagTrie const& there) {
        std::vector<Level> way;
        way.emplace_back(&here, &there, 0);
        while (!way.empty()) {
            path_.resize(way.back().pathSize);
            if (way.back().isDone()) {
                way.pop_back();
                continue;
            }
            auto const [a, b] = way.back().next();
            path_ += (a ? a : b)->name().view();
            compare(a && isListed(*a) ? a : nullptr, b && isListed(*b) ? b : nullptr);
            way.emplace_back(a, b, path_.size());
        }
    }

    void compare(PrefixTrie const* here, PrefixTrie const* there) {
        if (!here && !there) return;
        if (here && there && here->present() == there->present() && here->mountPoint() == there->mountPoint() &&
            (!here->present() || here->state() == there->state() || tagText(*here) == tagText(*there)))
            return;
        if (!found_ && !json_) answers_.add(names_);
        found_ = true;
        if (json_)
            keep(here, there);
        else if (!there)
            answers_.add(red("- " + listed(*here)) + "\n");
        else if (!here)
            answers_.add(green("+ " + listed(*there)) + "\n");
        else
            answers_.add("~ " + path_ + " " + what(*here) + " -> " + what(*there) + "\n");
    }
    std::string listed(PrefixTrie const& node) const { return path_ + (node.present() ? tagsBehind(node) : "*"); }
    static std::string what(PrefixTrie const& node) { return node.present() ? tagText(node) : "*"; }

    void keep(PrefixTrie const* here, PrefixTrie const* there) {
        if (!there || !here) return (there ? onlyThere_ : onlyHere_).push_back(jsonOf(there ? *there : *here, path_));
        Json left = jsonOf(*here, path_), right = jsonOf(*there, path_);
        left.erase("path");
        right.erase("path");
        different_.push_back({{"path", path_}, {"here", left}, {"there", right}});
    }

    Answers& answers_;
    bool json_;
    bool found_ = false;
    std::string names_, path_;
    std::vector<Json> onlyHere_, onlyThere_, different_;
};

// --- commands ---

std::vector<std::string> const commands = {"has", "enclosing", "proper", "leaf", "state", "tree", "append", "diff"};

class Command {
public:
    explicit Command(TrieOptions const& options) : options_(options) {}

    int run() {
        check();
        auto const* const question = std::find_if(std::begin(questions), std::end(questions),
            [&](auto const& entry) { return entry.first == options_.command; });
        Input input(options_.file);
        name_ = input.name();
        if (options_.command == "append" || options_.command == "diff") return runWithOther(input);
        load(input);
        if (question != std::end(questions)) return ask(*question);
        if (options_.command == "tree")
            tree();
        else
            summary();
        return done();
    }

private:
    void check() const {
        std::string const help = "; see \"mox trie --help\"";
        std::string const& command = options_.command;
        if (options_.file.empty())
            throw Failure(badUsage, "say which file holds the paths, or - for standard input" + help);
        if (!command.empty() && std::find(commands.begin(), commands.end(), command) == commands.end()) {
            bool const isSwapped = std::find(commands.begin(), commands.end(), options_.file) != commands.end();
            auto const near = nearest(command, commands);
            throw Failure(badUsage, "there is no command " + shortened(shown(command), 80) + ", only " +
                                        joined(commands, ", ") +
                                        (isSwapped         ? "; the file comes first: mox trie FILE " + options_.file
                                            : near.empty() ? help
                                                           : "; did you mean " + alternatives(near) + "?"));
        }
        std::size_t const count = options_.arguments.size();
        std::string const example = "mox trie " + shown(options_.file) + " " + command;
        bool const takesOther = command == "append" || command == "diff";
        bool const takesNothing = command.empty() || command == "tree";
        if (takesOther && count != 1) throw Failure(badUsage, command + " takes one more file: " + example + " OTHER");
        if (takesNothing && count != 0) throw Failure(badUsage, command + " takes no paths: " + example);
        if (!takesOther && !takesNothing && count == 0)
            throw Failure(
                badUsage, command + " takes paths, or - for those on standard input: " + example + " PATH...");
        if (count == 1 && options_.arguments[0] == "-" && options_.file == "-")
            throw Failure(badUsage, "standard input can be read only once");
        if (options_.json + options_.dot + options_.ascii > 1)
            throw Failure(badUsage, "choose one of --json, --dot and --ascii");
        if ((options_.dot || options_.ascii) && command != "tree")
            throw Failure(
                badUsage, std::string(options_.dot ? "--dot" : "--ascii") + " goes with the command tree only");
    }

    void load(Input& input) {
        TrieFile file = readTrie(input);
        trie_ = file.trie;
        bad_ += file.rejected;
    }
    int done(bool isYes = true) {
        answers_.flush();
        return isYes && bad_ == 0 ? fine : somethingWrong;
    }

    void summary() {
        std::size_t nodes = 0, prefixes = 0, mountPoints = 0, levels = 0;
        walk(*trie_, [&](PrefixTrie const& node, std::string const&, std::size_t level) {
            ++nodes;
            prefixes += node.present();
            mountPoints += node.mountPoint();
            levels = std::max(levels, level);
        });
        if (options_.json)
            return answers_.add(jsonText({{"prefixes", prefixes}, {"mountPoints", mountPoints}, {"nodes", nodes},
                {"levels", levels}, {"bad", bad_}}));
        Table table;
        table.add({bold("prefixes"), std::to_string(prefixes)});
        table.add({bold("mount points"), std::to_string(mountPoints)});
        table.add({bold("nodes"), std::to_string(nodes)});
        table.add({bold("levels"), std::to_string(levels)});
        answers_.add(table.text());
    }

    void tree() {
        if (options_.json) return writeTreeJson(answers_, *trie_, bad_);
        if (options_.dot) return writeDot(answers_, *trie_, name_);
        Drawing(answers_, options_.ascii || !isUtf8() ? ascii : lines).draw(*trie_, name_);
    }

    int ask(std::pair<std::string_view, Question> const& question) {
        bool const fromInput = options_.arguments.size() == 1 && options_.arguments[0] == "-";
        Asking asking(answers_, *trie_, question.second, options_.json, !fromInput && options_.arguments.size() == 1);
        std::optional<JsonList> list;
        if (options_.json)
            list.emplace(answers_, "\"command\": \"" + std::string(question.first) + "\", \"answers\": ");
        JsonList* const to = list ? &*list : nullptr;
        if (fromInput) {
            Input input("-");
            LineReader reader(input, [this] { answers_.flush(); });
            while (reader.next())
                if (!reader.isBlank()) asking.ask(withoutMargins(reader.text()), to);
        } else {
            for (std::string const& path : options_.arguments) asking.ask(path, to);
        }
        if (list) list->close(bad_);
        return done(asking.isYes());
    }

    int runWithOther(Input& input) {
        Input otherInput(options_.arguments[0]);
        load(input);
        auto const here = trie_;
        load(otherInput);
        if (options_.command == "diff") {
            bool const isDifferent =
                Difference(answers_, options_.json).write(*here, *trie_, name_, otherInput.name(), bad_);
            return done(!isDifferent);
        }
        here->append(trie_);
        writeLines(*here);
        return done();
    }

    // As a file that makes the same trie. What is in the set is a mount point without a star.
    void writeLines(TagTrie const& trie) {
        std::optional<JsonList> list;
        if (options_.json) list.emplace(answers_, "\"prefixes\": ");
        auto const star = [](PrefixTrie const& node) { return isMountPointOnly(node) ? "*" : ""; };
        walk(trie, star, [&](PrefixTrie const& node, std::string const& path, std::size_t) {
            if (!node.present()) return;
            if (list)
                list->add({{"path", path}, {"tags", tagList(tagsOf(node))}});
            else  // a line that begins with # is a comment
                answers_.add((path.starts_with('#') ? " " : "") + path + tagsBehind(node) + "\n");
        });
        if (list) list->close(bad_);
    }

    TrieOptions const& options_;
    std::string name_;
    Ptr<TagTrie> trie_;
    std::uint64_t bad_ = 0;  // lines
    Answers answers_;
};

}  // namespace

int runTrie(TrieOptions const& options) { return Command(options).run(); }

}  // namespace Tool
