#pragma once

#include "Mox/Cell.h"

#include <optional>
#include <string>
#include <vector>

// Where the answers about a cell come from. Only the resolvers know in which order the sources are asked; who wants to
// show an answer's source asks here.
namespace Cell {

// A source that has given an answer, or has failed to.
struct Source {
    enum class Kind {
        status,            // the process's Cell::Status, which knew the answer or was told it
        variable,          // the last one asked
        file,              // the last one asked
        redundancyStatus,  // the entity at `path`
        modeFiles,         // the two asked: the local one and the peer's
        ownCell,           // the cell's own number, since a mode file could not be opened
        builtIn            // the default, since nothing that was asked is there
    };

    // A variable or a file that was asked, and what came back.
    struct Asked {
        bool isVariable = false;
        std::string name;                   // of the variable; the path of the file
        bool found = false;                 // the variable is set; the file was opened
        std::optional<std::string> text{};  // the value; the bytes read, nothing when the file was not read
        int error = 0;                      // errno of the open or read that failed; 0: none
    };

    Kind kind = Kind::status;
    std::string path{};          // of a redundancy status
    std::vector<Asked> asked{};  // in this order
};

// The facts as the functions of the same names in Cell.h give them. Each sets `from` to where its answer comes from,
// and when it throws, to what failed.
struct VEL_API Explained {
    static Vel::U32 cellId(Source& from);
    static Vel::U32 activeCellId(Source& from);
    static Vel::String cellType(Source& from);
    static Vel::String product(Source& from);
    static bool electionMgrSupported(Source& from);
    static bool cpuBmcMode(Source& from);
};

}  // namespace Cell
