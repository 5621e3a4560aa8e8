#pragma once

#include "Vel/describe/StreamTable.h"

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Vel::NboAttrLog {

// What one reader still has to be sent of one entity: a flag for each attribute, the keys that have changed, and a
// bookmark in the collection that is being listed. Values are read when they are sent, so an attribute has one flag
// even if it changes faster than the reader takes the changes.
class VEL_API FlowOut {
public:
    static constexpr AttributeId fromStart = 0;
    static constexpr AttributeId fromEnd = ~AttributeId(0);  // nothing is flagged

    // Flags the attributes from `from` on: these values and pointers are dirty, and these collections have not synced.
    // Collections before them have synced.
    FlowOut(StreamTable const& table, AttributeId from);
    FlowOut(FlowOut const&) = delete;
    FlowOut& operator=(FlowOut const&) = delete;
    virtual ~FlowOut();

    StreamTable const& table() const { return table_; }

    // For values and pointers. The setter returns whether the flag has changed.
    bool velIsDirty(AttributeId id) const { return flag(id) && !isCollection(id); }
    bool velIsDirtyIs(AttributeId id, bool dirty) { return flagIs(id, dirty); }
    // Whether the values that are dirty are sent in one message, since some of them have changed together.
    bool velIsTogether() const { return isTogether_; }
    void velIsTogetherIs(bool on) { isTogether_ = on; }
    // For collections: whether all keys have been listed, that is, sent at least once.
    bool velHasSynced(AttributeId id) const { return !flag(id) && isCollection(id); }
    void velHasSyncedIs(AttributeId id, bool synced) { flagIs(id, !synced); }
    // For a collection of which the reader has all or a part: whether all its keys are sent again. Keys that are not
    // sent then have gone. Setting it drops the flags of the keys.
    bool velComesAgain(AttributeId id) const;
    void velComesAgainIs(AttributeId id, bool on);
    bool isClean() const { return flagged_ == 0 && !velHasDirtyKeys(); }

    // The attribute at which to resume. If it is a collection, the bookmark has its keys that are left.
    AttributeId resumeId() const { return resumeId_; }
    void resumeIdIs(AttributeId id) { resumeId_ = id; }
    Bookmark* bookmark() const { return bookmark_.get(); }
    void bookmarkIs(std::unique_ptr<Bookmark> bookmark) { bookmark_ = std::move(bookmark); }
    // Resets resumeId(). Drops the bookmark too if resumeId() was a collection.
    void velResyncStateDel();

    // --- keys, each as its encoding ---

    virtual bool velHasDirtyKeys() const;
    virtual bool velHasDirtyKeys(AttributeId id) const;
    virtual bool velKeyIsDirty(AttributeId id, std::string_view key) const;
    // Flags the key, and returns whether it was clean. `ephemeral` says that its member has gone and another one has
    // come, so that the deletion is sent before the key.
    virtual bool velKeyIsDirtyIs(AttributeId id, std::string_view key, bool ephemeral);
    struct DirtyKey {
        std::string key;
        bool ephemeral = false;
    };
    virtual void velDirtyKeyDel(AttributeId id, std::string_view key);  // the key need not be flagged
    // Returns a key, and removes its flag. REQUIRES: velHasDirtyKeys(id)
    virtual DirtyKey velDirtyKeyTake(AttributeId id);
    virtual std::size_t velDirtyKeys(AttributeId id) const;
    virtual void velDirtyKeyDelAll(AttributeId id);

    // Returns whether the collection has more flagged keys than members, and more than `leastKeys`. members() counts
    // the members. They are counted again only if the flags have doubled, since counting may visit all members.
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

    // What only few collections need.
    struct Bound {
        std::size_t counted = 0;  // number of flags up to which the members are not counted
        bool comesAgain = false;
    };
    StreamTable const& table_;
    AttributeId resumeId_ = fromStart;
    bool isTogether_ = false;
    std::size_t flagged_ = 0;
    std::vector<bool> flags_;  // of a value or pointer: dirty; of a collection: not synced
    std::unique_ptr<Bookmark> bookmark_;
    std::map<AttributeId, std::map<std::string, bool, std::less<>>> keys_;  // the flagged keys; true: ephemeral
    std::unique_ptr<std::map<AttributeId, Bound>> bounds_;
};

}  // namespace Vel::NboAttrLog
