#pragma once

#include "Mox/Cell.h"

#include <optional>
#include <string>
#include <vector>

// Where the answers about a cell come from, for programs that show it, such as `mox cell`. Only the resolvers know the
// order of the sources, so these functions run the resolvers.
namespace Cell {

// A source that has given an answer, or has failed to.
struct Source {
    enum class Kind {
        status,            // the process's Cell::Status, which had cached the answer or had been set to it
        variable,          // the last entry of `asked`
        file,              // the last entry of `asked`
        redundancyStatus,  // the entity at `path`
        modeFiles,         // the last two entries of `asked`: the local file and the peer's
        ownCell,           // the own cell's number, since a mode file could not be opened
        builtIn            // the default, since neither the variable nor the file exists
    };

    // A variable or a file that was asked, and what came back.
    struct Asked {
        bool isVariable = false;
        std::string name;                   // the variable's name, or the file's path
        bool found = false;                 // whether the variable is set, or the file was opened
        std::optional<std::string> text{};  // the variable's value, or the bytes read; empty if the file was not read
        int error = 0;                      // errno of the open or read that failed; 0 if none did
    };

    Kind kind = Kind::status;
    std::string path{};          // of the redundancy status, for that kind
    std::vector<Asked> asked{};  // variables and files in the order in which they were asked
};

// Return the same facts as the functions of these names in Cell.h. Each sets `from` to where its answer comes from, or
// to what failed if it throws.
struct VEL_API Explained {
    static Vel::U32 cellId(Source& from);
    static Vel::U32 activeCellId(Source& from);
    static Vel::String cellType(Source& from);
    static Vel::String product(Source& from);
    static bool electionMgrSupported(Source& from);
    static bool cpuBmcMode(Source& from);
};

}  // namespace Cell
