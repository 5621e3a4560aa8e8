#pragma once

#include "Mox/PrefixTrie.h"

#include "Vel/stream/FlowOut.h"

#include <set>

namespace Mox {

// What one reader still has to be sent of a node: flags for state, mountPoint and present, and three sets of keys.
// Threads: as the trie.
class VEL_API PrefixTrie::FlowOut final : public Vel::NboAttrLog::FlowOut {
public:
    using Keys = std::set<String>;

    FlowOut(Vel::StreamTable const& table, Vel::AttributeId from);
    ~FlowOut() override;

    Keys const& childDirtyKeys() const { return child_; }
    Keys const& prefixChildDirtyKeys() const { return prefixChild_; }
    // The keys of prefixChildDirtyKeys() whose member was deleted and made again: the deletion is sent before the key.
    Keys const& prefixChildEphemeralDirtyKeys() const { return ephemeral_; }

    bool velHasDirtyKeys() const override;
    bool velHasDirtyKeys(Vel::AttributeId id) const override;
    bool velKeyIsDirty(Vel::AttributeId id, std::string_view key) const override;
    bool velKeyIsDirtyIs(Vel::AttributeId id, std::string_view key, bool ephemeral) override;
    void velDirtyKeyDel(Vel::AttributeId id, std::string_view key) override;
    DirtyKey velDirtyKeyTake(Vel::AttributeId id) override;
    std::size_t velDirtyKeys(Vel::AttributeId id) const override;
    void velDirtyKeyDelAll(Vel::AttributeId id) override;

private:
    Keys& keys(Vel::AttributeId id) { return id == childAttribute ? child_ : prefixChild_; }

    Keys child_;
    Keys prefixChild_;
    Keys ephemeral_;  // a key that is in here is in prefixChild_ too
};

}  // namespace Mox
