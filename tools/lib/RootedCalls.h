#pragma once

#include "Vel/base/System.h"

#include <string>

namespace Tool {

// System calls that act as if the root were another folder, or as if the environment were empty.
class RootedCalls final : public Vel::SystemCalls {
public:
    // root: absolute paths, also those of symbolic links, are looked up below this folder; empty means the real root.
    // noEnvironment: only the variables that configure tracing are set.
    RootedCalls(std::string root, bool noEnvironment);

    std::string realPath(std::string const& path) const;  // the path below the root; does not resolve symbolic links

    char const* getenv(char const* name) override;
    int open(char const* path, int flags) override;

private:
    std::string root_;
    bool noEnvironment_;
};

}  // namespace Tool
