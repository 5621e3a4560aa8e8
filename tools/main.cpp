#include "tools/Commands.h"
#include "tools/LiveOptions.h"
#include "tools/lib/Clean.h"
#include "tools/lib/Modules.h"
#include "tools/lib/Names.h"
#include "tools/lib/Output.h"
#include "tools/lib/StandardFiles.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <sstream>

namespace {

using namespace Tool;

constexpr char about[] = "Asks the Mox library: who this machine is, which types there are, what a value looks like as "
                         "text and as bytes, what a "
                         "statistic makes of observations, what sets of ids come to, what a set of path prefixes "
                         "says of a path, what a running server has and how it changes.";

constexpr char examples[] = R"~(Examples:
  mox cell                          which cell this is, which is active, and how we know
  mox types                         all modules and their types
  mox types Cell::Status            one type in full
  mox value --type Mox::Seqno16 7   a value: its attributes, its bytes, its hash
  mox stat CountStat counts.txt     a statistic of the observations in a file
  mox idset '(1-9) minus (3)'       a set of ids, computed
  mox trie paths.txt has a/b.c      whether a path is below one of the prefixes in a file
  mox serve /tmp/s.sock state.txt   what a file says, to other processes
  mox watch /tmp/s.sock             what a server has, and its changes
  mox get /tmp/s.sock /ql/cell      attributes of an entity at a server; set, ls and tree, too
  mox COMMAND --help                more about one command, with examples

Exit codes: 0 fine; 1 there is an answer, but something is wrong; 2 the command line is wrong.)~";

constexpr char cellHelp[] =
    R"~(Shows this machine's cell id, active cell, cell type, product, election manager support and CPU/BMC mode, each with the
place that its value came from: an environment variable, a file, a redundancy status, the election manager's mode files,
or a default. Values with control characters or blanks at an end are shown as quoted text.

Examples:
  mox cell                            this machine
  CELLID=2 mox cell                   as a process sees it that has this variable
  mox cell --root /mnt/image          as a machine with these files would say
  mox cell --root /mnt/image --no-env the same, whatever the variables here
  mox cell --redundancy-status 1      as if the redundancy service had published cell 1 as active
  mox cell --trace                    with the steps of the resolution on standard error
  mox cell --json | jq .activeCellId  for programs

Each fact, its variable, its file and its default:
  cell id                     CELLID                /etc/cellid               42
  active cell                 ACTIVE_CELLID         redundancy status, mode files, own cell
  cell type                   CELLTYPE              /etc/celltype             generic
  product                     PRODUCT               /etc/product              generic
  election manager supported  ELECTIONMGRSUPPORTED  /etc/electionMgrSupported FALSE
  CPU/BMC mode                CPUBMCMODE            /etc/cpuBmcMode           FALSE
The mode files: /sys/quelto/election_manager/local_redundancy_mode and peer_redundancy_mode, or those that
REDSUPDUT_LOCAL_REDMODE and REDSUPDUT_PEER_REDMODE name, when both are set. Files are taken exactly as they stand: a
trailing newline counts. Exit code 1 when a fact has no answer.)~";

constexpr char typesHelp[] =
    R"~(Lists the modules and their types, or shows one module, or one type with all its attributes.

Examples:
  mox types                                 every module, its fingerprint and its types
  mox types Seqno                           one module
  mox types Mox::Seqno16                    one type: text form, size, operations, attributes
  mox types --json                          everything, for programs
  mox --module ./libmytypes.so types        with the types of one more library

Columns of attributes: id; name; kind (field, derived, constant, setter, method, collection, ...); type, for a collection
"VALUE by KEY", for a method "(parameters) -> result"; the operations that the attribute answers.
Exit code 1 when a module is refused, 2 when there is no such type or module.)~";

constexpr char valueHelp[] =
    R"~(Reads a value from its text form, or from its bytes, and shows what it is: its attributes, its text and byte forms, its
hash, and whether it counts as true.

Examples:
  mox value --type Mox::Seqno16 7               a text that does not name its type
  mox value "Value('TYPE', ** {'count': 3})"    one that does
  mox value --type Vel::String "'two words'"    strings in single quotes, as in Python
  mox value --type Mox::Seqno32 --hex 0000002a  bytes, in hexadecimal; blanks and colons may stand between
  echo 7 | mox value --type U32 -               the text from standard input, without its last newline

