#pragma once

#include "Vel/describe/GenericIf.h"
#include "Vel/describe/ModuleDescription.h"
#include "Vel/describe/StreamTable.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

// Types that a peer has described and that this process does not have, or has otherwise. They are used by reflection
// like any type, but are not in the registry.
namespace Vel {

class ForeignTypes;

// Where the glue of a described entity type has its functions: the entities are on a higher floor.
struct ForeignEntityFunctions {
    int (*attributeOp)(void* result, void* object, VelAttr attr, AttributeOp op, void const* other, void const* arg);
    StreamFunctions stream;
    std::size_t objectSize;     // bytes, without the attributes
    std::size_t attributeSize;  // bytes of each streamed attribute
};

// A streamed attribute of a described entity type: what StreamAttribute::context points to.
struct ForeignAttribute {
    VelType type;  // of the value or values; for entities Vel::Entity
    VelType key;   // null if it is no collection
    StreamKind kind;
    std::size_t place;          // among the entity's streamed attributes
    std::size_t plainSize = 0;  // bytes of each value, if any bytes are one; 0: reading a value tells
};

// A described type. It lives as long as its ForeignTypes.
//
// A value of it is kept as its bytes. The text of a record or a number is derived as for any type. A type with a text
// or a byte form of its own has neither here: its text is that of its bytes, Bytes('00ff'). If it has a byte form of
// its own, nobody here can tell where a value ends. Then the whole value around it is shown as bytes.
class VEL_API ForeignType {
public:
    ForeignType(ForeignTypes& types, TypeDescription description);
    ForeignType(ForeignType const&) = delete;
    ForeignType& operator=(ForeignType const&) = delete;

    ForeignTypes& types() const { return types_; }
    TypeDescription const& description() const { return description_; }
    VelType self() const { return self_; }
    TypeGlue const& glue() const { return glue_; }

    // --- for reflection; null if the type is not known here ---

    // What the bytes of values and entities are read by does not change, whatever the peer describes later.
    VelTypeBase base() const;
    VelType valueType(U32 attribute) const;
    VelType keyType(U32 attribute) const;
    VelType resultType(U32 attribute) const;
    VelType parameterType(U32 attribute, U32 parameter) const;
    void construct(void* storage) const;  // the default value

    // --- of values ---

    bool isShownAsBytes() const { return hasOwnForm_ || !isDelimited_; }
    bool isDelimited() const { return isDelimited_; }  // whether the bytes tell where a value ends
    bool isFixed() const { return isFixed_; }          // whether all values have as many bytes
    // Bytes of the default value, and of each of its parts at least one. So it also limits what it takes to make it.
    std::size_t defaultSize() const { return defaultSize_; }
    // Reads a value: all that is left if it is not delimited. Throws StreamException for what no writer writes.
    void skip(NboAttrLog::In& in) const;
    void print(StrepOut& out, NboAttrLog::In& in) const;
    // Parses a value that begins at `at`, appends its bytes, and returns the offset behind it. `behind` is the text
    // that follows a value within another one. Throws ParseException.
    std::size_t parse(NboAttrLog::Out& out, std::string_view text, std::size_t at, std::string_view behind) const;
    void writeDefault(NboAttrLog::Out& out) const;
    struct Field {
        String name;
        VelType type;
    };
    std::vector<Field> const& fields() const { return fields_; }

    // --- of entities ---

    // Whether the other type, of another connection, was described in the same way, with all that it is made of.
    bool isSame(ForeignType const& other) const;

private:
    friend class ForeignTypes;
    friend class ForeignTable;
    struct Settled {
        VelType value, key;
    };
    bool callsAreSame(ForeignType const& other) const;
    Settled settled(U32 attribute) const { return attribute < settled_.size() ? settled_[attribute] : Settled{}; }
    VelType named(String const& name) const;
    void printNumber(StrepOut& out, NboAttrLog::In& in) const;
    void printBytes(StrepOut& out, NboAttrLog::In& in) const;
    std::size_t parseNumber(NboAttrLog::Out& out, std::string_view text, std::size_t at) const;
    std::size_t parseBytes(NboAttrLog::Out& out, std::string_view text, std::size_t at) const;

    ForeignTypes& types_;
    TypeDescription description_;
    VelType self_;
    TypeGlue glue_{};
    enum class State : U8 { unseen, beingSeen, known, bad };
    State state_ = State::unseen;

