#pragma once

#include "Vel/base/Ptr.h"
#include "Vel/base/String.h"
#include "Vel/describe/Describe.h"
#include "Vel/describe/Value.h"
#include "Vel/describe/internal/Records.h"
#include "Vel/text/NboAttrLog.h"

#include <memory>
#include <optional>

// Reflection: access to every registered type by its record, without the type's header.
namespace Vel {

class CollectionIterator;
class ForeignType;
class VelAttr;
struct StreamTable;

// A type: a record in a module's table. Copies are cheap. It is valid as long as the module is loaded. A default-made
// one is null.
class VEL_API VelTypeBase {
public:
    constexpr VelTypeBase() = default;
    constexpr VelTypeBase(ModuleHeader const* module, U32 index) : module_(module), index_(index) {}

    explicit operator bool() const { return module_ != nullptr; }
    friend bool operator==(VelTypeBase const&, VelTypeBase const&) = default;

    // All functions below REQUIRE a type that is not null.
    ModuleHeader const& module() const { return *module_; }
    U32 index() const { return index_; }  // index of the record in its module
    TypeRecord const& record() const;
    TypeGlue const& glue() const;
    char const* name() const;
    VelTypeBase base() const;  // the base of an entity type; null for a value type and for Vel::Entity
    bool isDerived(VelTypeBase const& ancestor) const;  // whether it is `ancestor`, or derives from it
    bool isPolymorphic() const;                         // whether its objects begin with a virtual table pointer
    bool isEntity() const;

private:
    friend class VelAttr;
    static VelTypeBase foreignBase(TypeGlue const& glue);
    ModuleHeader const* module_ = nullptr;
    U32 index_ = 0;
};

class VEL_API VelType : public VelTypeBase {
public:
    using VelTypeBase::VelTypeBase;
    VelType(VelTypeBase const& type) : VelTypeBase(type) {}

    U32 attributeCount() const;  // without the attributes of its bases
    VelAttr attribute(U32 index) const;
    std::optional<VelAttr> attribute(std::string_view name) const;  // of this type or a base
    std::optional<VelAttr> attributeOfId(AttributeId id) const;     // of this type or a base
    // Performs an operation on the attribute with this number of an object of this type. For the arguments see
    // TypeGlue::genericIfAttributeOp. Returns an AttributeResult.
    int attributeOp(void* result, void* object, AttributeId id, AttributeOp op, void const* other = nullptr,
        void const* arg = nullptr) const;
    std::string_view moduleName() const;
    U64 moduleFingerprint() const;
    std::size_t encodedSize() const;  // bytes in the attribute log, without the characters of strings
    bool hasFixedEncodedSize() const;
    bool isHashable() const;
    bool answers(AttributeOp op) const;  // whether values as a whole support `op`, from `truth` to `complement`
    // Returns the text form as a printf-style template, such as "Value('T', ** {'count': %u, 'last': %s})". It is "%u"
    // or "%lu" for a number, "%s" for a type with its own text form, and empty for an entity.
    String strepTemplate() const;
};

// An attribute: a type and the index of one of its attribute records. A null attribute stands for the value as a whole.
class VEL_API VelAttr {
public:
    constexpr VelAttr() = default;
    constexpr VelAttr(VelType type, U32 index) : module_(type.module_), typeIndex_(type.index_), index_(index) {}

    explicit operator bool() const { return module_ != nullptr; }
    VelType type() const { return {module_, typeIndex_}; }
    U32 index() const { return index_; }
    AttributeId attributeId() const;  // 0, which is no attribute's number, if the type has no attribute at the index

