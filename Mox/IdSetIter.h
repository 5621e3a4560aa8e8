#pragma once

#include "Mox/IdSet.h"

#include "Vel/base/Ptr.h"

#include <bit>
#include <iterator>
#include <type_traits>

// The iterators of an id set, which Mox/IdSet.h brings along. None owns its set or may outlive it.
namespace Mox {

// Walks the members; it does not own the set, which may change meanwhile: next() looks from where it stands.
template <class Set> class IdSet::IdIteratorOf {
public:
    explicit IdIteratorOf(Set& set) : set_(&set), curId_(set.firstId()) {}
    IdIteratorOf(Set& set, Id start) : set_(&set), curId_(start) {
        if (start != Id() && !set.id(start)) next();
    }

    explicit operator bool() const { return curId_ != Id(); }
    Id key() const {  // REQUIRES: true
        check(true);
        return curId_;
    }
    Id next() {  // REQUIRES: true
        check(false);
        return curId_ = set_->nextId(curId_);
    }

private:
    void check(bool inKey) const {
        if (curId_ == Id()) [[unlikely]]
            failIterator(std::is_const_v<Set>, inKey);
    }

    Set* set_;
    Id curId_;
};

// A bucket as a collection hands it out: what it was when the iterator came to it, whatever becomes of the set.
class VEL_API IdSet::VelBucket : public Vel::TrackedOf<VelBucket> {
public:
    VelBucket(BucketId key, U64 word) : key_(key), word_(word) {}
    VelBucket& operator=(VelBucket const&) = default;
    ~VelBucket() override;
    Vel::VelType fwkType() const override;
    static Vel::AllocTrackTypeInfo& velAllocTrack();

    BucketId key() const { return key_; }
    U64 word() const { return word_; }

private:
    BucketId key_;
    U64 word_;
};

// Walks the stored buckets in ascending order. The set may change meanwhile: ++ goes to the next bucket stored then.
class VEL_API IdSet::BucketIterator {
public:
    explicit BucketIterator(IdSet const& set) : set_(&set) { goTo(0); }

    explicit operator bool() const { return bool(element_); }
    BucketId key() const { return element_->key(); }                   // REQUIRES: true
    U64 word() const { return element_->word(); }                      // REQUIRES: true
    Vel::Ptr<VelBucket> const& operator*() const { return element_; }  // null at the end
    BucketIterator& operator++() {                                     // REQUIRES: true
        goTo(key().value() + 1u);
        return *this;
    }

private:
    void goTo(unsigned from);

    IdSet const* set_;
    Vel::Ptr<VelBucket> element_;
};

// Walks the members below the size as they are: a bitmap's word at a time.
class IdSet::Iterator {
public:
    using iterator_concept = std::forward_iterator_tag;
    using iterator_category = std::input_iterator_tag;
    using value_type = Id;
    using difference_type = std::ptrdiff_t;

    Iterator() = default;
    explicit Iterator(IdSet const& set) : set_(&set), cursor_(set.words_) { goToNextWord(); }

    Id operator*() const { return Id(static_cast<U16>(bucket_ * 64 + static_cast<unsigned>(std::countr_zero(rest_)))); }
    Iterator& operator++() {
        rest_ &= rest_ - 1;
        if (rest_ == 0) goToNextWord();
        return *this;
    }
    Iterator operator++(int) {
        Iterator const before = *this;
        ++*this;
        return before;
    }
    friend bool operator==(Iterator const& a, Iterator const& b) {
        return a.bucket_ == b.bucket_ && a.rest_ == b.rest_;
    }
    friend bool operator==(Iterator const& i, std::default_sentinel_t) { return i.rest_ == 0; }

private:
    void goToNextWord() {
        do
            if (!cursor_.next(bucket_, rest_)) {
                bucket_ = Detail::WordMap::buckets;
                rest_ = 0;
                return;
            }
        while (rest_ == 0);
        rest_ = set_->belowSize(bucket_, rest_);
        if (rest_ == 0) [[unlikely]]
            end();
    }
    void end() {
        bucket_ = Detail::WordMap::buckets;
        cursor_ = Detail::WordMap::Cursor();
    }

    IdSet const* set_ = nullptr;
    Detail::WordMap::Cursor cursor_;
    U64 rest_ = 0;  // of the bucket's word; 0 at the end
    unsigned bucket_ = Detail::WordMap::buckets;
};

// The stored buckets as they are, in ascending order.
class IdSet::BucketRange {
public:
    struct Entry {
        BucketId key;
        U64 word;

        friend bool operator==(Entry const&, Entry const&) = default;
    };

    class Iterator {
    public:
        using iterator_concept = std::forward_iterator_tag;
        using iterator_category = std::input_iterator_tag;
        using value_type = Entry;
        using difference_type = std::ptrdiff_t;

        Iterator() = default;
        explicit Iterator(IdSet const& set) : cursor_(set.words_) { ++*this; }

        Entry operator*() const { return {BucketId(static_cast<U8>(bucket_)), word_}; }
        Iterator& operator++() {
            if (!cursor_.next(bucket_, word_)) *this = Iterator();
            return *this;
        }
        Iterator operator++(int) {
            Iterator const before = *this;
            ++*this;
            return before;
        }
        friend bool operator==(Iterator const& a, Iterator const& b) { return a.bucket_ == b.bucket_; }
        friend bool operator==(Iterator const& i, std::default_sentinel_t) {
            return i.bucket_ == Detail::WordMap::buckets;
        }

    private:
        Detail::WordMap::Cursor cursor_;
        U64 word_ = 0;
        unsigned bucket_ = Detail::WordMap::buckets;
    };

    explicit BucketRange(IdSet const& set) : set_(&set) {}
    Iterator begin() const { return Iterator(*set_); }
    std::default_sentinel_t end() const { return {}; }
    U32 size() const { return set_->buckets(); }

private:
    IdSet const* set_;
};

inline IdSet::BucketRange IdSet::bucketRange() const { return BucketRange(*this); }
inline IdSet::Iterator IdSet::begin() const { return Iterator(*this); }
inline IdSet::IdIteratorConst IdSet::walkIds() const { return IdIteratorConst(*this); }

}  // namespace Mox
