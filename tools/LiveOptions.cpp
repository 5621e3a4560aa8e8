#include "tools/LiveOptions.h"

#include "tools/lib/Output.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <limits>
#include <optional>

namespace Tool {

namespace {

constexpr char serveHelp[] =
    R"~(Serves a tree of entities to other processes until SIGINT, SIGTERM or SIGHUP. When it can be connected to, it prints
"serving ADDRESS", with the port that was chosen if that was 0.

Addresses:
  unix:/run/mox.sock   a Unix socket; just /run/mox.sock, too. For this user and root, or those that --user names
  tcp:127.0.0.1:7400   loopback only, since nobody is asked who they are; port 0: any that is free
  tls:0.0.0.0:7400     both sides show a certificate that --authority has signed; --user then means its common name

A state file says what there is; "mox tree ADDRESS --state" prints one of a running server:
  # comment
  /ql/cell Cell::Status                  an entity, PATH TYPE; directories above it are made
  /ql/cell product = 'chassis'           a value, PATH ATTRIBUTE = VALUE, as the text of its type; a word needs no
                                         quotes, and 1 is taken for 1.0 where that is meant (--verbose tells)
  /a peer = /b                           a reference to another entity, or None

Examples:
  mox serve /tmp/s.sock state.txt                     what the file says
  mox tree /run/mox.sock --state >state.txt           captured where it runs, to be served elsewhere
  mox serve /tmp/s.sock state.txt --writable          and "mox set" may change it
  mox serve /tmp/s.sock --trie /paths=prefixes.txt    a trie from a file such as "mox trie" reads
  mox serve tcp:127.0.0.1:0 state.txt --user root --user nobody

A state file, and a file of prefixes, has at most 256 MiB. Of its mistakes the first 20 are shown, more are counted.
Exit code 0 after a signal, 1 when it cannot listen, 2 when the command line or a file is wrong.)~";

constexpr char watchHelp[] =
    R"~(Shows what a server has at a path, then every change of it as it happens. When the server goes away it waits for it
to come back; what has changed meanwhile is shown then.

Lines, which up to the mark "# synced" are a state file as "mox serve" takes it; behind it each begins with its time:
  PATH TYPE                     an entity
  PATH ATTRIBUTE = VALUE        a value, or the path of what a reference leads to
  PATH COLLECTION KEY = PATH    an entity in one more collection
  # synced: 7 entities          what was there has been shown; changes follow
  + PATH TYPE                   an entity has appeared; its values follow
  - PATH                        one has gone, with all below it
  - PATH COLLECTION KEY         it has left that collection
  # stale: why                  the connection is lost
  # error: why                  connecting has failed, and is tried again
  # replaced: PATH              there is another entity now; all of it follows

Times, by --time:
  local     2026-11-21 09:05:07.250   this machine's time, to the millisecond (default)
  utc       2026-11-21 08:05:07.250Z
  relative  +12.500                   seconds since the command began
  none

Examples:
  mox watch /run/mox.sock                                all that there is
  mox watch /run/mox.sock /ql/cell                       one part of it
  mox watch /run/mox.sock --until-synced >state.txt      what there is now
  mox watch /run/mox.sock /ql/cell --count 1             leaves after one change
  mox watch /run/mox.sock --time utc | tee changes.log   to compare with other machines' logs
  mox watch /run/mox.sock --json | jq -c 'select(.event == "set")'
  mox --module ./libmytypes.so watch ADDRESS             with types of that library

JSON: one object a line, with "event": "entity" (path, type), "set" (path, attribute, value or target), "member" (path,
collection, key, target; null: it has left), "gone" (path), "synced" (path, entities), "stale" (path, error), "error"
(error), "replaced" (path). What happens has "time", too, in ISO 8601: 2026-11-21T09:05:07.250+01:00, PT12.500S.

Bytes of a peer or a type that a terminal would obey, such as escape sequences, stand as \xNN in texts, %XX in paths.

Exit code 1 when --timeout ends it before it was synced, or before --count changes.)~";

