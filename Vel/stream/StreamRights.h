#pragma once

#include "Vel/base/String.h"

#include <string>
#include <string_view>

namespace Vel {

// What may be done with an entity. Who may change it or call its methods may also read it.
enum class Access : U32 { none = 0, read = 1, write = 3, call = 5, all = 7 };

constexpr Access operator|(Access a, Access b) {
    return static_cast<Access>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
}
constexpr Access operator&(Access a, Access b) {
    return static_cast<Access>(static_cast<unsigned>(a) & static_cast<unsigned>(b));
}
constexpr bool allows(Access access, Access needed) {
    return (static_cast<U8>(access) & static_cast<U8>(needed)) == static_cast<U8>(needed);
}

// Returns the path `above` with the names of `path` behind it, one "/" between two names and none at the ends, so that
// all spellings of a path become one. `above` has that form.
VEL_API std::string plainPath(std::string_view path, std::string above = {});

// What some readers may do with the entities that a server serves. What they may not read is not there for them.
//
// A path names an entity by the names of those above it and by its own, from the served root down, with one "/" between
// two names. The root's path is empty. An entity that is referred to at several places has the rights of its path,
// which its parents make. An entity that is in no place below the root can be read by those who can read something that
// refers to it, and changed by those who may change the root. An entity that is taken out of its place keeps the rights
// of that until it is put into another one.
class VEL_API StreamRights {
public:
    StreamRights() = default;
    StreamRights(StreamRights const&) = delete;
    StreamRights& operator=(StreamRights const&) = delete;
    virtual ~StreamRights();

    // REQUIRES: the answer for a path is always the same.
    virtual Access of(String const& path) const = 0;
    virtual Access most() const = 0;   // all that is allowed at some path or other
    virtual Access least() const = 0;  // what is allowed at each path
};

}  // namespace Vel