    // All functions below REQUIRE that the type has an attribute at the index.
    AttributeRecord const& record() const;
    char const* name() const;
    AttributeKind kind() const;
    bool answers(AttributeOp op) const;
    VelType valueType() const;   // null for a method, and for an attribute that is only declared
    VelType keyType() const;     // null unless it is a collection
    VelType resultType() const;  // null unless it is a method that returns something
    // Returns an iterator at the first member of this collection in `object`, which is passed as for
    // genericIfAttributeOp. Returns null if the collection cannot be walked.
    std::unique_ptr<CollectionIterator> iterator(void* object) const;
    U32 parameterCount() const;
    char const* parameterName(U32 i) const;
    VelType parameterType(U32 i) const;

private:
    // These take two words, so that an attribute is passed in registers. With a VelType it would take three.
    ModuleHeader const* module_ = nullptr;
    U32 typeIndex_ = 0;
    U32 index_ = 0;
};

// Walks a collection by reflection. REQUIRES: the object that has the collection outlives it. The collection's own
// documentation says what may change during the walk.
class VEL_API CollectionIterator {
public:
    virtual ~CollectionIterator();
    virtual bool exists() const = 0;  // false at the end
    // These REQUIRE exists(). `result` points to the collection's key type for key(), to its value type for object().
    virtual void key(void* result) const = 0;
    virtual void object(void* result) const = 0;
    virtual void next() = 0;
    virtual bool del() = 0;  // removes the current member; returns false if the collection does not support that
};

// Result of an operation on an attribute.
enum class AttributeResult : int { done = 0, unsupported = 1, unknown = 2 };

struct AttributeGlue {
    VelType (*valueType)();  // returns a null type if there is none; so do the next two
    VelType (*keyType)();
    VelType (*resultType)();
    VelType (*const* parameterTypes)();
    std::unique_ptr<CollectionIterator> (*iterate)(void* object);  // null if the collection cannot be walked
};

// How to get the StreamTable of a type: a function, or the table itself if it was made from a peer's description.
class StreamTableRef {
public:
    constexpr StreamTableRef() = default;
    constexpr StreamTableRef(StreamTable const& (*function)()) : function_(function) {}
    constexpr StreamTableRef(StreamTable const* made) : made_(made) {}

    constexpr explicit operator bool() const { return function_ || made_; }
    StreamTable const& operator()() const { return made_ ? *made_ : function_(); }  // REQUIRES: there is one

private:
    StreamTable const& (*function_)() = nullptr;
    StreamTable const* made_ = nullptr;
};

// The operations of one type, as functions over untyped storage.
struct TypeGlue {
    std::size_t size;  // bytes
    std::size_t alignment;
    VelType (*base)();                // returns a null type if there is none; null if the type is `foreign`
    AttributeGlue const* attributes;  // null if the type is `foreign`

