#pragma once

#include "tools/lib/Connection.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// What each subcommand is asked, and its work. Each prints its answer and returns the exit code, or throws Failure.
namespace Tool {

struct CellOptions {
    std::string root;                               // the files are looked for below this folder; empty: "/"
    bool noEnvironment = false;                     // take all variables but those for tracing as unset
    std::string system = "ql";                      // the activity manager's system name
    std::optional<std::uint32_t> redundancyStatus;  // publish a status with this active cell; 0xFFFFFFFF: not known
    bool trace = false;
    bool json = false;
};
int runCell(CellOptions const& options);

struct TypesOptions {
    std::string name;  // of a type or module; empty: all
    bool json = false;
};
int runTypes(TypesOptions const& options);

struct ValueOptions {
    std::optional<std::string> text;  // "-": from standard input
    std::optional<std::string> hex;   // the same
    std::string type;                 // empty: the one that the text names
    bool json = false;
};
int runValue(ValueOptions const& options);

struct StatOptions {
    std::string type;                 // the statistic's, perhaps without its namespace
    std::optional<std::string> file;  // of observations; nothing or "-": standard input
    std::optional<std::string> from;  // text form of the statistic to begin with
    bool each = false;                // answer after each observation, not at the end
    bool json = false;
};
int runStat(StatOptions const& options);

struct IdSetOptions {
    std::vector<std::string> expression;  // its parts, as if blanks stood between them
    std::string size = "16320";
    bool count = false;
    bool list = false;
    bool picture = false;
    std::optional<std::string> contains;
    bool json = false;
};
int runIdSet(IdSetOptions const& options);  // somethingWrong only when the set does not hold the id asked for

struct TrieOptions {
    std::string file;                    // "-": standard input
    std::string command;                 // empty: counts only
    std::vector<std::string> arguments;  // paths, or the other file
    bool ascii = false;
    bool dot = false;
    bool json = false;
};
int runTrie(TrieOptions const& options);  // somethingWrong also when an answer is no, and when tries differ

// What all commands on a server's live state are asked.
struct LiveOptions : ConnectionOptions {
    bool json = false;
};

struct ServeOptions : LiveOptions {
    std::string state;               // file; "-": standard input; empty: none
    std::vector<std::string> tries;  // "PATH=FILE"
    bool writable = false;
    std::vector<std::string> users, writers;
};
int runServe(ServeOptions const& options);  // ends at SIGINT, SIGTERM or SIGHUP

struct WatchOptions : LiveOptions {
    std::optional<std::uint64_t> count;  // of changes
    bool untilSynced = false;
    std::optional<double> duration;  // seconds
    std::string time = "local";      // how times are told: see Moments.h
};
int runWatch(WatchOptions const& options);

struct GetOptions : LiveOptions {
    std::string attribute;  // empty: all
};
int runGet(GetOptions const& options);

struct SetOptions : LiveOptions {
    std::string attribute;
    std::string value;  // text
};
int runSet(SetOptions const& options);

struct ListOptions : LiveOptions {};
int runList(ListOptions const& options);

struct TreeOptions : LiveOptions {
    bool ascii = false;
    bool state = false;                // as a state file
    std::optional<std::size_t> depth;  // levels to draw below the first
};
int runTree(TreeOptions const& options);

}  // namespace Tool
