#include "Vel/stream/FlowOut.h"

namespace Vel::NboAttrLog {

FlowOut::FlowOut(StreamTable const& table, AttributeId from) : table_(table), flags_(table.attributes.size()) {
    for (std::size_t i = 0; i < flags_.size(); ++i) {
        flags_[i] = table.attributes[i].id >= from;
        flagged_ += flags_[i];
    }
}

FlowOut::~FlowOut() = default;

bool FlowOut::isCollection(AttributeId id) const {
    StreamAttribute const* const attribute = table_.find(id);
    return attribute && attribute->isCollection();
}

bool FlowOut::flag(AttributeId id) const {
    StreamAttribute const* const attribute = table_.find(id);
    return attribute && flags_[table_.index(*attribute)];
}

bool FlowOut::flagIs(AttributeId id, bool on) {
    StreamAttribute const* const attribute = table_.find(id);
    if (!attribute) return false;
    auto flag = flags_[table_.index(*attribute)];
    if (flag == on) return false;
    flag = on;
    if (on)
        ++flagged_;
    else
        --flagged_;
    return true;
}

void FlowOut::velResyncStateDel() {
    if (isCollection(resumeId_)) bookmark_ = nullptr;
    resumeId_ = fromStart;
}

// --- keys ---

bool FlowOut::velComesAgain(AttributeId id) const {
    if (!bounds_) return false;
    auto const found = bounds_->find(id);
    return found != bounds_->end() && found->second.comesAgain;
}

void FlowOut::velComesAgainIs(AttributeId id, bool on) {
    if (!on) {
        if (bounds_) bounds_->erase(id);
        return;
    }
    if (resumeId_ == id) bookmark_ = nullptr;
    velDirtyKeyDelAll(id);
    velHasSyncedIs(id, false);
    if (!bounds_) bounds_ = std::make_unique<std::map<AttributeId, Bound>>();
    (*bounds_)[id] = {0, true};
}

std::size_t FlowOut::counted(AttributeId id) const {
    if (!bounds_) return 0;
    auto const found = bounds_->find(id);
    return found == bounds_->end() ? 0 : found->second.counted;
}

void FlowOut::countedIs(AttributeId id, std::size_t keys) {
    if (!bounds_) bounds_ = std::make_unique<std::map<AttributeId, Bound>>();
    (*bounds_)[id].counted = keys;
}

std::size_t FlowOut::velDirtyKeys(AttributeId id) const {
    auto const keys = keys_.find(id);
    return keys == keys_.end() ? 0 : keys->second.size();
}

void FlowOut::velDirtyKeyDelAll(AttributeId id) { keys_.erase(id); }

bool FlowOut::velHasDirtyKeys() const { return !keys_.empty(); }
bool FlowOut::velHasDirtyKeys(AttributeId id) const { return keys_.contains(id); }

bool FlowOut::velKeyIsDirty(AttributeId id, std::string_view key) const {
    auto const keys = keys_.find(id);
    return keys != keys_.end() && keys->second.contains(key);
}

bool FlowOut::velKeyIsDirtyIs(AttributeId id, std::string_view key, bool ephemeral) {
    auto const [place, isNew] = keys_[id].try_emplace(std::string(key), ephemeral);
    place->second = place->second || ephemeral;
    return isNew;
}

void FlowOut::velDirtyKeyDel(AttributeId id, std::string_view key) {
    auto const keys = keys_.find(id);
    if (keys == keys_.end()) return;
    auto const found = keys->second.find(key);
    if (found != keys->second.end()) keys->second.erase(found);
    if (keys->second.empty()) keys_.erase(keys);
}

FlowOut::DirtyKey FlowOut::velDirtyKeyTake(AttributeId id) {
    auto const keys = keys_.find(id);
    auto node = keys->second.extract(keys->second.begin());
    if (keys->second.empty()) keys_.erase(keys);
    return {std::move(node.key()), node.mapped()};
}

}  // namespace Vel::NboAttrLog
