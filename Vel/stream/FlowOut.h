#pragma once

#include "Vel/describe/StreamTable.h"

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Vel::NboAttrLog {

// What one reader still has to be sent of one entity: a flag for each attribute, the keys that have changed, and how
// far a collection is that is sent as a whole. Values are read when they are sent, so changes that come faster than the
// reader takes them leave one flag.
class VEL_API FlowOut {
public:
    static constexpr AttributeId fromStart = 0;
    static constexpr AttributeId fromEnd = ~AttributeId(0);  // nothing to send yet

    // (Re)synchronises from the attribute `from`: values and pointers from there on are dirty, and collections before
    // it have synced.
    FlowOut(StreamTable const& table, AttributeId from);
    FlowOut(FlowOut const&) = delete;
    FlowOut& operator=(FlowOut const&) = delete;
    virtual ~FlowOut();

    StreamTable const& table() const { return table_; }

    // Of values and pointers. The setter says whether the flag has changed.
    bool velIsDirty(AttributeId id) const { return flag(id) && !isCollection(id); }
    bool velIsDirtyIs(AttributeId id, bool dirty) { return flagIs(id, dirty); }
    // Of collections: all keys that there were have been sent.
    bool velHasSynced(AttributeId id) const { return !flag(id) && isCollection(id); }
    void velHasSyncedIs(AttributeId id, bool synced) { flagIs(id, !synced); }
    // Of a collection that the reader has, or has in part: it is sent anew, and what does not come then is not there.
    bool velComesAgain(AttributeId id) const;
    void velComesAgainIs(AttributeId id, bool on);
    bool isClean() const { return flagged_ == 0 && !velHasDirtyKeys(); }

    // Where to go on. While that is a collection, the bookmark has its keys that are left.
    AttributeId resumeId() const { return resumeId_; }
    void resumeIdIs(AttributeId id) { resumeId_ = id; }
    Bookmark* bookmark() const { return bookmark_.get(); }
    void bookmarkIs(std::unique_ptr<Bookmark> bookmark) { bookmark_ = std::move(bookmark); }
    // Forgets where to go on; the bookmark goes only if the flow stopped within a collection.
    void velResyncStateDel();

    // --- keys, each as its encoding ---

    virtual bool velHasDirtyKeys() const;
    virtual bool velHasDirtyKeys(AttributeId id) const;
    virtual bool velKeyIsDirty(AttributeId id, std::string_view key) const;
    // Flags the key; `ephemeral`: its member has gone and another come meanwhile, so that the deletion is sent before
    // the key. Whether the key was clean.
    virtual bool velKeyIsDirtyIs(AttributeId id, std::string_view key, bool ephemeral);
    struct DirtyKey {
        std::string key;
        bool ephemeral = false;
    };
    virtual void velDirtyKeyDel(AttributeId id, std::string_view key);  // the key need not be flagged
    virtual DirtyKey velDirtyKeyTake(AttributeId id);  // removes the flag too. REQUIRES: velHasDirtyKeys(id)
    virtual std::size_t velDirtyKeys(AttributeId id) const;
    virtual void velDirtyKeyDelAll(AttributeId id);

    // Whether there are more flags of keys than `members`, a function, says that the collection has members, and more
    // than `leastKeys`. Asks again only when there are twice as many flags, since counting may take its time.
    static constexpr std::size_t leastKeys = 64;
    template <class F> bool velHasTooManyKeys(AttributeId id, F members) {
        std::size_t const keys = velDirtyKeys(id);
        if (keys <= leastKeys || keys <= counted(id)) return false;
        if (keys > members()) return true;
        countedIs(id, 2 * keys);
        return false;
    }

private:
    bool isCollection(AttributeId id) const;
    bool flag(AttributeId id) const;
    bool flagIs(AttributeId id, bool on);
    std::size_t counted(AttributeId id) const;
    void countedIs(AttributeId id, std::size_t keys);

    // What few collections have.
    struct Bound {
        std::size_t counted = 0;  // flags up to which the members need not be counted
        bool comesAgain = false;
    };
    StreamTable const& table_;
    AttributeId resumeId_ = fromStart;
    std::size_t flagged_ = 0;
    std::vector<bool> flags_;  // of a value or pointer: dirty; of a collection: not synced
    std::unique_ptr<Bookmark> bookmark_;
    std::map<AttributeId, std::map<std::string, bool, std::less<>>> keys_;  // and whether they are ephemeral
    std::unique_ptr<std::map<AttributeId, Bound>> bounds_;
};

}  // namespace Vel::NboAttrLog
