#pragma once

#include "Vel/base/Ptr.h"
#include "Vel/describe/Describe.h"
#include "Vel/describe/GenericIf.h"
#include "Vel/entity/NotifieeList.h"
#include "Vel/text/Trace.h"

#include <algorithm>
#include <concepts>
#include <type_traits>

namespace Vel {

// The path to an entity: names separated by "/". With a leading "/" it starts at the root of the tree, else at the
// entity on which entity() is called. Doubled and trailing separators are ignored.
class VEL_API EntityUriPath {
public:
    EntityUriPath(String path) : path_(std::move(path)) {}
    EntityUriPath(char const* path) : path_(path) {}

    String const& text() const { return path_; }
    bool isAbsolute() const { return path_.view().starts_with('/'); }

private:
    String path_;
};

// A named object in the directory tree. It can be found by its path, observed, and accessed by reflection.
// Threads: one thread at a time. Only references may be counted on several threads (see VFPtrInterface).
class VEL_API Entity : public PtrInterface {
public:
    class VelNboAttrLogSa;  // see StreamAdapter.h

    // These virtual functions come after those of PtrInterface, in this order.
    NotifieeList* notifieeList() const override;
    ~Entity() override;
    virtual String name() const;                                // empty if it has none
    virtual void handleParent();                                // called after the parent has changed
    virtual Ptr<Entity> velChild(std::string_view name) const;  // the child with this name, or null

    Entity* parent() const { return parent_; }  // null for the root, and outside the tree
    void parentIs(Entity* parent) {
        if (parent == parent_) return;
        parent_ = parent;
        if (parent) parent->hasBeenParent_ = true;
        awaitsPlace_ = awaitsPlace_ && !parent;
        handleParent();
        notifieeList_.visitParent();
    }
    bool hasBeenParent() const { return hasBeenParent_; }
    // Whether this entity is new in a copy that is not complete yet, and has never had a parent there: its source may
    // still say where it belongs. Set by AttrLogReplica; the first parent ends it, and so does the sync mark.
    bool awaitsPlace() const { return awaitsPlace_; }
    void awaitsPlaceIs(bool on) { awaitsPlace_ = on; }
    // Whether this entity is `other` or one of its ancestors. Walks up from `other`, unless this never was a parent.
    bool encloses(Entity const& other) const;

    // Returns the entity at `path`, or null if there is none. Creates nothing.
    Ptr<Entity> entity(EntityUriPath const& path) const;
    String path() const;  // from the root of this entity's tree: "/ql/cell"

    // Performs an operation on an attribute, by the glue of this entity's type. Returns an AttributeResult.
    int attributeOp(void* result, VelAttr attr, AttributeOp op, void const* other = nullptr, void const* arg = nullptr);

    void velPrint(StrepOut& out) const;  // appends the text form: Type('/path')

    static constexpr auto description() { return Vel::entity("Vel::Entity"); }

protected:
    explicit Entity(String name) : name_(std::move(name)) {}

    String const& velName() const { return name_; }  // the name that the constructor was given

