#pragma once

#include "Vel/describe/ForeignTypes.h"
#include "Vel/describe/internal/Records.h"

#include <memory>
#include <span>
#include <string>
#include <vector>

namespace Vel {

// A module's table, made at run time from a description. It has the layout of the tables that the compiler makes.
class VEL_API ForeignTable {
public:
    // Makes the table, and gives each type its place in it and its glue. Throws RangeException if the module is larger
    // than a table can be.
    void make(String const& module, U64 fingerprint, std::span<std::unique_ptr<ForeignType> const> types,
        ForeignEntityFunctions const& functions);

private:
    class Names;
    struct Parts;
    void fill(Parts const& parts, TypeDescription const& type);
    static void fillGlue(ForeignType& type, ForeignEntityFunctions const& functions);
    template <class T> T* part(U32 offset) { return reinterpret_cast<T*>(memory_.get() + offset); }
    struct Free {
        void operator()(char* memory) const { ::operator delete(memory); }
    };
    std::unique_ptr<char, Free> memory_;
    ModuleHeader const* module_ = nullptr;
    U32 typesFilled_ = 0;
    U16 attributesFilled_ = 0;
    U16 parametersFilled_ = 0;
};

}  // namespace Vel
