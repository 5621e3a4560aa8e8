#pragma once

#include "Vel/base/Types.h"
#include "Vel/describe/Describe.h"

// The layout of a module's table. Except for the glue it has no addresses, so that it can be read directly from the
// library's file. Offsets are in bytes, from the beginning of the list to which they refer.
namespace Vel {

struct TypeGlue;

inline constexpr U16 noName = 0xFFFF;  // in a type-name offset: no type

struct TypeRecord {
    U16 name;  // offset in the type names
    U16 base;  // name of an entity type's base, as an offset in the type names; or noName
    U16 flags;
    U16 valueOps;        // bit n is set if a value as a whole supports op 11 + n
    U16 encodedSize;     // bytes in the attribute log, without the characters of strings
    U16 objectSize;      // bytes; 0xFFFF means that or more
    U16 firstAttribute;  // index of an attribute record
    U16 attributeCount;
};
static_assert(sizeof(TypeRecord) == 16);

namespace TypeFlag {

inline constexpr U16 entity = 1, polymorphic = 2, number = 4, ownText = 8, hashable = 16, fixedSize = 32, abstract = 64,
                     scalar = 128, ownStream = 256;

}

struct AttributeRecord {
    AttributeId id;
    U32 nameLowKindOps;  // bits 31..28: low four bits of the name's offset; 27..22: kind; 21..0: bit n for op n
    U16 nameHigh;        // the other bits of the name's offset in the attribute names
    U16 valueType;       // this and keyType are offsets in the type names, or noName
    U16 keyType;
    U16 firstParameter;  // index of a parameter record
    U16 parameterCount;
    U16 encodedSize;  // bytes of a field or entity attribute, without the characters of strings; else 0
};
static_assert(sizeof(AttributeRecord) == 20);

constexpr U32 nameOffset(AttributeRecord const& r) { return (r.nameLowKindOps >> 28) | U32(r.nameHigh) << 4; }
constexpr AttributeKind kindOf(AttributeRecord const& r) {
    return static_cast<AttributeKind>((r.nameLowKindOps >> 22) & 63);
}
constexpr U32 opsOf(AttributeRecord const& r) { return r.nameLowKindOps & 0x3FFFFFu; }

struct ParameterRecord {
    U16 name;  // offset in the attribute names
    U16 type;  // offset in the type names
};
static_assert(sizeof(ParameterRecord) == 4);

// The beginning of the table. Its offsets are from the beginning of the header.
struct ModuleHeader {
    char magic[8];  // "VELMOD1" and a NUL
    U64 fingerprint;
    U32 size;  // bytes, of the whole table
    U16 typeCount;
    U16 attributeCount;
    U16 parameterCount;
    U16 typeNamesSize;       // bytes of the sorted names, each of which ends with a NUL
    U16 attributeNamesSize;  // bytes of the empty name and the sorted names, each of which ends with a NUL
    U16 nameSize;            // bytes of the module's name with its NUL
    U32 types;
    U32 attributes;
    U32 parameters;
    U32 typeNames;
    U32 attributeNames;
    U32 name;
    U32 glue;  // offset of the pointers to TypeGlue, one for each type
};

inline constexpr char moduleMagic[8] = {'V', 'E', 'L', 'M', 'O', 'D', '1', '\0'};

template <class T> T const* at(ModuleHeader const& module, U32 offset) {
    return reinterpret_cast<T const*>(reinterpret_cast<char const*>(&module) + offset);
}

}  // namespace Vel
