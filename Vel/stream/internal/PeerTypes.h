#pragma once

#include "Vel/describe/ForeignTypes.h"
#include "Vel/stream/StreamPeer.h"
#include "Vel/stream/StreamPolicy.h"

#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Vel {

// The types that the source of a copy has told of in this connection, and what they are here.
class VEL_API PeerTypes {
public:
    static constexpr std::size_t mostDifferences = 1024;  // lines
    static constexpr std::size_t mostLookedAt = 16;       // former connections of which a type is looked for

    PeerTypes(StreamPolicy policy, StreamLimits const& limits) : policy_(policy), limits_(limits) {}

    struct Type {
        VelType type;              // of the entities of the copy
        StreamTable const* table;  // their attributes, with the source's numbers
        std::shared_ptr<ForeignTypes> keep{};
    };

    void clear();                         // called for a new connection
    void describe(NboAttrLog::In& body);  // a message `description`
    void tell(NboAttrLog::In& body);      // a message `type`
    // All throw StreamException, or StreamRefusalException for a type that cannot be copied.

    Type const* find(U32 index) const {  // or null
        auto const found = types_.find(index);
        return found == types_.end() ? nullptr : &found->second;
    }
    // Whether every type that was told of is the same on both sides.
    bool areExact() const { return areExact_; }
    // Whether the source has not described the type of values otherwise than this process has it.
    bool isAsHere(VelType value) const { return !foreign_ || isSameType(foreign_->find(value.name()), value); }
    // Returns whether an entity of the type may be at the attribute. Notes a difference if not. Throws StreamException
    // if it is the source's fault. `owner` is the type that has the attribute.
    bool mayHold(VelType owner, StreamAttribute const& attribute, VelType type);

    // Estimated bytes of what was described, in former connections as well as long as anything in this process has a
    // type of it.
    std::size_t size() const { return formerSize_ + (foreign_ ? foreign_->size() : 0); }

    std::vector<String> const& differences() const { return differences_; }

private:
    struct Table {  // of a type that is copied by name
        std::vector<StreamAttribute> rows;
        std::deque<VelType> keys;  // of the attributes that are skipped
        StreamTable table{};
    };
    Type const& added(U32 index, Type type);
    VelType inUse(VelType theirs) const;
    StreamTable const& byName(VelType foreign, VelType local);
    StreamAttribute rowByName(
        Table& table, TypeDescription::Attribute const& theirs, VelType owner, StreamAttribute const& described);
    void noteForeign(VelType type);
    void note(String const& where, String const& what);

    StreamPolicy policy_;
    StreamLimits const& limits_;
    std::map<U32, Type> types_;
    std::shared_ptr<ForeignTypes> foreign_;            // null: nothing has been described
    std::vector<std::weak_ptr<ForeignTypes>> former_;  // of former connections, the oldest first
    std::size_t formerSize_ = 0;
    std::size_t described_ = 0;                   // bytes of descriptions
    std::map<ForeignType const*, Table> tables_;  // by the source's type
    std::vector<String> differences_;
    std::set<std::string> noted_;  // the same
    bool areExact_ = true;
};

}  // namespace Vel
