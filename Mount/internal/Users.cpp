#include "Mount/internal/Users.h"

#include "Mount/internal/Socket.h"

#include "Vel/base/Exception.h"

#include <cerrno>
#include <charconv>
#include <grp.h>
#include <pwd.h>

namespace Mount {

namespace {

constexpr std::size_t mostRoom = 1 << 24;  // bytes of one entry of the system's tables

std::optional<Vel::U32> numberOf(String const& text) {
    Vel::U32 number = 0;
    char const* const end = text.data() + text.size();
    auto const [at, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && at == end && !text.empty() ? std::optional(number) : std::nullopt;
}

}  // namespace

std::optional<Vel::U32> userNumber(String const& name) {
    try {
        return usersOf({name}).front();
    } catch (Vel::RangeException const&) {
        return std::nullopt;
    }
}

std::optional<Vel::U32> groupNumber(String const& name) {
    if (auto const number = numberOf(name)) return number;
    group entry{};
    group* found = nullptr;
    for (std::vector<char> room(1024); room.size() <= mostRoom; room.resize(2 * room.size())) {
        int const error = ::getgrnam_r(name.charPtr(), &entry, room.data(), room.size(), &found);
        if (error != ERANGE) return found ? std::optional<Vel::U32>(entry.gr_gid) : std::nullopt;
    }
    return std::nullopt;
}

gid_t groupOf(int unixSocket) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(unixSocket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return static_cast<gid_t>(-1);
    return credentials.gid;
}

std::vector<gid_t> groupsOf(uid_t user, gid_t first) {
    String const name = userName(user);
    std::vector<gid_t> groups(32);
    for (;;) {
        int count = static_cast<int>(groups.size());
        if (::getgrouplist(name.charPtr(), first, groups.data(), &count) >= 0) {
            groups.resize(static_cast<std::size_t>(count));
            return groups;
        }
        if (groups.size() >= mostGroups) return {first};
        groups.resize(2 * groups.size());
    }
}

std::vector<gid_t> groupsOf(uid_t user) {
    passwd entry{};
    passwd* found = nullptr;
    for (std::vector<char> room(1024); room.size() <= mostRoom; room.resize(2 * room.size())) {
        int const error = ::getpwuid_r(user, &entry, room.data(), room.size(), &found);
        if (error != ERANGE) return found ? groupsOf(user, entry.pw_gid) : std::vector<gid_t>();
    }
    return {};
}

}  // namespace Mount
