#pragma once

#include "Vel/base/Ptr.h"
#include "Vel/base/String.h"
#include "Vel/describe/Describe.h"
#include "Vel/describe/Value.h"
#include "Vel/describe/internal/Records.h"
#include "Vel/text/NboAttrLog.h"

#include <memory>
#include <optional>

// Reflection: every registered type reached through its record, without its header.
namespace Vel {

class CollectionIterator;
class VelAttr;
struct StreamTable;

// A type: a record in a module's table. Copies are cheap; valid while the module stays loaded. A default one is null.
class VEL_API VelTypeBase {
public:
    constexpr VelTypeBase() = default;
    constexpr VelTypeBase(ModuleHeader const* module, U32 index) : module_(module), index_(index) {}

    explicit operator bool() const { return module_ != nullptr; }
    friend bool operator==(VelTypeBase const&, VelTypeBase const&) = default;

    // Everything below REQUIRES a type that is not null.
    ModuleHeader const& module() const { return *module_; }
    U32 index() const { return index_; }  // of the record in its module
    TypeRecord const& record() const;
    TypeGlue const& glue() const;
    char const* name() const;
    VelTypeBase base() const;  // what an entity type derives from; null for a value type and for Vel::Entity
    bool isDerived(VelTypeBase const& ancestor) const;  // this type is `ancestor`, or derives from it
    bool isPolymorphic() const;                         // its objects begin with a virtual table pointer
    bool isEntity() const;

private:
    friend class VelAttr;
    ModuleHeader const* module_ = nullptr;
    U32 index_ = 0;
};

class VEL_API VelType : public VelTypeBase {
public:
    using VelTypeBase::VelTypeBase;
    VelType(VelTypeBase const& type) : VelTypeBase(type) {}

    U32 attributeCount() const;  // its own; an entity type also has its base's
    VelAttr attribute(U32 index) const;
    std::optional<VelAttr> attribute(std::string_view name) const;  // also a base's
    std::optional<VelAttr> attributeOfId(AttributeId id) const;     // also a base's
    // An operation on the attribute of that number of an object of this type, as TypeGlue::genericIfAttributeOp; codes
    // as AttributeResult.
    int attributeOp(void* result, void* object, AttributeId id, AttributeOp op, void const* other = nullptr,
        void const* arg = nullptr) const;
    std::string_view moduleName() const;
    U64 moduleFingerprint() const;
    std::size_t encodedSize() const;  // bytes in the attribute log; where a string is inside, without its characters
    bool hasFixedEncodedSize() const;
    bool isHashable() const;
    bool answers(AttributeOp op) const;  // truth to complement, on a value as a whole
    // The printf-style template of the text form, such as "Value('T', ** {'count': %u, 'last': %s})"; "%u" or "%lu" for
    // a number, "%s" for a text form of its own, empty for an entity.
    String strepTemplate() const;
};

// An attribute: a type and the index of one of its attribute records. Null, it stands for the value as a whole.
class VEL_API VelAttr {
public:
    constexpr VelAttr() = default;
    constexpr VelAttr(VelType type, U32 index) : module_(type.module_), typeIndex_(type.index_), index_(index) {}

    explicit operator bool() const { return module_ != nullptr; }
    VelType type() const { return {module_, typeIndex_}; }
    U32 index() const { return index_; }
    AttributeId attributeId() const;  // 0, which no type uses, when the type has no such index

    // Everything below REQUIRES an index that the type has.
    AttributeRecord const& record() const;
    char const* name() const;
    AttributeKind kind() const;
    bool answers(AttributeOp op) const;
    VelType valueType() const;   // null for a method, and for what is only declared
    VelType keyType() const;     // of a collection; else null
    VelType resultType() const;  // of a method that yields something; else null
    // On the first member of this collection in `object`, given as for genericIfAttributeOp; null when it cannot be
    // walked.
    std::unique_ptr<CollectionIterator> iterator(void* object) const;
    U32 parameterCount() const;
    char const* parameterName(U32 i) const;
    VelType parameterType(U32 i) const;

private:
    // Two words in all, so that an attribute is passed in registers; a VelType here would make it three.
    ModuleHeader const* module_ = nullptr;
    U32 typeIndex_ = 0;
    U32 index_ = 0;
};

// Walks a collection that was reached by reflection. The object that holds the collection must outlive it; what may
// change meanwhile is for the collection to say.
class VEL_API CollectionIterator {
public:
    virtual ~CollectionIterator();
    virtual bool exists() const = 0;  // false at the end
    // These REQUIRE exists(). `result` is of the collection's key type, and of its value type.
    virtual void key(void* result) const = 0;
    virtual void object(void* result) const = 0;
    virtual void next() = 0;
    virtual bool del() = 0;  // removes the member that it stands on; false when the collection does not do that
};

// What an operation by attribute came to.
enum class AttributeResult : int { done = 0, unsupported = 1, unknown = 2 };

struct AttributeGlue {
    VelType (*valueType)();  // each null for none
    VelType (*keyType)();
    VelType (*resultType)();
    VelType (*const* parameterTypes)();
    std::unique_ptr<CollectionIterator> (*iterate)(void* object);  // from the first member on; null for none
};

// The operations of one type, as functions over untyped storage.
struct TypeGlue {
    std::size_t size;  // bytes
    std::size_t alignment;
    VelType (*base)();  // null for none
    AttributeGlue const* attributes;