constexpr char getHelp[] =
    R"~(Asks a server for one attribute of an entity, or for all of them.

Examples:
  mox get /run/mox.sock /ql/cell                 all attributes, with their types
  mox get /run/mox.sock /ql/cell product         one, as the text of its type
  mox get tcp:127.0.0.1:7400 /ql/cell --json

A path has a "/" before each name; "mox ls ADDRESS PATH" lists what is there. In a name, "/" and "%", blanks, control
bytes and what is no UTF-8 stand as %XX. @ATTRIBUTE is the entity that an attribute refers to, @COLLECTION[KEY] a member
of a collection that has no names.
Exit code 1 when there is no such entity or attribute, or no answer.)~";

constexpr char setHelp[] =
    R"~(Changes a value at a server, waits until the change has come back, and prints the value. The text is that of the
attribute's type: "mox types TYPE" shows it. The server must let you: "mox serve" has --writable.

Examples:
  mox set /tmp/s.sock /ql/cell cellId 2
  mox set /tmp/s.sock /ql/cell product chassis           a word; 1 will do for 1.0, too: --verbose says what is taken
  mox set /tmp/s.sock /ql/cell product "'two words'"     other strings in single quotes, as in Python
  mox set /tmp/s.sock /g generation "Value('Mox::Generation', ** {'id': 7, 'valid': True})"

Values that begin with a dash go behind --.
Exit code 1 when the server does not take the value, 2 when the text is no such value.)~";

constexpr char listHelp[] =
    R"~(Lists the entities below one, with their types. The names are those of paths. "-> PATH" is what a reference leads to
that has its place elsewhere.

Examples:
  mox ls /run/mox.sock
  mox ls /run/mox.sock /ql/Zendb/cell)~";

constexpr char treeHelp[] =
    R"~(Draws what a server has, with types and values; long values are shortened.

Examples:
  mox tree /run/mox.sock
  mox tree /run/mox.sock /ql --depth 2          two levels below /ql
  mox tree /run/mox.sock --state >state.txt     all of it as a state file, for "mox serve"
  mox tree /run/mox.sock --json)~";

}  // namespace

CLI::App* LiveOptionsLine::add(
    CLI::App& app, char const* name, char const* what, char const* help, LiveOptions& options) {
    CLI::App* const command = app.add_subcommand(name, what)->footer(help)->fallthrough();
    command->add_option("ADDRESS", options.address, "unix:PATH, tcp:HOST:PORT or tls:HOST:PORT")
        ->type_name("")
        ->required();
    command->add_option("--cert", options.certificate, "tls: this side's certificate")->type_name("FILE");
    command->add_option("--key", options.key, "tls: its key")->type_name("FILE");
    command->add_option("--authority", options.authority, "tls: certificates of who signs the other side's")
        ->type_name("FILE");
    commands_.push_back(command);
    return command;
}

namespace {

void addTimeout(CLI::App* command, LiveOptions& options) {
    command->add_option("--timeout", options.timeout, "Give up when nothing comes for so long (default: 5)")
        ->type_name("S");
    command->add_flag("--json", options.json, "Answer in JSON");
}

// Digits only: the parser's own conversion takes "-1" for the largest number, and cuts what is larger.
template <class N>
void addNumber(CLI::App* command, std::string const& name, std::optional<N>& number, std::string const& what) {
    auto const take = [&number, name](std::string const& text) {
        N value = 0;
        auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (error != std::errc() || end != text.data() + text.size())
            throw Failure(badUsage, name + ": " + shortened(shown(text), 80) + " is no number from 0 to " +
                                        std::to_string(std::numeric_limits<N>::max()));
        number = value;
    };
    command->add_option_function<std::string>(name, take, what)->type_name("N");
}

}  // namespace

