#include "Mount/internal/Users.h"

#include "Vel/base/Exception.h"
#include "Vel/text/Strep.h"

#include <cerrno>
#include <charconv>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>

namespace Mount {

namespace {

constexpr std::size_t mostRoom = 1 << 24;  // bytes of one entry; that of a group lists its users

// An entry of one of the system's tables.
template <class Row> struct Found {
    std::vector<char> room = std::vector<char>(1024);  // has the texts that `row` points to
    Row row{};
    bool isThere = false;
};

// Calls look(row, room, size, found), a function like getpwnam_r(), with more and more room until the entry fits.
template <class Row, class Look> Found<Row> found(Look look) {
    Found<Row> entry;
    Row* row = nullptr;
    while (look(&entry.row, entry.room.data(), entry.room.size(), &row) == ERANGE && entry.room.size() < mostRoom)
        entry.room.resize(2 * entry.room.size());
    entry.isThere = row != nullptr;
    return entry;
}

Found<passwd> userWith(uid_t number) {
    return found<passwd>([number](auto... to) { return ::getpwuid_r(number, to...); });
}

std::optional<Vel::U32> numberOf(String const& text) {
    Vel::U32 number = 0;
    char const* const end = text.data() + text.size();
    auto const [at, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && at == end && !text.empty() ? std::optional(number) : std::nullopt;
}

}  // namespace

std::optional<Vel::U32> userNumber(String const& name) {
    if (auto const number = numberOf(name)) return number;
    auto const user = found<passwd>([&](auto... to) { return ::getpwnam_r(name.charPtr(), to...); });
    return user.isThere ? std::optional<Vel::U32>(user.row.pw_uid) : std::nullopt;
}

std::optional<Vel::U32> groupNumber(String const& name) {
    if (auto const number = numberOf(name)) return number;
    auto const group = found<::group>([&](auto... to) { return ::getgrnam_r(name.charPtr(), to...); });
    return group.isThere ? std::optional<Vel::U32>(group.row.gr_gid) : std::nullopt;
}

String userName(uid_t number) {
    auto const user = userWith(number);
    return user.isThere ? String(user.row.pw_name) : String(std::to_string(number));
}

std::vector<uid_t> usersOf(std::vector<String> const& names) {
    std::vector<uid_t> users;
    users.reserve(names.size());
    for (String const& name : names) {
        auto const user = userNumber(name);
        if (!user) throw Vel::RangeException("there is no user " + Vel::valueToStrep(name) + " on this machine");
        users.push_back(*user);
    }
    return users;
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

std::vector<gid_t> groupsOf(uid_t number) {
    auto const user = userWith(number);
    return user.isThere ? groupsOf(number, user.row.pw_gid) : std::vector<gid_t>();
}

}  // namespace Mount