    // The types by which fields and streamed attributes are stored, by the attribute's index; for entities Vel::Entity.
    // Null for other attributes.
    std::vector<Settled> settled_;
    VelType base_;          // of an entity type that is known
    AttributeId last_ = 0;  // number of the last attribute of an entity type, or of its bases
    std::vector<Field> fields_;
    bool isDelimited_ = true;
    bool isFixed_ = true;
    bool hasOwnForm_ = false;
    std::size_t defaultSize_ = 0;
    unsigned depth_ = 0;

    std::vector<ForeignAttribute> attributes_;
    std::vector<StreamAttribute> rows_;
    StreamTable table_{};
    // The last type that isSame() has found to be the same. It is there as long as its ForeignTypes.
    mutable ForeignType const* same_ = nullptr;
    mutable std::weak_ptr<ForeignTypes> sameTypes_;
};

// A value of a described type, as reflection stores it.
struct ForeignValue {
    ForeignType const* type = nullptr;
    std::shared_ptr<ForeignTypes> keep{};
    std::string bytes{};
};

// The modules that a peer has described in a connection. A VelType of such a module can be used as long as this lives.
// Every value and entity of the type keeps this alive.
// Threads: one at a time.
class VEL_API ForeignTypes : public std::enable_shared_from_this<ForeignTypes> {
public:
    static constexpr unsigned deepest = 64;              // values within values, or bases of bases
    static constexpr std::size_t largestValue = 0xFFFF;  // bytes of a default value
    static constexpr std::size_t mostRows = 1u << 16;    // streamed attributes of all entity types

    explicit ForeignTypes(ForeignEntityFunctions const& functions);
    ForeignTypes(ForeignTypes const&) = delete;
    ForeignTypes& operator=(ForeignTypes const&) = delete;
    ~ForeignTypes();

    // Adds a module. Throws RangeException if it, or one of its types, is there already, or if it is larger than a
    // module can be.
    void add(ModuleDescription module);
    bool empty() const { return told_.empty(); }

    // All of these throw RangeException for a type that is neither described nor in this process, or that cannot be
    // used: one that contains itself, or too much.
    //
    // Returns the type of a value. That is the type of this process if the peer has it with the same description: the
    // same spelling, and that of each type of which it is made. If it has a form of its own, its module must be the
    // same.
    VelType valueType(std::string_view name);
    // Returns the described type of an entity, made from the peer's description, or from this process's own if the peer
    // has the same module.
    VelType entityType(std::string_view name);
    bool isEntity(std::string_view name);

    // Whether the peer has an entity type of this process with the same description, and all the types of its values.
    bool isSame(VelType entityType);
    // Returns the peer's description of an entity type.
    TypeDescription const& description(std::string_view entityType);

    VelType find(std::string_view name);  // as above, for a value or an entity; null instead of an exception
    // Returns the described type of this name if it is in use already, or null.
    VelType inUse(std::string_view name) const;
    // Estimated bytes that all this takes, rather too high than too low.
    std::size_t size() const { return size_; }

private:
    friend class ForeignType;
    using ByName = std::map<std::string, ForeignType*, std::less<>>;
    ForeignType* told(std::string_view name) const;
    ForeignType& borrowed(VelType local);
    ForeignType& described(std::string_view name);
    void makeModule(ModuleDescription module, ByName& names);
    bool agrees(VelType local, unsigned depth);
    void resolve(ForeignType& type);
    void resolveValue(ForeignType& type);
    void resolveEntity(ForeignType& type);
    void addRow(ForeignType& type, TypeDescription::Attribute const& attribute);

    struct Module;
    ForeignEntityFunctions const& functions_;
    std::vector<std::unique_ptr<Module>> modules_;
    ByName told_;      // the peer's types
    ByName borrowed_;  // types of this process that the peer has, too
    std::size_t rows_ = 0;
    std::size_t size_ = sizeof(ForeignTypes);
    unsigned resolving_ = 0;  // types of which each is part of the one before
};

// Whether values and entities of the two types are the same, in text and bytes. Two connections describe a type twice.
VEL_API bool isSameType(VelType a, VelType b);

// Reads a value of any type, and drops it. Throws StreamException for what no writer writes.
VEL_API void skipValue(VelType type, NboAttrLog::In& in);
// Bytes of each value of the type, if any bytes are a value; else 0.
std::size_t plainSizeOf(VelType type);

}  // namespace Vel