    // Notifies the observers that an attribute has changed, or one key of a collection; does nothing while
    // hasNotificationActive() is false.
    void velNotify(AttributeId attribute) const {
        if (hasNotificationActive()) notifieeList_.visit(attribute);
    }
    template <class K> void velNotify(AttributeId attribute, K const& key) const {
        if (hasNotificationActive()) notifieeList_.visit(attribute, key);
    }

private:
    bool hasBeenParent_ = false;  // the first members, since they fit into the padding of the base
    bool awaitsPlace_ = false;
    String name_;
    Entity* parent_ = nullptr;  // not owned, since the parent owns this entity
    mutable NotifieeList notifieeList_;
};

[[noreturn]] VEL_API VEL_COLD void throwNewEntityArgsException(VelType type);
[[noreturn]] VEL_API VEL_COLD void throwMutatorArgNullPointerException(VelType type, AttributeId attribute);

// Appends the text form of an entity, or "None" if it is null.
VEL_API TraceStream& operator<<(TraceStream& out, Entity const* entity);
template <class E> TraceStream& operator<<(TraceStream& out, Ptr<E> const& entity) {
    return out << static_cast<Entity const*>(entity.get());
}

namespace Detail {

template <class T, auto Member, std::size_t I> constexpr bool isAttributeOf() {
    if constexpr (AttributeAt<T, I>::kind == AttributeKind::entityAttribute) {
        using Given = std::remove_const_t<decltype(Member)>;
        if constexpr (std::is_same_v<std::remove_const_t<decltype(AttributeAt<T, I>::member)>, Given>)
            return AttributeAt<T, I>::member == Member;
    }
    return false;
}

// Returns the number, in T's description, of the attribute that Member stores.
template <class T, auto Member> constexpr AttributeId attributeIdOfMember() {
    constexpr std::size_t index = []<std::size_t... I>(std::index_sequence<I...>) {
        std::size_t found = attributeCount<T>;
        ((found = isAttributeOf<T, Member, I>() ? I : found), ...);
        return found;
    }
    (std::make_index_sequence<attributeCount<T>>{});
    constexpr bool complained = hasBrokenAttribute<T>() || !ownsDescription<T>();
    static_assert(complained || index < attributeCount<T>, "the description does not list this member as an attribute");
    static_assert(!hasOption<BaseType<T>, OptionId::base>, "one level of described bases");
    return firstAttributeId<T>() + static_cast<AttributeId>(index);
}

// The name of an attribute, as a template argument.
template <std::size_t N> struct AttributeNameArgument {
    char text[N] = {};
    consteval AttributeNameArgument(char const (&name)[N]) { std::copy(name, name + N, text); }
    constexpr std::string_view view() const { return {text, N - 1}; }
};

}  // namespace Detail

// Base of a described entity type: class Status : public Vel::EntityOf<Status>. Everything here is derived from T's
// description. It adds no virtual function.
template <class T, class Base = Entity> class EntityOf : public Base {
public:
    using VelBase = Base;

    VelType fwkType() const override { return typeOf<T>(); }

    // Makes a T, counts the allocation, and turns notification on. Every factory calls this.
    template <class... A>
    requires std::constructible_from<T, A...>
    static Ptr<T> newEntity(A&&... arguments) {
        Ptr<T> entity(new T(std::forward<A>(arguments)...));
        entity->hasNotificationActiveIs(true);
        return entity;
    }

    // Makes a T for a directory. The name is the only argument that a constructor can take.
    static Ptr<PtrInterface> velNewEntity(String const& name, void const* const* arguments) {
        if (arguments) throwNewEntityArgsException(typeOf<T>());
        if constexpr (std::constructible_from<T, String const&>)
            return newEntity(name);
        else if constexpr (std::default_initializable<T>)
            return newEntity();
        else
            GenericIfImpl::throwTypeException(typeOf<T>());
    }

    static void* operator new(std::size_t size) {
        static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__, "entities have ordinary alignment");
        void* const memory = PtrInterface::velMemAlloc(size);
        typeOf<T>().glue().allocTrack->_trackAllocation(size, alignof(T));
        return memory;
    }
    static void operator delete(void* memory, std::size_t size) noexcept {
        typeOf<T>().glue().allocTrack->trackDeallocation(size, alignof(T));
        PtrInterface::velMemFree(memory, size);
    }

protected:
    using Base::Base;
    using Base::velNotify;

    // Does the same as Entity::velNotify(), for the attribute of T or of its bases with this name:
    // velNotify<"card">(key).
    template <Detail::AttributeNameArgument name, class... K> void velNotify(K const&... key) const {
        constexpr AttributeId id = Detail::findAttributeId<T>(name.view());
        static_assert(id != 0, "the description lists no attribute of this name");
        this->velNotify(id, key...);
    }

    // Does the work of a mutator: stores `value` in Member, and notifies the observers. Does nothing if Member already
    // has that value. It is const, since a const entity may cache values.
    template <auto Member, class V> void velSet(V const& value) const {
        auto& stored = const_cast<T*>(static_cast<T const*>(this))->*Member;
        if (stored == value) return;
        stored = value;
        this->velNotify(Detail::attributeIdOfMember<T, Member>());
    }
    // Stores `value` without notifying anybody: for an attribute that caches what can be read again.
    template <auto Member, class V> void velCache(V const& value) const {
        const_cast<T*>(static_cast<T const*>(this))->*Member = value;
    }
};

}  // namespace Vel
