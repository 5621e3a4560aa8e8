#pragma once

#include "Vel/base/Types.h"
#include "Vel/describe/Describe.h"

// The layout of a module's table. Everything but the glue is free of addresses, so it can be read from the library's
// file as it stands. All offsets count bytes from the beginning of what they name.
namespace Vel {

struct TypeGlue;

inline constexpr U16 noName = 0xFFFF;  // in a type-name offset: no type

struct TypeRecord {
    U16 name;  // offset in the type names
    U16 base;  // the type that an entity type derives from, offset in the type names; or noName
    U16 flags;
    U16 valueOps;        // bit n: op 11 + n is answered on a value as a whole
    U16 encodedSize;     // bytes
    U16 objectSize;      // bytes; 0xFFFF: that or more
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
    U32 nameLowKindOps;  // bits 31..28 the name offset's low four bits, 27..22 the kind, 21..0 the ops answered, bit n: op n
    U16 nameHigh;        // the rest of the name's offset in the attribute names
    U16 valueType;       // these three: offsets in the type names, or noName
    U16 keyType;
    U16 firstParameter;  // index of a parameter record
    U16 parameterCount;
    U16 encodedSize;  // bytes, of a field or entity attribute; else 0
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

// Stands at the beginning of the table; offsets are from there.
struct ModuleHeader {
    char magic[8];  // "VELMOD1" and a NUL
    U64 fingerprint;
    U32 size;  // bytes, of the whole table
    U16 typeCount;
    U16 attributeCount;
    U16 parameterCount;
    U16 typeNamesSize;       // bytes: sorted names, each ended by a NUL
    U16 attributeNamesSize;  // bytes: the empty name, then sorted names, each ended by a NUL
    U16 nameSize;            // bytes of the module's name with its NUL
    U32 types;
    U32 attributes;
    U32 parameters;
    U32 typeNames;
    U32 attributeNames;
    U32 name;
    U32 glue;  // one TypeGlue pointer a type
};

inline constexpr char moduleMagic[8] = {'V', 'E', 'L', 'M', 'O', 'D', '1', '\0'};

template <class T> T const* at(ModuleHeader const& module, U32 offset) {
    return reinterpret_cast<T const*>(reinterpret_cast<char const*>(&module) + offset);
}

}  // namespace Vel
