#pragma once

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

// Loads libraries of further types. Returns the exit code: a library that brings no types is worth a warning.
int loadModules(std::vector<std::string> const& paths);

}  // namespace Tool
