#pragma once

#include "Mox/PrefixTrie.h"
#include "Vel/stream/StreamRights.h"

#include <string_view>

namespace Mount {

// What may be done below a prefix. A longer prefix has a state of its own, and inherits nothing.
//
// Nobody sees these objects but Rights. So they have no descriptions, and no module that readers would have to name.
class AccessState final : public Mox::PrefixTrieState {
public:
    static Vel::Ptr<AccessState> newState(Vel::Access access) { return Vel::Ptr<AccessState>(new AccessState(access)); }

    Vel::Access access() const { return access_; }
    bool upgradeState(Vel::Ptr<Mox::PrefixTrieState> const& given, bool inheritedOnly) override;
    Vel::String outputForm() override;

private:
    explicit AccessState(Vel::Access access) : access_(access) {}

    Vel::Access access_;
};

// What one set of peers may do, by path. A component of the trie's paths is a name, so what else would end one, or
// would mark a mount point, is written as "%" and two hexadecimal digits.
class AccessTrie final : public Mox::PrefixTrie {
public:
    static Vel::Ptr<AccessTrie> newEntity(Vel::String const& name) {
        return Vel::Ptr<AccessTrie>(new AccessTrie(name));
    }

    void accessIs(std::string_view path, Vel::Access access);  // REQUIRES: the path is not empty, and is new
    // Returns what may be done at the path, or `otherwise` if no prefix encloses it.
    Vel::Access access(std::string_view path, Vel::Access otherwise) const;

    Vel::Ptr<State> newStateIs() override { return AccessState::newState(Vel::Access::none); }
    Vel::Ptr<PrefixTrie> newChildIs(Vel::String const& key) override { return newChildOf<AccessTrie>(key); }
    void childInstanceDel(Vel::String const& key) override { prefixChildDel(key); }

private:
    using PrefixTrie::PrefixTrie;
};

}  // namespace Mount
