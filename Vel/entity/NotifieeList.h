#pragma once

#include "Vel/base/Types.h"
#include "Vel/describe/GenericIf.h"

#include <concepts>
#include <memory>
#include <utility>

namespace Vel {

class Entity;
class NotifieeList;

// The key of a collection's member that came, changed or went. Valid during the notification only.
class NotifieeKey {
public:
    template <class K> explicit NotifieeKey(K const& key) : type_(&typeOf<K>), key_(&key) {}

    VelType type() const { return type_(); }
    void const* data() const { return key_; }
    template <class K> K const& as() const {  // REQUIRES: type() is K's
        return *static_cast<K const*>(key_);
    }

private:
    VelType (*type_)();
    void const* key_;
};

// An observer of one entity. It is told after the attribute has changed, on the thread that changed it.
//
// An observer may be registered, withdrawn or destroyed at any time, also by an observer that is being told: one that
// comes during a visit is told from the next visit on, one that goes is told nothing more. The entity may be released
// meanwhile. An exception thrown by an observer passes to whoever changed the attribute, and the observers after it
// are not told.
class VEL_API Notifiee {
public:
    Notifiee() = default;
    Notifiee(Notifiee const&) = delete;
    Notifiee& operator=(Notifiee const&) = delete;
    virtual ~Notifiee();  // withdraws itself

    virtual void handleAttribute(AttributeId attribute) = 0;
    virtual void handleAttribute(AttributeId attribute, NotifieeKey const& key);  // a collection's member
    // The entity is being destroyed and can't be asked any more; this observer is already withdrawn.
    virtual void handleNotifierDel() noexcept;

    // Observes `notifier`, and nothing else any more; null: nothing. Holds no reference: when the entity goes, the
    // observer is withdrawn. REQUIRES: an entity that has an observer list.
    void notifierIs(Entity const* notifier);
    bool hasNotifier() const { return block_ != nullptr; }

private:
    friend class NotifieeList;
    friend struct NotifieeBlock;
    struct NotifieeBlock* block_ = nullptr;
    std::size_t index_ = 0;  // in the block
};

// An entity's observers; one pointer wide, and nothing else while there is none.
class VEL_API NotifieeList {
public:
    NotifieeList() = default;
    NotifieeList(NotifieeList const&) = delete;
    NotifieeList& operator=(NotifieeList const&) = delete;
    ~NotifieeList() { deleteAll(); }

    // Tells every observer that the attribute, or one key of a collection attribute, has changed.
    void visit(AttributeId attribute) {
        if (block_) [[unlikely]]
            visitAll(attribute, nullptr);
    }
    template <class K> void visit(AttributeId attribute, K const& key) {
        if (!block_) [[likely]]
            return;
        NotifieeKey const notifieeKey(key);
        visitAll(attribute, &notifieeKey);
    }
    void deleteAll() noexcept;  // withdraws every observer
    std::size_t size() const noexcept;

private:
    friend class Notifiee;
    void add(Notifiee& notifiee);
    void visitAll(AttributeId attribute, NotifieeKey const* key);

    struct NotifieeBlock* block_ = nullptr;
};

namespace Detail {

template <class F> class FunctionNotifiee final : public Notifiee {
public:
    explicit FunctionNotifiee(F function) : function_(std::move(function)) {}

    void handleAttribute(AttributeId attribute) override {
        if constexpr (std::invocable<F&, AttributeId, NotifieeKey const*>)
            function_(attribute, nullptr);
        else
            function_(attribute);
    }
    void handleAttribute(AttributeId attribute, NotifieeKey const& key) override {
        if constexpr (std::invocable<F&, AttributeId, NotifieeKey const*>)
            function_(attribute, &key);
        else
            function_(attribute);
    }

private:
    F function_;
};

}  // namespace Detail

// Calls `function(AttributeId)`, or `function(AttributeId, NotifieeKey const*)` with a null key for what is no
// collection, for every change of `entity`, until the result is destroyed.
template <class F> [[nodiscard]] std::unique_ptr<Notifiee> notifieeOf(Entity const& entity, F function) {
    auto notifiee = std::make_unique<Detail::FunctionNotifiee<F>>(std::move(function));
    notifiee->notifierIs(&entity);
    return notifiee;
}

}  // namespace Vel
