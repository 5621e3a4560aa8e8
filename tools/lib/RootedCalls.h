#pragma once

#include "Vel/base/System.h"

#include <string>

namespace Tool {

// The system as a process sees it whose root is another folder, or whose environment is empty.
class RootedCalls final : public Vel::SystemCalls {
public:
    // root: absolute paths are looked up below that folder, symbolic links included; empty: the real root.
    // noEnvironment: only the variables that configure tracing are set.
    RootedCalls(std::string root, bool noEnvironment);

    std::string realPath(std::string const& path) const;  // what the path leads to, symbolic links aside

    char const* getenv(char const* name) override;
    int open(char const* path, int flags) override;

private:
    std::string root_;
    bool noEnvironment_;
};

}  // namespace Tool