A word needs no quotes where a string is meant, and a whole number will do for a double, also inside of records; --verbose
tells what was taken for what. The text of a type: see "text form" in "mox types TYPE". Exit code 1 when text or bytes are not a value of the type.)~";

constexpr char statHelp[] =
    R"~(Feeds a statistic with observations, one on each line of a file or of standard input, and prints what it then holds, as
text. A line is the text form of the value that the statistic's attribute "update" takes ("mox types TYPE" shows which);
blank lines and lines that begin with # are skipped.

Examples:
  mox stat CountStat counts.txt          the statistic at the end; counts.txt holds lines such as
                                         Value('Mox::Count', ** {'count': 3, 'when': 1700000000.125})
  grep eth0 log | mox stat CountStat     observations from standard input
  mox stat CountStat --each counts.txt   the statistic after each observation
  mox stat CountStat --from "Value('Mox::CountStat', ** {'count': 9, 'last': 0.0})" counts.txt
                                         goes on from that statistic
  mox --module ./libmytypes.so stat My::Stat FILE
                                         any type with an attribute "update" will do

A word needs no quotes where a string is meant, and 1 will do for 1.0; --verbose tells what was taken for what.

Bad lines, also those of more than 1 MiB, are left out; the exit code is then 1. The first 20 are shown on standard error,
of more it is told how many there are of which kind; of a file that is compressed or binary only that. JSON: one object
with all fields; with --each, one on each line.)~";

constexpr char idSetHelp[] =
    R"~(Calculates with sets of ids. Operands are range lists such as (1-3,5), in quotes because the shell has its own use for
parentheses; @FILE for a file's ids (the name ends at a blank); - for those on standard input. Each line of a file is a
range list, a range or an id; blank lines and lines that begin with # are skipped.

Operators: or |, and &, minus -, xor ^ between operands, not ~ before one: all ids below the size that it does not hold.
They go from left to right, as on a pocket calculator: (1) or (2) and (3) is ((1) or (2)) and (3). There is no grouping,
since parentheses stand around ids; not belongs to the operand right behind it.

Examples:
  mox idset '(1-9) minus (3,5)'                   (1-2,4,6-9)
  mox idset '(1-9)-(3,5)|(20)'                    the same with signs, and 20 added
  mox idset 'not (0-16000)' --count               how many ids are left
  mox idset @used.txt or @reserved.txt --picture  drawn, 64 ids in a row
  mox idset '(1-9)' --contains 3 && echo yes      exit code 0 when it holds the id, 1 when not
  seq 5 3 20 | mox idset -                        ids on standard input, as a range list
  mox idset '(1-9)' --list | mox idset - xor '(3)'

Ids are below the size (--size, at most 16320: beyond, ids share bits). Exit code 2 for everything wrong with the expression
or the files.)~";

constexpr char trieHelp[] =
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

// A number from 0 to 0xFFFFFFFF, or "none".
std::uint32_t redundancyStatusFrom(std::string const& text) {
    std::uint32_t id = 0xFFFFFFFFu;
    if (text == "none") return id;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
    if (error == std::errc() && end == text.data() + text.size()) return id;
    throw Failure(
        badUsage, "--redundancy-status: " + shown(text) + " is neither a number from 0 to 4294967295 nor none");
}

struct CommandLine {
    CLI::App app{about, "mox"};
    std::vector<std::string> modules;
    bool verbose = false;
    CellOptions cell;
    std::optional<std::string> redundancyStatus;
    TypesOptions types;
    ValueOptions value;
    StatOptions stat;
    IdSetOptions idSet;
    TrieOptions trie;
    LiveOptionsLine live;
    CLI::App* cellCommand = nullptr;
    CLI::App* typesCommand = nullptr;
    CLI::App* valueCommand = nullptr;
    CLI::App* statCommand = nullptr;
    CLI::App* idSetCommand = nullptr;
    CLI::App* trieCommand = nullptr;
    std::vector<CLI::App*> commands;

