#include "Vel/stream/internal/StreamView.h"

#include <algorithm>
#include <unordered_set>

namespace Vel {

using NboAttrLog::FlowConnection;
using NboAttrLog::SlotSet;

namespace {

// Calls f(Entity&) for each entity to which a streamed attribute of this one refers.
template <class F> void visitReferences(Entity const& entity, F f) {
    for (StreamAttribute const& attribute : entity.fwkType().glue().stream().attributes) {
        if (attribute.kind == StreamKind::pointer) {
            if (Entity* const target = attribute.target(entity)) f(*target);
        } else if (attribute.holdsEntities()) {
            attribute.visit(
                entity, [](void* context, Entity& member) { (*static_cast<F*>(context))(member); }, &f);
        }
    }
}

bool isStreamable(VelType type) { return type.glue().stream && type.glue().stream().isCreatable; }

}  // namespace

StreamView::StreamView(Ptr<Entity> root) : StreamView(std::make_shared<StreamDemuxer>(), std::move(root)) {}

StreamView::StreamView(std::shared_ptr<StreamDemuxer> demuxer, Ptr<Entity> root, std::unique_ptr<ViewRights> rights)
    : demuxer_(std::move(demuxer)), root_(std::move(root)), rights_(std::move(rights)) {
    demuxer_->viewIs(*this, true);
}

StreamView::~StreamView() { demuxer_->viewIs(*this, false); }

// The root may be of a type that cannot be created: a copy may be given its root.
bool StreamView::canHave(Entity const& entity) const {
    if (&entity != root_.get() && !isStreamable(entity.fwkType())) return false;
    return !rights_ || rights_->mayRead(entity);
}

StreamView::Adapter* StreamView::adapterIs(Entity& entity) {
    Adapter* adapter = demuxer_->adapter(entity);
    if (adapter && has(*adapter)) return adapter;
    if (!canHave(entity)) return nullptr;
    if (!adapter) adapter = &demuxer_->newAdapter(entity);
    members_.add(adapter->slot());
    ++count_;
    return adapter;
}

U32 StreamView::typeIndex(VelType type) {
    U32 const index = demuxer_->typeIndex(type);
    if (index >= usesType_.size()) usesType_.resize(index + 1);
    usesType_[index] = true;
    return index;
}

// --- leaving the view ---

void StreamView::forget(Adapter const& adapter) {
    if (!has(adapter)) return;
    members_.del(adapter.slot());
    --count_;
    if (rights_) rights_->forget(adapter);
}

void StreamView::clear() {
    members_.clear();
    count_ = 0;
    dropped_ = hidden_ = 0;
    if (rights_) rights_->forgetAll();
}

void StreamView::sweepIfDue() {
    if (dropped_ > 64 && dropped_ > (count_ + hidden_) / 2) sweep();
}

void StreamView::sweep() {
    dropped_ = 0;
    Adapter const* const top = adapter(*root_);
    if (!top) return;
    std::vector<Adapter*> unreached;
    members_.eachNotIn(reached(*top), [&](U32 slot) {
        unreached.push_back(demuxer_->adapterAt(slot));
        return false;
    });
    leave(unreached);
}

void StreamView::leave(std::vector<Adapter*>& adapters) {
    std::sort(adapters.begin(), adapters.end(), [](Adapter* a, Adapter* b) { return a->id() < b->id(); });
    for (Adapter* const a : adapters) leave(*a);
    if (adapters.empty()) return;
    forgetOwners();
    demuxer_->changesAreWritten();
}

SlotSet StreamView::reached(Adapter const& top) {
    SlotSet reached;
    hidden_ = 0;
    std::unordered_set<Entity const*> onTheWay;  // without an adapter; they may lead to entities that have one
    std::vector<Entity const*> left{root_.get()};
    reached.add(top.slot());
    while (!left.empty()) {
        Entity const& next = *left.back();
        left.pop_back();
        visitReferences(next, [&](Entity& referred) {
            Adapter const* const a = demuxer_->adapter(referred);
            if (!(a && has(*a)) && !canHave(referred)) {
                hidden_ += rights_ != nullptr;
                return;
            }
            if (a) {
                if (reached.has(a->slot())) return;
                reached.add(a->slot());
            } else if (!onTheWay.insert(&referred).second) {
                return;
            }
            left.push_back(&referred);
        });
    }
    return reached;
}

template <class F> void StreamView::eachConnection(F f) const {
    for (auto const* const connections : {&demuxer_->catchingUp(), &demuxer_->live()})
        for (FlowConnection* const connection : *connections)
            if (&connection->view() == this) f(*connection);
}

void StreamView::leave(Adapter& adapter) {
    forget(adapter);
    if (!demuxer_->isInAView(adapter.slot())) return demuxer_->adapterDel(adapter);
    eachConnection([&](FlowConnection& connection) { connection.forget(adapter, true); });
}

// Forgets for members without an owner in the view that they were sent as members of it. If the owner comes back under
// its id, its copy has no members.
void StreamView::forgetOwners() {
    members_.eachNotIn({}, [&](U32 slot) {
        Adapter const& member = *demuxer_->adapterAt(slot);
        if (member.owner() != 0 && !adapter(member.owner()))
            eachConnection([&](FlowConnection& connection) { connection.notInstantiated(member); });
        return false;
    });
}

// --- moves ---

void StreamView::haveMoved(std::span<StreamPlaces::Moved const> moved) {
    if (!rights_) return;
    std::vector<Adapter*> hidden;
    StreamEntities changed;
    for (auto const& [entity, wasHidden] : moved) {
        bool const mayRead = rights_->mayRead(*entity);
        Adapter* const there = adapter(*entity);
        if (there && !mayRead) hidden.push_back(there);
        if (there ? !mayRead : mayRead && wasHidden) changed.insert(entity);
    }
    if (changed.empty()) return;
    if (changed.contains(root_.get())) return rootIsHidden();
    tellAgain(changed);
    leave(hidden);
    sweep();  // of what only those referred to that have left
    demuxer_->changesAreWritten();
}

void StreamView::tellAgain(StreamEntities const& changed) {
    std::vector<EntityId> ids;
    members_.eachNotIn({}, [&](U32 slot) {
        ids.push_back(demuxer_->adapterAt(slot)->id());
        return false;
    });
    for (EntityId const id : ids)
        if (Adapter* const member = adapter(id); member && !changed.contains(&member->entity()))
            member->tellAgain(*this, changed);
}

}  // namespace Vel
