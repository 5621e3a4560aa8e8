#pragma once

#include "Vel/base/Types.h"
#include "Vel/describe/GenericIf.h"

#include <concepts>
#include <memory>
#include <utility>
#include <vector>

namespace Vel {

class Entity;
class HeldChanges;
class NotifieeList;

// The key of a collection's member that was added, changed or removed. It is valid only during the notification.
class NotifieeKey {
public:
    template <class K> explicit NotifieeKey(K const& key) : type_(&typeOf<K>), key_(&key) {}
    explicit NotifieeKey(GenericValue const& key) : type_(nullptr), key_(&key) {}

    VelType type() const { return type_ ? type_() : generic().type(); }
    void const* data() const { return type_ ? key_ : generic().data(); }
    template <class K> K const& as() const {  // REQUIRES: the key is a K
        return *static_cast<K const*>(data());
    }

private:
    GenericValue const& generic() const { return *static_cast<GenericValue const*>(key_); }

    VelType (*type_)();  // null: the key is a GenericValue
    void const* key_;
};

// An observer of one entity. It is notified after an attribute has changed, on the thread that changed it.
//
// An observer may be registered, withdrawn or destroyed at any time, even by an observer during a notification. An
// observer that is registered during a notification is notified from the next change on; one that is withdrawn is not
// notified any more. The entity may be released meanwhile. If an observer throws, the exception passes to the code that
// changed the attribute, and the observers after it are not notified.
class VEL_API Notifiee {
public:
    Notifiee() = default;
    Notifiee(Notifiee const&) = delete;
    Notifiee& operator=(Notifiee const&) = delete;
    virtual ~Notifiee();  // withdraws itself

    virtual void handleAttribute(AttributeId attribute) = 0;
    virtual void handleAttribute(AttributeId attribute, NotifieeKey const& key);  // a collection's member
    // Called when the entity is being destroyed, and must not be used any more. The observer is already withdrawn.
    virtual void handleNotifierDel() noexcept;
    // Called before the observer is told of changes that were held back (see Together.h). Returns true if it has dealt
    // with all of them, so that it is not told of each.
    virtual bool handleTogether(HeldChanges const& changes);
    // Called after the entity has got another parent, or none. This is never held back. Also called once for an entity
    // of a copy that awaited its place (Entity::awaitsPlace()), at the sync mark or at the end of the connection; it may
    // have the same parent as before then.
    virtual void handleNotifierParent();

    // Observes `notifier` instead of the entity before; null means none. Holds no reference: the observer is withdrawn
    // when the entity is destroyed. REQUIRES: the entity's notifieeList() is not null.
    void notifierIs(Entity const* notifier);
    bool hasNotifier() const { return block_ != nullptr; }

private:
    friend class NotifieeList;
    friend struct NotifieeBlock;
    struct NotifieeBlock* block_ = nullptr;
    std::size_t index_ = 0;  // in the block
};

// What a list owns. Only the list and its observers use it.
//
// Invariants:
// 1. entries[i]->index_ == i for every entry that is not null.
// 2. `holes` is the number of null entries, which were withdrawn. While no visit runs, at most half of all entries are
//    null.
// 3. If the list is destroyed while visits run over its block, the block has no entries, and lives until they have
//    ended.
// 4. `only` is the entry if there is just one and nothing is held back, else null.
struct NotifieeBlock {
    Notifiee* only = nullptr;
    std::vector<Notifiee*> entries;
    NotifieeList* list = nullptr;
    unsigned visits = 0;  // visits that run now, each one within the one before; calling just `only` does not count
    std::size_t holes = 0;
    HeldChanges* held = nullptr;  // takes the notifications instead of the observers

    void closeHoles() noexcept;
    void findOnly() noexcept { only = entries.size() == 1 && !held ? entries.front() : nullptr; }
};

// An entity's observers. The list is one pointer wide, and owns no memory before the first observer is added.
class VEL_API NotifieeList {
public:
    NotifieeList() = default;
    NotifieeList(NotifieeList const&) = delete;
    NotifieeList& operator=(NotifieeList const&) = delete;
    ~NotifieeList() { deleteAll(); }

    // Notifies every observer that the attribute, or one key of a collection, has changed.
    void visit(AttributeId attribute) {
        if (!block_) [[likely]]
            return;
        // After the only observer was called, nothing more is read: neither the block nor the list needs to live on.
        if (Notifiee* const only = block_->only) return only->handleAttribute(attribute);
        visitAll(attribute, nullptr);
    }
    template <class K> void visit(AttributeId attribute, K const& key) {
        if (!block_) [[likely]]
            return;
        NotifieeKey const notifieeKey(key);
        if (Notifiee* const only = block_->only) return only->handleAttribute(attribute, notifieeKey);
        visitAll(attribute, &notifieeKey);
    }
    void visitParent() {  // notifies every observer as handleNotifierParent() says
        if (block_) [[unlikely]]
            visitAllParent();
    }
    void deleteAll() noexcept {  // withdraws every observer
        if (block_) [[unlikely]]
            deleteBlock();
    }
    std::size_t size() const noexcept;

    // --- for HeldChanges ---

    // From now on `held`, unless it is null, takes the notifications. Returns what took them before.
    HeldChanges* heldIs(HeldChanges* held);
    void visitHeld(HeldChanges const& changes);

private:
    friend class Notifiee;
    NotifieeBlock& block();
    void add(Notifiee& notifiee);
    void visitAll(AttributeId attribute, NotifieeKey const* key);
    void visitAllParent();
    void deleteBlock() noexcept;  // REQUIRES: there is one

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

// Calls `function(AttributeId)` or `function(AttributeId, NotifieeKey const*)` for every change of `entity`, until the
// result is destroyed. The key is null unless the attribute is a collection.
template <class F> [[nodiscard]] std::unique_ptr<Notifiee> notifieeOf(Entity const& entity, F function) {
    auto notifiee = std::make_unique<Detail::FunctionNotifiee<F>>(std::move(function));
    notifiee->notifierIs(&entity);
    return notifiee;
}

}  // namespace Vel