    CommandLine() {
        app.footer(examples);
        app.require_subcommand(1);
        app.get_formatter()->column_width(32);
        app.set_version_flag("--version", "mox " MOX_VERSION, "Show the version and leave");
        // One library a time, so that the command's name is not taken for another.
        app.add_option("--module", modules, "Load a shared library of further types first; may be given several times")
            ->type_name("LIB.so")
            ->take_all()
            ->expected(1)
            ->allow_extra_args(false);
        app.add_flag("--verbose", verbose, "Tell what a value was taken for that is not in its type's own text form");
        addCell();
        addTypes();
        addValue();
        addStat();
        addIdSet();
        addTrie();
        live.addTo(app);
        commands = {cellCommand, typesCommand, valueCommand, statCommand, idSetCommand, trieCommand};
        commands.insert(commands.end(), live.commands().begin(), live.commands().end());
        app.set_help_flag("-h,--help", "Show this and leave");
        for (CLI::App* const command : commands) command->set_help_flag("-h,--help", "Show this and leave");
    }

    void addCell() {
        cellCommand = app.add_subcommand("cell", "Who this machine is, and where we know it from")
                          ->footer(cellHelp)
                          ->fallthrough();
        cellCommand->add_option("--root", cell.root, "Look for all files below this folder")->type_name("DIR");
        cellCommand->add_flag("--no-env", cell.noEnvironment, "Take the environment's variables as unset");
        cellCommand->add_option("--system", cell.system, "System name of the activity manager (default: ql)")
            ->type_name("NAME");
        cellCommand
            ->add_option("--redundancy-status", redundancyStatus,
                "Publish a redundancy status with this active cell first; none: not known")
            ->type_name("ID|none");
        cellCommand->add_flag("--trace", cell.trace, "Trace the resolution to standard error, as VELTRACE=Cell/0 does");
        cellCommand->add_flag("--json", cell.json, "Answer in JSON");
    }

    void addTypes() {
        typesCommand =
            app.add_subcommand("types", "Which types there are, and all about one")->footer(typesHelp)->fallthrough();
        typesCommand->add_option("NAME", types.name, "A type or a module; default: all")->type_name("");
        typesCommand->add_flag("--json", types.json, "Answer in JSON");
    }

    void addValue() {
        valueCommand = app.add_subcommand("value", "A value from its text or bytes: all its forms")
                           ->footer(valueHelp)
                           ->fallthrough();
        valueCommand->add_option("TEXT", value.text, "The value's text form; - for standard input")->type_name("");
        valueCommand->add_option("--type", value.type, "The value's type, when the text does not name it")
            ->type_name("TYPE");
        valueCommand->add_option("--hex", value.hex, "The value's bytes instead of a text; - for standard input")
            ->type_name("BYTES");
        valueCommand->add_flag("--json", value.json, "Answer in JSON");
    }

    void addStat() {
        statCommand =
            app.add_subcommand("stat", "A statistic of the observations in a file")->footer(statHelp)->fallthrough();
        statCommand->add_option("TYPE", stat.type, "The statistic's type; \"Mox::\" may be left out")->type_name("");
        statCommand->add_option("FILE", stat.file, "Observations, one a line; default: standard input, as -")
            ->type_name("");
        statCommand->add_option("--from", stat.from, "Text of the statistic to begin with")->type_name("TEXT");
        statCommand->add_flag("--each", stat.each, "Answer after each observation, not only at the end");
        statCommand->add_flag("--json", stat.json, "Answer in JSON");
    }

    void addIdSet() {
        idSetCommand = app.add_subcommand("idset", "A calculator on sets of ids: (1-9) minus (3,5)")
                           ->footer(idSetHelp)
                           ->fallthrough();
        idSetCommand->add_option("EXPRESSION", idSet.expression, "Operands and operators, best in one pair of quotes")
            ->type_name("");
        idSetCommand->add_option("--size", idSet.size, "Ids are below this (default: 16320)")->type_name("N");
        idSetCommand->add_flag("--count", idSet.count, "Answer with the number of ids");
        idSetCommand->add_option("--contains", idSet.contains, "Answer whether it holds the id: exit code 0 or 1")
            ->type_name("ID");
        idSetCommand->add_flag("--list", idSet.list, "Answer with one id a line");
        idSetCommand->add_flag("--picture", idSet.picture, "Draw it");
        idSetCommand->add_flag("--json", idSet.json, "Answer in JSON");
    }

