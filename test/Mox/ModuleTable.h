#pragma once

#include "Vel/describe/GenericIf.h"
#include "Vel/describe/internal/Records.h"
#include "Vel/entity/Dir.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>

#include <dlfcn.h>

// A module's table as whoever reads the library's file finds it: by its symbol, as bytes. The numbers here are part of
// the format, so they are written out, and not taken from the structures that the library uses itself.
class ModuleTable {
public:
    explicit ModuleTable(char const* symbol) : bytes_(static_cast<char const*>(::dlsym(RTLD_DEFAULT, symbol))) {
        EXPECT_NE(bytes_, nullptr) << symbol << " is not exported";
    }

    explicit operator bool() const { return bytes_ != nullptr; }
    Vel::ModuleHeader const* header() const { return reinterpret_cast<Vel::ModuleHeader const*>(bytes_); }
    // Of the file that it was loaded from.
    std::string fileName() const { return fileOf(bytes_); }
    // Whether that is Mox's library; or the program, where that is where the framework is, too.
    bool isInLibrary() const {
        std::string const framework = fileOf(&Vel::typeOf<Vel::Dir>().module());
        return framework.starts_with("libvel.so") ? fileName().starts_with("libmox.so") : fileName() == framework;
    }

    std::string typeNames() const { return {bytes_ + header()->typeNames, header()->typeNamesSize}; }
    std::string attributeNames() const { return {bytes_ + header()->attributeNames, header()->attributeNamesSize}; }
    unsigned types() const { return header()->typeCount; }
    unsigned attributes() const { return header()->attributeCount; }

    unsigned firstAttribute(unsigned type) const { return at<Vel::U16>(header()->types + 16 * type + 12); }
    unsigned attributeCount(unsigned type) const { return at<Vel::U16>(header()->types + 16 * type + 14); }
    Vel::U32 attributeId(unsigned attribute) const { return at<Vel::U32>(header()->attributes + 20 * attribute); }
    std::string attributeName(unsigned attribute) const {
        auto const second = at<Vel::U32>(header()->attributes + 20 * attribute + 4);
        auto const high = at<Vel::U16>(header()->attributes + 20 * attribute + 8);
        return bytes_ + header()->attributeNames + ((second >> 28) | unsigned(high) << 4);
    }

private:
    static std::string fileOf(void const* address) {
        Dl_info info{};
        EXPECT_NE(::dladdr(address, &info), 0);
        std::string const path = info.dli_fname ? info.dli_fname : "";
        return path.substr(path.rfind('/') + 1);
    }
    template <class T> T at(std::size_t offset) const {
        T value;
        std::memcpy(&value, bytes_ + offset, sizeof value);
        return value;
    }

    char const* bytes_;
};
