#pragma once

#include "Vel/base/String.h"

#include <optional>
#include <sys/types.h>
#include <vector>

namespace Mount {

using Vel::String;

// Users and groups of this machine. A look-up may block where they are kept on another one.

inline constexpr std::size_t mostGroups = 65'536;  // of a user

String userName(uid_t user);  // or the number as text, if the user has no name
// Returns the users with these names or numbers. Throws RangeException for a name that no user has.
std::vector<uid_t> usersOf(std::vector<String> const& names);

// Return the number of the user or the group with this name, or the number that the text is. Return nothing if there is
// no such name.
std::optional<Vel::U32> userNumber(String const& name);
std::optional<Vel::U32> groupNumber(String const& name);
gid_t groupOf(int unixSocket);  // the group of the process on the other side
// Returns the groups of the user, and the group `first`.
std::vector<gid_t> groupsOf(uid_t user, gid_t first);
std::vector<gid_t> groupsOf(uid_t user);  // none for a user without a name

}  // namespace Mount