    void addTrie() {
        trieCommand =
            app.add_subcommand("trie", "What a set of path prefixes says of a path")->footer(trieHelp)->fallthrough();
        trieCommand->add_option("FILE", trie.file, "Paths, one a line; - for standard input")->type_name("");
        trieCommand->add_option("COMMAND", trie.command, "What to do, as below")->type_name("");
        trieCommand->add_option("ARGUMENTS", trie.arguments, "Paths, or - for those on standard input; another FILE")
            ->type_name("");
        trieCommand->add_flag("--ascii", trie.ascii, "tree: draw in ASCII, as where the locale is not UTF-8");
        trieCommand->add_flag("--dot", trie.dot, "tree: for Graphviz");
        trieCommand->add_flag("--json", trie.json, "Answer in JSON");
    }

    int run() {
        int const code = loadModules(modules);
        return std::max(code, runCommand());
    }

    int runCommand() {
        if (typesCommand->parsed()) return runTypes(types);
        if (valueCommand->parsed()) return runValue(value);
        if (statCommand->parsed()) return runStat(stat);
        if (idSetCommand->parsed()) return runIdSet(idSet);
        if (trieCommand->parsed()) return runTrie(trie);
        if (int code = fine; live.run(code)) return code;
        if (redundancyStatus) cell.redundancyStatus = redundancyStatusFrom(*redundancyStatus);
        return runCell(cell);
    }

    std::string missingCommand() const {
        std::vector<std::string> names;
        for (CLI::App const* const command : commands) names.push_back(command->get_name());
        auto const rest = app.remaining();
        if (rest.empty()) return "say what to do: " + joined(names, ", ") + "; " + helpHint();
        auto const near = nearest(rest[0], names);
        return "there is no command " + shortened(shown(rest[0]), 80) +
               (near.empty() ? ", only " + joined(names, ", ") : "; did you mean " + alternatives(near) + "?") + "; " +
               helpHint();
    }

    CLI::App const* given() const {
        for (CLI::App const* const command : commands)
            if (command->parsed()) return command;
        return nullptr;
    }
    std::string helpHint() const {
        return given() ? "see \"mox " + given()->get_name() + " --help\"" : "see \"mox --help\"";
    }
};

// CLI11 takes an argument such as "[a]" for a list of which the brackets are no part, but a path is a path: until it is
// parsed, a byte behind it says so, which no argument has otherwise a use for.
constexpr char isNoList = '\n';

std::vector<std::string> argumentsFrom(int argc, char** argv) {
    std::vector<std::string> arguments;
    static constexpr std::string_view takePaths[] = {"trie", "serve", "watch", "mount", "get", "set", "ls", "tree"};
    bool takesPaths = false;
    for (int i = 1; i < argc; ++i) {
        std::string argument = argv[i];
        if (takesPaths && argument.starts_with('[') && argument.ends_with(']')) argument += isNoList;
        takesPaths =
            takesPaths || std::find(std::begin(takePaths), std::end(takePaths), argument) != std::end(takePaths);
        arguments.push_back(std::move(argument));
    }
    std::reverse(arguments.begin(), arguments.end());  // as CLI11 wants them
    return arguments;
}

void unmark(std::string& argument) {
    if (argument.starts_with('[') && argument.ends_with(isNoList)) argument.pop_back();
}

int parseAndRun(CommandLine& line, int argc, char** argv) {
    try {
        line.app.parse(argumentsFrom(argc, argv));
        verboseIs(line.verbose);
        unmark(line.trie.file);
        for (std::string& argument : line.trie.arguments) unmark(argument);
        for (std::string* const argument : line.live.texts()) unmark(*argument);
        return line.run();
    } catch (CLI::Success const& request) {  // --help, --version
        std::ostringstream answer, nothing;
        int const code = line.app.exit(request, answer, nothing);
        print(answer.str());
        return code;
    } catch (CLI::RequiredError const& error) {
        complain(line.given() ? cleaned(error.what()) + "; " + line.helpHint() : line.missingCommand());
        return badUsage;
    } catch (CLI::ParseError const& error) {
        complain(cleaned(error.what()) + "; " + line.helpHint());
        return badUsage;
    }
}

int runMain(int argc, char** argv) {
    CommandLine line;
    try {
        return parseAndRun(line, argc, argv);
    } catch (Failure const& failure) {
        if (*failure.what() != '\0') complain(failure.what());
        return failure.exitCode();
    }
}

}  // namespace

int main(int argc, char** argv) {
    openStandardFiles();
    try {
        return runMain(argc, argv);
    } catch (std::bad_alloc const&) {
        complain("out of memory");
    } catch (std::exception const& error) {
        complain(cleaned(error.what()));
    }
    return somethingWrong;
}
