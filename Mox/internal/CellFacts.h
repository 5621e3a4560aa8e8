#pragma once

#include "Mox/CellSource.h"

#include <cstddef>
#include <string_view>

// The facts of a cell as its variables, files and defaults say them, read anew on each call. Each function that takes a
// `from` sets it to where the answer comes from, unless it is null.
namespace Cell {

unsigned Cell_cellId(Source* from = nullptr);
Vel::String Cell_cellType(Source* from = nullptr);
Vel::String Cell_product(Source* from = nullptr);
bool Cell_electionMgrSupported(Source* from = nullptr);
bool Cell_cpuBmcMode(Source* from = nullptr);

// The value of a variable; null when it is not set. It is the first that is asked: `from` begins anew.
char const* variable(char const* name, Source* from);

// A file that is read once, and closed at the end.
class File {
public:
    // from: told of the file, unless it is null.
    File(char const* path, Source* from);
    File(File const&) = delete;
    File& operator=(File const&) = delete;
    ~File();

    bool isOpen() const { return file_ >= 0; }
    int openError() const { return error_; }

    static constexpr std::size_t maxText = 32;  // bytes that are read
    struct Text {
        char bytes[maxText + 1];  // ends with a NUL
        std::size_t size;         // without it
        std::string_view untilNul() const { return bytes; }
    };
    // What one read gives. Throws Vel::ErrnoException.
    Text read() const;

private:
    char const* path_;
    int file_;
    int error_;
    Source* from_;
    std::size_t place_ = 0;  // among what was asked
};

}  // namespace Cell
