#include "tools/Commands.h"
#include "tools/lib/Names.h"
#include "tools/lib/TrieDifference.h"
#include "tools/lib/TrieFile.h"
#include "tools/lib/TrieTree.h"

#include <algorithm>
#include <optional>

namespace Tool {

namespace {

constexpr char help[] =
    R"~(Answers from a set of path prefixes with tags, which everything below a prefix inherits. A file holds one path on each
line, perhaps with tags behind it; blank lines and lines that begin with # are skipped:

  site {north}                a prefix, with a tag
  site/rack1.port7 {10g,lab}  one below it: its tags are {10g,lab,north}
  tap*/rack2                  the star marks "tap" as a mount point, without making it a prefix

A path is cut into components before each / and . but a leading one: site, /rack1, .port7. A star is no wildcard; the last
component is a mount point without one. Paths have no blanks and at most 4096 components, tags no blanks and braces.

Commands:
  has PATH...        whether the path, or one that encloses it, is in the set
  enclosing PATH...  the longest prefix in the set that encloses the path, or is it; - for none
  proper PATH...     the longest one that is shorter than the path
  leaf PATH...       whether the path has a node with nothing below it
  state PATH...      the tags of that very prefix, - when it is not in the set
  tree               drawn; --ascii without line characters, --dot for Graphviz
  append OTHER       the trie merged with that of the file OTHER, as such a file
  diff OTHER         lines with - for what is only in FILE, + only in OTHER, ~ different tags
  (none)             how many prefixes, mount points, nodes and levels

Examples:
  mox trie paths.txt tree
  mox trie paths.txt has site/rack9 && echo yes     exit code 0 when it is, 1 when not
  mox trie paths.txt enclosing a/b a/c              PATH ANSWER on a line for each
  cut -d' ' -f1 log | mox trie paths.txt has -      paths on standard input
  mox trie paths.txt tree --dot | dot -Tsvg >paths.svg
  mox trie old.txt append new.txt >all.txt
  mox trie old.txt diff new.txt --json

Exit code 1: an answer is False or -, the files differ, or lines were bad, which are left out; the first 20 are shown on
standard error, more are counted. A file has at most 256 MiB.
Exit code 2: the command line is wrong, or a file cannot be read. Paths that begin with a dash go behind --.)~";

struct Options {
    std::string file;                    // "-" means standard input
    std::string command;                 // empty means to print the counts only
    std::vector<std::string> arguments;  // paths, or the second file
    bool ascii = false;
    bool dot = false;
    bool json = false;
};

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
    return {true, cleaned(prefix.view()), {{"answer", prefix.view()}, {"tags", tagList(tags)}}};
}
Answer stateOrNone(TagTrie const& trie, std::string_view path) {
    auto const state = trie.prefixState(path);
    if (!state) return {false, "-", {{"answer", nullptr}}};
    return {
        true, cleaned(state->outputForm().view()), {{"answer", tagList(Vel::ptr_cast<Tags::TagState>(state)->tags())}}};
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

// Prints the answers one by one, since there may be many. For a single path prints only the answer, for several "PATH
// ANSWER" for each.
class Asking {
public:
    Asking(Answers& answers, TagTrie const& trie, Question question, bool json, bool isOnly)
        : answers_(answers), trie_(trie), question_(question), json_(json), isOnly_(isOnly) {}

    void ask(std::string_view path, JsonList* list) {
        Answer answer = question_(trie_, uncleaned(path));
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

// --- commands ---

std::vector<std::string> const commands = {"has", "enclosing", "proper", "leaf", "state", "tree", "append", "diff"};

class Run {
public:
    explicit Run(Options const& options) : options_(options) {}

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
        drawTree(answers_, *trie_, name_, options_.ascii);
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
                writeDifference(answers_, *here, *trie_, name_, otherInput.name(), bad_, options_.json);
            return done(!isDifferent);
        }
        here->append(trie_);
        writeLines(*here);
        return done();
    }

    // Writes a file that makes the same trie. Only a mount point that is not in the set needs a star, since a prefix in
    // the set is a mount point anyway.
    void writeLines(TagTrie const& trie) {
        std::optional<JsonList> list;
        if (options_.json) list.emplace(answers_, "\"prefixes\": ");
        auto const star = [](PrefixTrie const& node) { return isMountPointOnly(node) ? "*" : ""; };
        walk(trie, star, [&](PrefixTrie const& node, std::string const& path, std::size_t) {
            if (!node.present()) return;
            if (list)
                list->add({{"path", path}, {"tags", tagList(tagsOf(node))}});
            else  // a blank before "#", or the line would be a comment
                answers_.add((path.starts_with('#') ? " " : "") + cleaned(path) + tagsBehind(node) + "\n");
        });
        if (list) list->close(bad_);
    }

    Options const& options_;
    std::string name_;
    Ptr<TagTrie> trie_;
    std::uint64_t bad_ = 0;  // number of bad lines
    Answers answers_;
};

class TrieCommand final : public Command {
public:
    explicit TrieCommand(CLI::App& app) : Command(app, "trie", "What a set of path prefixes says of a path", help) {
        argument("FILE", options_.file, "Paths, one a line; - for standard input");
        argument("COMMAND", options_.command, "What to do, as below");
        argument("ARGUMENTS", options_.arguments, "Paths, or - for those on standard input; another FILE");
        flag("--ascii", options_.ascii, "tree: draw in ASCII, as where the locale is not UTF-8");
        flag("--dot", options_.dot, "tree: for Graphviz");
        flag("--json", options_.json, "Answer in JSON");
    }

    // Returns somethingWrong if lines are bad, if an answer is no, or if the tries differ.
    int run() override { return Run(options_).run(); }

private:
    Options options_;
};

}  // namespace

std::unique_ptr<Command> makeTrie(CLI::App& app) { return std::make_unique<TrieCommand>(app); }

}  // namespace Tool