    // Copy-constructs *src into dst, or default-constructs when src is null.
    void (*genericIfConstruct)(void* dst, void const* src);
    // Constructs from the arguments that the pointers designate; a type without constructor arguments ignores them.
    void (*genericIfConstructFromCtorArgs)(void* dst, void const* const* arguments);
    void (*genericIfDestruct)(void* value);
    String (*genericIfStrRep)(void const* value, VelType type);
    // Assigns the parsed value; *dst is unchanged when the text does not parse (ParseException).
    void (*genericIfStrepToValue)(void* dst, String const& text, VelType type);
    U32 (*genericIfHash)(void const* value, VelType type);  // throws UnhashableException
    // `result` receives the outcome (null: nobody wants it), `other` is the second value of a comparison or the key of
    // a collection, `arg` the new value of a set or the array of pointers to a call's arguments. Of an entity, `object`
    // is its Vel::Entity.
    int (*genericIfAttributeOp)(
        void* result, void* object, VelAttr attr, AttributeOp op, void const* other, void const* arg);
    void (*write)(NboAttrLog::Out& out, void const* value);
    void (*read)(void* dst, NboAttrLog::In& in);  // assigns; throws StreamException
    std::size_t (*attrLogSize)(void const* value);
    // Creates an entity for a directory; throws NewEntityArgsException when arguments are given that it does not take.
    // Null for a type that cannot be created.
    Ptr<PtrInterface> (*newEntity)(String const& name, void const* const* arguments);
    AllocTrackTypeInfo* allocTrack;  // of an entity type; else null
    StreamTable const& (*stream)();  // what of an entity type travels to replicas; else null
    void* (*genericIfVoidPtrIs)(void* object, VelType have, VelType want);  // as GenericIfImpl's
};

// Inline: access by attribute number is the hot path.

inline TypeRecord const& VelTypeBase::record() const { return at<TypeRecord>(*module_, module_->types)[index_]; }
inline TypeGlue const& VelTypeBase::glue() const { return *at<TypeGlue const*>(*module_, module_->glue)[index_]; }
inline VelTypeBase VelTypeBase::base() const { return glue().base(); }

inline U32 VelType::attributeCount() const { return record().attributeCount; }
inline VelAttr VelType::attribute(U32 index) const { return {*this, index}; }

inline AttributeRecord const& VelAttr::record() const {
    return at<AttributeRecord>(*module_, module_->attributes)[type().record().firstAttribute + index_];
}
inline AttributeId VelAttr::attributeId() const { return index_ < type().attributeCount() ? record().id : 0; }

inline std::optional<VelAttr> VelType::attributeOfId(AttributeId id) const {
    // Attributes are numbered in order, an entity type's behind its base's.
    for (VelType type = *this; type; type = type.base()) {
        if (type.attributeCount() == 0) continue;
        U32 const index = id - type.attribute(0u).record().id;
        if (index < type.attributeCount()) return type.attribute(index);
    }
    return std::nullopt;
}

inline int VelType::attributeOp(
    void* result, void* object, AttributeId id, AttributeOp op, void const* other, void const* arg) const {
    for (VelType type = *this; type; type = type.base()) {
        if (type.attributeCount() == 0) continue;
        U32 const index = id - type.attribute(0u).record().id;
        if (index < type.attributeCount())
            return glue().genericIfAttributeOp(result, object, VelAttr(type, index), op, other, arg);
    }
    return static_cast<int>(AttributeResult::unknown);
}

class VEL_API GenericIfImpl {
public:
    // The `have` view of an object whose type is `want`, given its address. Throws TypeException unless `want` is or
    // derives from `have`; a polymorphic `have` within a `want` that is not is an assertion failure.
    static void* genericIfVoidPtrIs(void* object, VelType have, VelType want);
    [[noreturn]] static void throwTypeException(VelType type);
    [[noreturn]] static void throwUnhashableException(VelType type);
};

// A value of any registered value type.
class VEL_API GenericValue {
public:
    // The default value. Throws TypeException for the null type and for an entity type.
    explicit GenericValue(VelType type);
    GenericValue(VelType type, String const& text);  // throws ParseException
    GenericValue(VelType type, NboAttrLog::In& in);  // throws StreamException
    GenericValue(GenericValue const& other);
    GenericValue(GenericValue&&) noexcept = default;
    GenericValue& operator=(GenericValue other) noexcept;
    ~GenericValue();

    VelType type() const { return type_; }
    void* data() { return storage_.get(); }
    void const* data() const { return storage_.get(); }
    String strep() const { return type_.glue().genericIfStrRep(data(), type_); }
    U32 hash() const { return type_.glue().genericIfHash(data(), type_); }
    std::size_t attrLogSize() const { return type_.glue().attrLogSize(data()); }
    // The value of an attribute; nothing when it cannot be read.
    std::optional<GenericValue> get(VelAttr attr) const;
    // Outcome of truth, or of equal or less with another value of the type; nothing when the type does not answer it.
    std::optional<bool> test(AttributeOp op, GenericValue const* other = nullptr) const;

private:
    struct Free {
        std::size_t alignment;
        void operator()(void* memory) const { ::operator delete(memory, std::align_val_t(alignment)); }
    };
    VelType type_;
    std::unique_ptr<void, Free> storage_;
};

template <class T> VelType typeOf() { return DefinedByVEL_MODULE<T>::type(); }

}  // namespace Vel
