#include "tools/lib/Modules.h"

#include "tools/lib/Clean.h"
#include "tools/lib/Output.h"

#include "Vel/describe/Module.h"

#include <dlfcn.h>

namespace Tool {

namespace {

// Returns the loader's error without the path at its beginning, since the caller writes that itself.
std::string loaderError(std::string const& path) {
    char const* const text = ::dlerror();
    std::string reason = text ? text : "unknown error";
    if (reason.starts_with(path + ": ")) reason.erase(0, path.size() + 2);
    return cleaned(reason);
}

std::size_t registered() { return Vel::Registry::modules().size() + Vel::Registry::refusals().size(); }

}  // namespace

int loadModules(std::vector<std::string> const& paths) {
    int code = fine;
    for (std::string const& path : paths) {
        // The loader looks for a name without a slash in its own folders, but the user means the working directory.
        std::string const file = path.find('/') == std::string::npos ? "./" + path : path;
        std::size_t const before = registered();
        // Never closed, since its types are used until the process ends.
        if (!::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL))
            throw Failure(badUsage, "--module: cannot load " + shown(path) + ": " + loaderError(file) +
                                        "; it must be a shared library of types built against this Vel");
        if (registered() > before) continue;
        complain("--module: " + shown(path) + " brings no types: it has no VEL_MODULE, or is loaded already");
        code = somethingWrong;
    }
    return code;
}

}  // namespace Tool
