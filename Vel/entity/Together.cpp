#include "Vel/entity/Together.h"

#include <algorithm>

namespace Vel {

namespace {

GenericValue copyOf(NotifieeKey const& key) {
    GenericValue copy(key.type());
    TypeGlue const& glue = key.type().glue();
    glue.genericIfDestruct(copy.data());
    glue.genericIfConstruct(copy.data(), key.data());
    return copy;
}

}  // namespace

HeldChanges::Change::Change(AttributeId id, NotifieeKey const* of) : attribute(id) {
    if (of) key.emplace(copyOf(*of));
}

HeldChanges::HeldChanges(Entity const& entity) : entity_(&entity), outer_(entity.notifieeList()->heldIs(this)) {}

HeldChanges::~HeldChanges() { release(); }

void HeldChanges::release() {
    if (isHolding_) entity_->notifieeList()->heldIs(outer_);
    isHolding_ = false;
}

// Goes by the bytes of keys, since not every type has an equality.
bool HeldChanges::isNew(AttributeId attribute, NotifieeKey const* key) {
    if (!key) {
        if (std::ranges::find(attributes_, attribute) != attributes_.end()) return false;
        attributes_.push_back(attribute);
        return true;
    }
    NboAttrLog::Out bytes;
    bytes << attribute;
    key->type().glue().write(bytes, key->data());
    return keys_.emplace(reinterpret_cast<char const*>(bytes.data()), bytes.size()).second;
}

void HeldChanges::add(AttributeId attribute, NotifieeKey const* key) {
    if (isNew(attribute, key)) changes_.emplace_back(attribute, key);
}

void HeldChanges::tell() {
    release();
    if (!outer_) return entity_->notifieeList()->visitHeld(*this);
    for (Change const& change : changes_) {
        if (!change.key) {
            outer_->add(change.attribute, nullptr);
        } else {
            NotifieeKey const key(*change.key);
            outer_->add(change.attribute, &key);
        }
    }
}

}  // namespace Vel
