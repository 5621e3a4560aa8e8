#pragma once

#include "Vel/System.h"

#include <optional>
#include <string>
#include <vector>

// Where an answer came from, told by what was really asked of the system on the way to it.
namespace Tool {

// One question to the world outside the process, and what came back.
struct SourceCall {
    enum class Kind { variable, file };

    SourceCall(Kind k, std::string n) : kind(k), name(std::move(n)) {}

    Kind kind;
    std::string name;                 // of the variable; or the path that was opened
    bool found = false;               // the variable is set; the file was opened
    std::optional<std::string> text;  // the value; the bytes read, nothing when the file was not read
    int error = 0;                    // errno of the open or read that failed; 0 for none
    int file = -1;                    // descriptor, while it is open
};

// Passes the calls on to the system and keeps a record of them. Variables that configure tracing are not recorded:
// no answer depends on them.
class SourceCalls final : public Vel::SystemCalls {
public:
    // `root`: absolute paths are looked up below that folder, symbolic links included; empty for the real root.
    SourceCalls(std::string root, bool noEnvironment);

    std::vector<SourceCall> take();  // the record so far, which begins anew

    char const* getenv(char const* name) override;
    int open(char const* path, int flags) override;
    ssize_t read(int file, void* buffer, std::size_t size) override;
    int close(int file) override;

private:
    std::string root_;
    bool noEnvironment_;
    std::vector<SourceCall> calls_;
};

struct Source {
    enum class Kind { variable, file, redundancyStatus, modeFiles, builtIn };

    Kind kind = Kind::builtIn;
    std::string name;                 // of the variable, file or entity
    std::optional<std::string> text;  // what the variable or file holds
    int error = 0;                    // errno of the file's open or read
    std::string alternative;          // of a file: the variable that would have gone before it
    std::vector<SourceCall> asked;    // of a default: what else could have given the answer; of mode files: these
};

// The source of a fact that a variable, a file or a default gives.
Source sourceOfFact(std::vector<SourceCall> const& calls);

// The source of the active cell. `publishedStatus` is the path of the redundancy status in this process's tree, if any.
Source sourceOfActiveCell(std::vector<SourceCall> const& calls, bool failed, std::string const& publishedStatus);

}  // namespace Tool