void LiveOptionsLine::addServe(CLI::App& app) {
    CLI::App* const command = add(app, "serve", "Serve a tree of entities to other processes", serveHelp, serve_);
    command->add_option("STATE-FILE", serve_.state, "What there is; - for standard input; default: nothing")
        ->type_name("");
    auto const several = [&](char const* name, std::vector<std::string>& texts, char const* what) {
        return command->add_option(name, texts, what)->take_all()->expected(1)->allow_extra_args(false);
    };
    several("--trie", serve_.tries, "Serve a trie, from a file of prefixes; may be given several times")
        ->type_name("PATH=FILE");
    command->add_flag("--writable", serve_.writable, "Let others change values");
    several("--user", serve_.users, "Who may connect, by name or number; may be given several times")
        ->type_name("NAME");
    several("--writer", serve_.writers, "Who may change values; default: all who may connect")->type_name("NAME");
}

void LiveOptionsLine::addWatch(CLI::App& app) {
    CLI::App* const command = add(app, "watch", "Follow what a server has; also: mount", watchHelp, watch_);
    command->alias("mount");
    command->add_option("PATH", watch_.path, "Of the entity to watch, with all below it; default: /")->type_name("");
    addNumber(command, "--count", watch_.count, "Leave after so many changes");
    command->add_flag("--until-synced", watch_.untilSynced, "Leave when all that is there has been shown");
    command->add_option("--timeout", watch_.duration, "Leave after so long")->type_name("S");
    command->add_option("--time", watch_.time, "Of changes: local (default), utc, relative or none")->type_name("FORM");
    command->add_flag("--json", watch_.json, "One JSON object a line");
}

void LiveOptionsLine::addGetAndSet(CLI::App& app) {
    CLI::App* const get = add(app, "get", "Attributes of an entity at a server", getHelp, get_);
    get->add_option("PATH", get_.path, "Of the entity")->type_name("")->required();
    get->add_option("ATTRIBUTE", get_.attribute, "Only this one")->type_name("");
    addTimeout(get, get_);
    CLI::App* const set = add(app, "set", "Change a value at a server", setHelp, set_);
    set->add_option("PATH", set_.path, "Of the entity")->type_name("")->required();
    set->add_option("ATTRIBUTE", set_.attribute, "What to change")->type_name("")->required();
    set->add_option("VALUE", set_.value, "As the text of its type")->type_name("")->required();
    addTimeout(set, set_);
}

void LiveOptionsLine::addTree(CLI::App& app) {
    CLI::App* const list = add(app, "ls", "What there is at a server, and of which types", listHelp, list_);
    list->add_option("PATH", list_.path, "Of the entity; default: /")->type_name("");
    addTimeout(list, list_);
    CLI::App* const tree = add(app, "tree", "A picture of what a server has", treeHelp, tree_);
    tree->add_option("PATH", tree_.path, "Of the entity; default: /")->type_name("");
    tree->add_flag("--ascii", tree_.ascii, "Draw in ASCII, as where the locale is not UTF-8");
    addNumber(tree, "--depth", tree_.depth, "Levels to draw below the first");
    tree->add_flag("--state", tree_.state, "As a state file");
    addTimeout(tree, tree_);
}

void LiveOptionsLine::addTo(CLI::App& app) {
    addServe(app);
    addWatch(app);
    addGetAndSet(app);
    addTree(app);
}

std::vector<std::string*> LiveOptionsLine::texts() {
    std::vector<std::string*> all = {&get_.attribute, &set_.attribute, &set_.value, &serve_.state};
    for (LiveOptions* const options :
        std::initializer_list<LiveOptions*>{&serve_, &watch_, &get_, &set_, &list_, &tree_}) {
        all.push_back(&options->address);
        all.push_back(&options->path);
    }
    return all;
}

bool LiveOptionsLine::run(int& code) const {
    auto const given = [&](char const* name) {
        for (CLI::App const* const command : commands_)
            if (command->get_name() == name) return command->parsed();
        return false;
    };
    if (given("serve"))
        code = runServe(serve_);
    else if (given("watch"))
        code = runWatch(watch_);
    else if (given("get"))
        code = runGet(get_);
    else if (given("set"))
        code = runSet(set_);
    else if (given("ls"))
        code = runList(list_);
    else if (given("tree"))
        code = runTree(tree_);
    else
        return false;
    return true;
}

}  // namespace Tool
