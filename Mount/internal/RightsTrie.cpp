#include "Mount/internal/RightsTrie.h"

#include "Mount/Rights.h"

namespace Mount {

bool AccessState::upgradeState(Vel::Ptr<Mox::PrefixTrieState> const& given, bool inheritedOnly) {
    Vel::Access const before = access_;
    if (!inheritedOnly) access_ = static_cast<AccessState const&>(*given).access();
    return access_ != before;
}

Vel::String AccessState::outputForm() { return textOf(access_); }

namespace {

Vel::String pathInTrie(std::string_view path) {
    std::string plain;
    for (char const c : path) {
        if (c != '.' && c != '*' && c != '%')
            plain += c;
        else
            plain += c == '.' ? "%2E" : c == '*' ? "%2A" : "%25";
    }
    return Vel::String(plain);
}

}  // namespace

void AccessTrie::accessIs(std::string_view path, Vel::Access access) {
    prefixIs(pathInTrie(path), AccessState::newState(access));
}

Vel::Access AccessTrie::access(std::string_view path, Vel::Access otherwise) const {
    Vel::String const prefix = enclosingPrefix(pathInTrie(path).view());
    auto const state = prefix.empty() ? nullptr : prefixState(prefix.view());
    return state ? static_cast<AccessState const&>(*state).access() : otherwise;
}

}  // namespace Mount