    // Copy-constructs *src into dst, or default-constructs if src is null.
    void (*genericIfConstruct)(void* dst, void const* src);
    // Constructs from the arguments to which the pointers point. A type without constructor arguments ignores them.
    void (*genericIfConstructFromCtorArgs)(void* dst, void const* const* arguments);
    void (*genericIfDestruct)(void* value);
    String (*genericIfStrRep)(void const* value, VelType type);
    // Assigns the parsed value. Throws ParseException if the text does not parse; then *dst is unchanged.
    void (*genericIfStrepToValue)(void* dst, String const& text, VelType type);
    U32 (*genericIfHash)(void const* value, VelType type);  // throws UnhashableException
    // `result` receives the result, unless it is null. `other` is the second value of an operation on two values, or
    // the key of a collection. `arg` is the new value of a set, or the array of pointers to a call's arguments. For an
    // entity, `object` points to its Vel::Entity. Returns an AttributeResult.
    int (*genericIfAttributeOp)(
        void* result, void* object, VelAttr attr, AttributeOp op, void const* other, void const* arg);
    void (*write)(NboAttrLog::Out& out, void const* value);
    void (*read)(void* dst, NboAttrLog::In& in);  // assigns; throws StreamException
    std::size_t (*attrLogSize)(void const* value);
    // Creates an entity for a directory. Throws NewEntityArgsException if there are arguments that it does not take.
    // Null for a type that cannot be created.
    Ptr<PtrInterface> (*newEntity)(String const& name, void const* const* arguments);
    AllocTrackTypeInfo* allocTrack;  // null unless it is an entity type
    StreamTableRef stream;           // what is sent to replicas; none unless it is an entity type
    void* (*genericIfVoidPtrIs)(void* object, VelType have, VelType want);  // see GenericIfImpl::genericIfVoidPtrIs()
    // The same as genericIfStrepToValue, without a string. The text need not end with a NUL.
    void (*genericIfTextToValue)(void* dst, std::string_view text, VelType type);
    // Writes the text form; see valueToChars().
    std::to_chars_result (*genericIfToChars)(char* first, char* last, void const* value);
    std::string_view spelling;   // what the fingerprint hashes of the type; see docs/formats.md
    ForeignType const* foreign;  // null unless a peer has described the type, and no module of this process has it
};

// Inline: access by attribute number is the hot path.

inline TypeRecord const& VelTypeBase::record() const { return at<TypeRecord>(*module_, module_->types)[index_]; }
inline TypeGlue const& VelTypeBase::glue() const { return *at<TypeGlue const*>(*module_, module_->glue)[index_]; }
inline VelTypeBase VelTypeBase::base() const {
    TypeGlue const& glue = this->glue();
    if (!glue.base) [[unlikely]]
        return foreignBase(glue);
    return glue.base();
}

inline U32 VelType::attributeCount() const { return record().attributeCount; }
inline VelAttr VelType::attribute(U32 index) const { return {*this, index}; }

inline AttributeRecord const& VelAttr::record() const {
    return at<AttributeRecord>(*module_, module_->attributes)[type().record().firstAttribute + index_];
}
inline AttributeId VelAttr::attributeId() const { return index_ < type().attributeCount() ? record().id : 0; }

inline std::optional<VelAttr> VelType::attributeOfId(AttributeId id) const {
    // Attributes are numbered in order, those of an entity type after those of its base.
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
    // Returns the address of the `have` part of an object of type `want` at `object`. Throws TypeException unless
    // `want` is `have` or derives from it. Fails an assertion if `have` is polymorphic and `want` is not.
    static void* genericIfVoidPtrIs(void* object, VelType have, VelType want);
    [[noreturn]] static void throwTypeException(VelType type);
    [[noreturn]] static void throwUnhashableException(VelType type);
};

// A value of any registered value type.
class VEL_API GenericValue {
public:
    // Makes the default value. Throws TypeException for the null type and for an entity type.
    explicit GenericValue(VelType type);
    // Parses all of `text`, as strepToValue() does, and makes no string of it. Throws ParseException.
    template <TextLike S> GenericValue(VelType type, S const& text) : GenericValue(type) { textIs(viewOf(text)); }
    GenericValue(VelType type, String const& text);
    GenericValue(VelType type, NboAttrLog::In& in);  // throws StreamException
    GenericValue(GenericValue const& other);
    GenericValue(GenericValue&&) noexcept = default;
    GenericValue& operator=(GenericValue other) noexcept;
    ~GenericValue();

    VelType type() const { return type_; }
    void* data() { return storage_.get(); }
    void const* data() const { return storage_.get(); }
    String strep() const { return type_.glue().genericIfStrRep(data(), type_); }
    // Writes the text form to the caller's memory; see valueToChars().
    std::to_chars_result toChars(char* first, char* last) const {
        return type_.glue().genericIfToChars(first, last, data());
    }
    U32 hash() const { return type_.glue().genericIfHash(data(), type_); }
    std::size_t attrLogSize() const { return type_.glue().attrLogSize(data()); }
    // Returns the value of an attribute, or nothing if it cannot be read.
    std::optional<GenericValue> get(VelAttr attr) const;
    // Returns the result of `truth`, or of `equal` or `less` with another value of the same type. Returns nothing if
    // the type does not support the operation.
    std::optional<bool> test(AttributeOp op, GenericValue const* other = nullptr) const;

private:
    void textIs(std::string_view text);

    struct Free {
        std::size_t alignment;
        void operator()(void* memory) const { ::operator delete(memory, std::align_val_t(alignment)); }
    };
    VelType type_;
    std::unique_ptr<void, Free> storage_;
};

template <class T> VelType typeOf() { return DefinedByVEL_MODULE<T>::type(); }

}  // namespace Vel
