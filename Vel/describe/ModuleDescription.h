#pragma once

#include "Vel/base/String.h"
#include "Vel/describe/Attributes.h"

#include <optional>
#include <string_view>
#include <vector>

// Descriptions of modules as data: what another process tells about the types that it has. A description is told as a
// module's spelling, the text that its fingerprint hashes (docs/formats.md).
namespace Vel {

struct ModuleHeader;

struct VEL_API TypeDescription {
    enum class Form : U8 { record = 0, number = 1, entity = 2, scalar = 3 };
    struct Parameter {
        String name, type;
    };
    struct Attribute {
        AttributeId id = 0;
        String name{};
        AttributeKind kind = AttributeKind::field;
        U32 ops = 0;
        String valueType{}, keyType{}, resultType{};  // empty if there is none
        Members members = Members::none;
        std::optional<U64> number{};  // of an enumerator
        std::vector<Parameter> parameters{};

        bool answers(AttributeOp op) const { return ops & opBit(op); }
        // Whether a source sends it: see docs/streaming.md.
        bool isStreamed() const {
            return kind == AttributeKind::entityAttribute ? answers(AttributeOp::set) : members != Members::none;
        }
    };

    String name{};
    Form form = Form::record;
    String base{};  // of an entity type; empty for Vel::Entity
    U16 flags = 0;  // of TypeFlag: ownText, hashable, ownStream
    U32 ops = 0;
    std::vector<Attribute> attributes{};
    String spelling{};  // the type's part of the text

    bool isEntity() const { return form == Form::entity; }
    bool isEnumeration() const;  // a number with a text of its own, whose other attributes are names of numbers
};

struct VEL_API ModuleDescription {
    static constexpr std::size_t longestSpelling = 1u << 20;  // bytes
    static constexpr std::size_t longestName = 255;           // bytes
    static constexpr std::size_t mostAttributes = 1024;       // of a type

    String name{};
    U64 fingerprint = 0;  // the hash of the text
    std::vector<TypeDescription> types{};

    // Parses a spelling. Throws ParseException, which says what is wrong in which line, for everything that no module
    // of a program has. It is not checked whether types of other modules exist.
    static ModuleDescription parsed(std::string_view spelling);
    // Returns the spelling of a module of this process, and its fingerprint.
    static String spellingOf(ModuleHeader const& module);
    static U64 fingerprintOf(std::string_view spelling);
};

}  // namespace Vel
