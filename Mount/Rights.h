#pragma once

#include "Vel/base/String.h"
#include "Vel/stream/StreamRights.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace Mount {

using Vel::Access;
using Vel::String;
using Vel::U32;

// Who is on the other side of a connection, as the system or a certificate says.
struct RightsPeer {
    std::optional<uid_t> user{};  // at a Unix socket
    std::vector<gid_t> groups{};  // of that user
    String name{};                // the common name of the peer's certificate; empty without one
};

// Finds the number of a user or a group, also if the name is a number. Returns nothing for a name that nobody has.
struct RightsNames {
    using Find = std::function<std::optional<U32>(String const& name)>;
    Find user{};  // null: asks the system, as for `group`
    Find group{};
};

// Who may read, change and call what in the tree that a server serves. A rule says what somebody may do with the entity
// at a path and with all below it. Docs: docs/rights.md.
//
// Of the rules that apply to a peer, those at the deepest path that leads to an entity decide, whoever they are for. At
// one path a rule for the user by name or number decides before one for a certificate's exact name, that before one for
// a pattern of names, that before one for a group, and that before one for everybody. If several of the same kind
// apply, everything is allowed that one of them allows. Where no rule applies, nothing is allowed.
// Threads: one at a time.
class VEL_API Rights {
public:
    enum class Who : Vel::U8 { everybody, group, pattern, name, user };  // in the order in which they decide
    struct Rule {
        Who who = Who::everybody;
        String whoText{};  // as it was written: "user:alice"
        U32 number = 0;    // of the user or the group
        String name{};     // of the certificate; of a pattern "*.lab.example", what is behind the star
        String path{};     // one "/" between names, none at the ends
        Access may = Access::none;
        std::size_t line = 0;  // of the text; 0: made from code
    };
    struct Mistake {
        std::size_t line, column;  // from 1 on; the column in bytes
        String text;
    };
    static constexpr std::size_t mostRules = 10'000;
    static constexpr std::size_t mostMistakes = 100;     // that are noted
    static constexpr std::size_t longestText = 1 << 20;  // bytes
    static constexpr std::size_t longestPath = 1024;     // bytes

    Rights();
    Rights(Rights const&) = delete;
    Rights& operator=(Rights const&) = delete;
    ~Rights();

    // Adds a rule. `who` is "everybody", "user:NAME", "group:NAME" or "name:PATTERN". Throws RangeException if that is
    // no such thing, if nobody has the name, or if there are too many rules. REQUIRES: ofPeer() was not called yet.
    void add(std::string_view who, std::string_view path, Access may, RightsNames const& names = {});
    // Reads rules, one on a line: "WHO PATH MAY...". What is wrong is noted, and left out.
    static std::shared_ptr<Rights> parsed(
        std::string_view text, std::vector<Mistake>& mistakes, RightsNames const& names = {});
    // The same, but throws RangeException with all mistakes, one on a line.
    static std::shared_ptr<Rights> of(std::string_view text);

    // Returns the peer of which these texts say who it is: "user:NAME", "group:NAME" and "name:NAME". A user also has
    // the groups that this machine knows. Throws RangeException as add().
    static RightsPeer peerOf(std::span<String const> who, RightsNames const& names = {});

    std::span<Rule const> rules() const { return rules_; }
    static bool applies(Rule const& rule, RightsPeer const& peer);
    // Returns the rules that decide what the peer may do at the path: of one kind and at one path. If there are none,
    // the peer may do nothing there.
    std::vector<Rule const*> deciding(RightsPeer const& peer, std::string_view path) const;
    // Returns the rights of the peer. Peers to which the same rules apply share an object, as long as one uses it.
    std::shared_ptr<Vel::StreamRights const> ofPeer(RightsPeer const& peer) const;

private:
    using Chosen = std::vector<std::size_t>;  // indexes of rules
    class Reader;

    std::vector<Rule> rules_;
    mutable std::map<Chosen, std::weak_ptr<Vel::StreamRights const>> shared_;
    mutable std::size_t mostShared_ = 64;  // when there are so many, those that nobody uses are removed
};

// Returns the union of what the rules allow.
VEL_API Access accessOf(std::span<Rights::Rule const* const> rules);
// "read write call", "nothing".
VEL_API String textOf(Access access);

}  // namespace Mount
