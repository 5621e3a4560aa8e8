#pragma once

#include "Vel/base/String.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

// A new folder that goes with all that is in it.
class TempFolder {
public:
    TempFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "mox-XXXXXX").string();
        if (!::mkdtemp(name.data())) throw std::runtime_error("no temporary folder " + name);
        path_ = name;
    }
    TempFolder(TempFolder const&) = delete;
    TempFolder& operator=(TempFolder const&) = delete;
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Vel::String path(std::string const& file) const { return Vel::String((path_ / file).string()); }

private:
    std::filesystem::path path_;
};
