#include "tools/Commands.h"
#include "tools/lib/Clean.h"
#include "tools/lib/Modules.h"
#include "tools/lib/Names.h"
#include "tools/lib/Output.h"
#include "tools/lib/StandardFiles.h"

#include <CLI/CLI.hpp>

#include <algorithm>
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

class CommandLine {
public:
    CommandLine() {
        app_.footer(examples);
        app_.require_subcommand(1);
        app_.get_formatter()->column_width(32);
        app_.set_version_flag("--version", "mox " MOX_VERSION, "Show the version and leave");
        // Each --module takes one library only, so that the command's name is not parsed as a second one.
        app_.add_option(
                "--module", modules_, "Load a shared library of further types first; may be given several times")
            ->transform(unmarked)
            ->type_name("LIB.so")
            ->take_all()
            ->expected(1)
            ->allow_extra_args(false);
        app_.add_flag("--verbose", verbose_, "Tell what a value was taken for that is not in its type's own text form");
        for (Maker* const make : makers) commands_.push_back(make(app_));
        app_.set_help_flag("-h,--help", "Show this and leave");
        for (auto const& command : commands_) command->line().set_help_flag("-h,--help", "Show this and leave");
    }

    int run(int argc, char** argv) {
        try {
            parse(argc, argv);
            verboseIs(verbose_);
            int const code = loadModules(modules_);
            return std::max(code, given()->run());
        } catch (CLI::Success const& request) {  // --help, --version
            std::ostringstream answer, nothing;
            int const code = app_.exit(request, answer, nothing);
            print(answer.str());
            return code;
        } catch (CLI::RequiredError const& error) {
            complain(given() ? cleaned(unmarked(error.what())) + "; " + helpHint() : missingCommand());
            return badUsage;
        } catch (CLI::ParseError const& error) {
            complain(cleaned(unmarked(error.what())) + "; " + helpHint());
            return badUsage;
        }
    }

private:
    void parse(int argc, char** argv) {
        std::vector<std::string> arguments;
        for (int i = 1; i < argc; ++i) arguments.push_back(markedArgument(argv[i]));
        std::reverse(arguments.begin(), arguments.end());  // CLI11 expects them in reverse order
        app_.parse(std::move(arguments));
    }

    std::string missingCommand() const {
        std::vector<std::string> names;
        for (auto const& command : commands_) names.push_back(command->line().get_name());
        auto const rest = app_.remaining();
        if (rest.empty()) return "say what to do: " + joined(names, ", ") + "; " + helpHint();
        std::string const name = unmarked(rest[0]);
        return "there is no command " + shortened(shown(name), 80) + orNearest(name, names) + "; " + helpHint();
    }

    Command* given() const {
        for (auto const& command : commands_)
            if (command->line().parsed()) return command.get();
        return nullptr;
    }
    std::string helpHint() const {
        return given() ? "see \"mox " + given()->line().get_name() + " --help\"" : "see \"mox --help\"";
    }

    CLI::App app_{about, "mox"};
    std::vector<std::string> modules_;
    bool verbose_ = false;
    std::vector<std::unique_ptr<Command>> commands_;
};

int runMain(int argc, char** argv) {
    try {
        return CommandLine().run(argc, argv);
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
