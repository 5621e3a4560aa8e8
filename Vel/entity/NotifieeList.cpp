#include "Vel/entity/NotifieeList.h"

#include "Vel/entity/Entity.h"
#include "Vel/entity/ObserverFailure.h"
#include "Vel/entity/Together.h"

#include <utility>

namespace Vel {

// Removes null entries once they are more than half, so that the entries are not moved each time when many observers
// withdraw. Does nothing during a visit, which needs fixed indexes.
void NotifieeBlock::closeHoles() noexcept {
    if (visits == 0 && 2 * holes > entries.size()) {
        std::erase(entries, nullptr);
        for (std::size_t i = 0; i < entries.size(); ++i) entries[i]->index_ = i;
        holes = 0;
    }
    findOnly();
}

namespace {

// Counts a visit as long as it lives. Then deletes the block if its list is gone, or closes the holes.
class Visit {
public:
    explicit Visit(NotifieeBlock& block) : block_(block) { ++block_.visits; }
    Visit(Visit const&) = delete;
    Visit& operator=(Visit const&) = delete;
    ~Visit() {
        if (--block_.visits != 0) return;
        if (!block_.list)
            delete &block_;
        else if (block_.holes != 0)
            block_.closeHoles();
    }

private:
    NotifieeBlock& block_;
};

}  // namespace

Notifiee::~Notifiee() { notifierIs(nullptr); }

void Notifiee::handleAttribute(AttributeId attribute, NotifieeKey const&) { handleAttribute(attribute); }

void Notifiee::handleNotifierDel() noexcept {}

bool Notifiee::handleTogether(HeldChanges const&) { return false; }

void Notifiee::handleNotifierParent() {}

void Notifiee::notifierIs(Entity const* notifier) {
    if (block_) {
        NotifieeBlock& block = *block_;
        block_ = nullptr;
        block.entries[index_] = nullptr;
        ++block.holes;
        block.closeHoles();
    }
    if (notifier) notifier->notifieeList()->add(*this);
}

NotifieeBlock& NotifieeList::block() {
    if (!block_) {
        block_ = new NotifieeBlock;
        block_->list = this;
    }
    return *block_;
}

void NotifieeList::add(Notifiee& notifiee) {
    NotifieeBlock& block = this->block();
    block.entries.push_back(&notifiee);
    notifiee.block_ = &block;
    notifiee.index_ = block.entries.size() - 1;
    block.findOnly();
}

void NotifieeList::deleteBlock() noexcept {
    NotifieeBlock* const block = std::exchange(block_, nullptr);
    ++block->visits;  // so that closeHoles() does nothing if an observer withdraws another one meanwhile
    for (std::size_t i = 0; i < block->entries.size(); ++i) {
        Notifiee* const notifiee = block->entries[i];
        if (!notifiee) continue;
        block->entries[i] = nullptr;
        notifiee->block_ = nullptr;
        notifiee->handleNotifierDel();
    }
    --block->visits;
    block->entries.clear();
    block->holes = 0;
    block->list = nullptr;
    if (block->visits == 0) delete block;
}

std::size_t NotifieeList::size() const noexcept { return block_ ? block_->entries.size() - block_->holes : 0; }

// Of shared libraries only one may have it, so it is not inline.
constinit thread_local ObserverFailure* ObserverFailure::innermost_ = nullptr;

void ObserverFailure::note(NotifieeList const* observers, std::span<HeldChanges::Change const> changes) {
    if (!innermost_ || innermost_->observers_ != observers) return;
    innermost_->thrown_ = std::current_exception();
    innermost_->untold_.insert(innermost_->untold_.end(), changes.begin(), changes.end());
}

void NotifieeList::visitAll(AttributeId attribute, NotifieeKey const* key) {
    NotifieeBlock& block = *block_;
    if (block.held) return block.held->add(attribute, key);
    Visit const visit(block);
    std::size_t const count = block.entries.size();
    try {
        for (std::size_t i = 0; i < count && i < block.entries.size(); ++i) {
            Notifiee* const notifiee = block.entries[i];
            if (!notifiee) continue;
            if (key)
                notifiee->handleAttribute(attribute, *key);
            else
                notifiee->handleAttribute(attribute);
        }
    } catch (...) {
        HeldChanges::Change const change(attribute, key);
        ObserverFailure::note(this, {&change, 1});
        throw;
    }
}

void NotifieeList::visitAllParent() {
    NotifieeBlock& block = *block_;
    Visit const visit(block);
    std::size_t const count = block.entries.size();
    for (std::size_t i = 0; i < count && i < block.entries.size(); ++i)
        if (Notifiee* const notifiee = block.entries[i]) notifiee->handleNotifierParent();
}

// --- changes that are held back ---

HeldChanges* NotifieeList::heldIs(HeldChanges* held) {
    NotifieeBlock& block = this->block();
    HeldChanges* const before = std::exchange(block.held, held);
    block.findOnly();
    if (!held && block.entries.empty() && block.visits == 0) delete std::exchange(block_, nullptr);
    return before;
}

namespace {

void tellOf(Notifiee& notifiee, HeldChanges::Change const& change) {
    if (!change.key) return notifiee.handleAttribute(change.attribute);
    notifiee.handleAttribute(change.attribute, NotifieeKey(*change.key));
}

}  // namespace

void NotifieeList::visitHeld(HeldChanges const& held) {
    if (!block_ || held.changes().empty()) return;
    NotifieeBlock& block = *block_;
    Visit const visit(block);
    std::size_t const count = block.entries.size();
    try {
        for (std::size_t i = 0; i < count && i < block.entries.size(); ++i) {
            Notifiee* const notifiee = block.entries[i];
            if (!notifiee || notifiee->handleTogether(held)) continue;
            for (HeldChanges::Change const& change : held.changes())
                if (i < block.entries.size() && block.entries[i] == notifiee) tellOf(*notifiee, change);
        }
    } catch (...) {
        ObserverFailure::note(this, held.changes());
        throw;
    }
}

}  // namespace Vel
