#pragma once

#include "Mox/CellSource.h"

#include <cstddef>
#include <string_view>

// The facts of a cell, read from its variables, files and defaults anew on each call. Each function that takes `from`
// sets it, unless it is null, to where the answer comes from.
namespace Cell {

unsigned Cell_cellId(Source* from = nullptr);
Vel::String Cell_cellType(Source* from = nullptr);
Vel::String Cell_product(Source* from = nullptr);
bool Cell_electionMgrSupported(Source* from = nullptr);
bool Cell_cpuBmcMode(Source* from = nullptr);

// Returns the value of an environment variable, or null if it is not set. A variable is the first source that is asked,
// so the function clears what `from` had.
char const* variable(char const* name, Source* from);

// A file that is read once, and closed at the end.
class File {
public:
    // Opens the file. Adds it to `from->asked`, unless `from` is null.
    File(char const* path, Source* from);
    File(File const&) = delete;
    File& operator=(File const&) = delete;
    ~File();

    bool isOpen() const { return file_ >= 0; }
    int openError() const { return error_; }

    static constexpr std::size_t maxText = 32;  // most bytes that are read
    struct Text {
        char bytes[maxText + 1];  // ends with a NUL
        std::size_t size;         // without that NUL
        std::string_view untilNul() const { return bytes; }
    };
    // Returns what one read(2) gives. Throws Vel::ErrnoException. REQUIRES: isOpen()
    Text read() const;

private:
    char const* path_;
    int file_;
    int error_;
    Source* from_;
    std::size_t place_ = 0;  // index in from_->asked
};

}  // namespace Cell
