#include "Mox/PrefixTrieFlowOut.h"

#include "Vel/text/NboAttrLog.h"

namespace Mox {

namespace {

// Keys are passed as the attribute log encodes them: a length of 4 bytes, and the text.
String textOf(std::string_view key) { return String(key.substr(4)); }

std::string encoded(String const& text) {
    std::string bytes(4 + text.length(), '\0');
    Vel::NboAttrLog::store(reinterpret_cast<Vel::U8*>(bytes.data()), static_cast<Vel::U32>(text.length()));
    text.view().copy(bytes.data() + 4, text.length());
    return bytes;
}

}  // namespace

PrefixTrie::FlowOut::FlowOut(Vel::StreamTable const& table, Vel::AttributeId from)
    : Vel::NboAttrLog::FlowOut(table, from) {}
PrefixTrie::FlowOut::~FlowOut() = default;

Vel::NboAttrLog::FlowOut* PrefixTrie::velNewFlowOut(Vel::StreamTable const& table, Vel::AttributeId from) {
    return new FlowOut(table, from);
}

bool PrefixTrie::FlowOut::velHasDirtyKeys() const {
    return !child_.empty() || !prefixChild_.empty() || !ephemeral_.empty() ||
           Vel::NboAttrLog::FlowOut::velHasDirtyKeys();
}

bool PrefixTrie::FlowOut::velHasDirtyKeys(Vel::AttributeId id) const {
    if (id == childAttribute) return !child_.empty();
    if (id == prefixChildAttribute) return !prefixChild_.empty();
    return Vel::NboAttrLog::FlowOut::velHasDirtyKeys(id);
}

bool PrefixTrie::FlowOut::velKeyIsDirty(Vel::AttributeId id, std::string_view key) const {
    if (id == childAttribute) return child_.contains(textOf(key));
    if (id == prefixChildAttribute) return prefixChild_.contains(textOf(key));
    return Vel::NboAttrLog::FlowOut::velKeyIsDirty(id, key);
}

bool PrefixTrie::FlowOut::velKeyIsDirtyIs(Vel::AttributeId id, std::string_view key, bool ephemeral) {
    if (id != childAttribute && id != prefixChildAttribute)
        return Vel::NboAttrLog::FlowOut::velKeyIsDirtyIs(id, key, ephemeral);
    String const text = textOf(key);
    if (ephemeral) ephemeral_.insert(text);
    return keys(id).insert(text).second;
}

void PrefixTrie::FlowOut::velDirtyKeyDel(Vel::AttributeId id, std::string_view key) {
    if (id != childAttribute && id != prefixChildAttribute) return Vel::NboAttrLog::FlowOut::velDirtyKeyDel(id, key);
    keys(id).erase(textOf(key));
    if (id == prefixChildAttribute) ephemeral_.erase(textOf(key));
}

PrefixTrie::FlowOut::DirtyKey PrefixTrie::FlowOut::velDirtyKeyTake(Vel::AttributeId id) {
    if (id != childAttribute && id != prefixChildAttribute) return Vel::NboAttrLog::FlowOut::velDirtyKeyTake(id);
    String const text = *keys(id).begin();
    keys(id).erase(keys(id).begin());
    return {encoded(text), id == prefixChildAttribute && ephemeral_.erase(text) != 0};
}

std::size_t PrefixTrie::FlowOut::velDirtyKeys(Vel::AttributeId id) const {
    if (id == childAttribute) return child_.size();
    if (id == prefixChildAttribute) return prefixChild_.size();
    return Vel::NboAttrLog::FlowOut::velDirtyKeys(id);
}

void PrefixTrie::FlowOut::velDirtyKeyDelAll(Vel::AttributeId id) {
    if (id != childAttribute && id != prefixChildAttribute) return Vel::NboAttrLog::FlowOut::velDirtyKeyDelAll(id);
    keys(id).clear();
    if (id == prefixChildAttribute) ephemeral_.clear();
}

}  // namespace Mox
