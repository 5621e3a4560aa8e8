#pragma once

#include "Fixtures.h"
#include "Vel/describe/Module.h"
#include "Vel/describe/internal/Records.h"

#include <cstring>
#include <memory>
#include <string_view>

// The table of the fixtures' module, and copies of it.
namespace FixtureTables {

using Vel::AttributeRecord;
using Vel::ModuleHeader;
using Vel::ParameterRecord;
using Vel::TypeGlue;
using Vel::TypeRecord;
using Vel::U16;

inline ModuleHeader const& fixtures() { return Vel::typeOf<Fixture::Chip>().module(); }

// A copy of the fixtures' table that can be changed, in memory of exactly its size.
class Table {
public:
    Table() : bytes_(new char[fixtures().size]) { std::memcpy(bytes_.get(), &fixtures(), fixtures().size); }
    ~Table() { Vel::velModuleDel(&header()); }
    Table(Table const&) = delete;
    Table& operator=(Table const&) = delete;

    ModuleHeader& header() { return *reinterpret_cast<ModuleHeader*>(bytes_.get()); }
    char* bytes() { return bytes_.get(); }
    TypeRecord* types() { return reinterpret_cast<TypeRecord*>(bytes() + header().types); }
    AttributeRecord* attributes() { return reinterpret_cast<AttributeRecord*>(bytes() + header().attributes); }
    ParameterRecord* parameters() { return reinterpret_cast<ParameterRecord*>(bytes() + header().parameters); }
    TypeGlue const** glue() { return reinterpret_cast<TypeGlue const**>(bytes() + header().glue); }
    char* typeNames() { return bytes() + header().typeNames; }
    char* attributeNames() { return bytes() + header().attributeNames; }
    char* name() { return bytes() + header().name; }

    // Turns the first letter of the fixtures' and the module's names into `letter`, which keeps the names sorted.
    void renamedTo(char letter) {
        for (U16 i = 0; i < header().typeNamesSize; ++i)
            if (std::string_view(typeNames() + i, 8).starts_with("Fixture:")) typeNames()[i] = letter;
        name()[0] = letter;
    }

private:
    std::unique_ptr<char[]> bytes_;
};

}  // namespace FixtureTables
