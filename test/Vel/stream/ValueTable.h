#pragma once

#include "Vel/describe/Value.h"
#include "Vel/entity/Dir.h"
#include "Vel/entity/HashMap.h"

#include <functional>
#include <map>

namespace StreamTest {

// A number, and what follows from it, so that half a value shows.
class Entry {
public:
    Entry() = default;
    explicit Entry(Vel::U32 number)
        : number_(number), text_(number % 3 ? Vel::format("no. %u", number) : ""), isOdd_(number % 2 == 1) {}

    Vel::U32 number() const { return number_; }
    bool isWhole() const { return *this == Entry(number_); }
    friend bool operator==(Entry const&, Entry const&) = default;

    static constexpr auto description() {
        return Vel::record("StreamTest::Entry", Vel::field<&Entry::number_>("number"),
            Vel::field<&Entry::text_>("text"), Vel::field<&Entry::isOdd_>("isOdd"));
    }

private:
    Vel::U32 number_ = 0;
    Vel::String text_;
    Vel::U1 isOdd_;
};

// An entity with two collections of values: one of records by text, which is visited by a function, and one of numbers
// by number, which is a member. Mutators tell of every call, so that one that was not needed shows.
class ValueTable : public Vel::EntityOf<ValueTable> {
public:
    explicit ValueTable(Vel::String const& name) : EntityOf(name) {}

    Vel::U32 uid() const { return uid_; }
    void uidIs(Vel::U32 v) { velSet<&ValueTable::uid_>(v); }

    // The entry at the key, or the empty one.
    Entry entry(std::string_view key) const {
        Entry const* const found = entries_.find(key);
        return found ? *found : Entry();
    }
    void entryIs(Vel::String const& key, Entry const& entry) {
        entries_.set(key, entry);
        velNotify<"entry">(key);
    }
    Entry entryDel(std::string_view key) {
        Vel::String const kept(key);
        Entry const was = entry(key);
        entries_.erase(key);
        velNotify<"entry">(kept);
        return was;
    }
    bool entryExists(std::string_view key) const { return entries_.contains(key); }
    void visitKeys(std::function<void(Vel::String const&)> const& visit) const {
        for (auto const& [key, value] : entries_) visit(key);
    }

    Vel::U32 mark(Vel::U8 key) const { return markExists(key) ? marks_.at(key) : 0; }
    void markIs(Vel::U8 key, Vel::U32 mark) {
        marks_[key] = mark;
        velNotify<"mark">(key);
    }
    void markDel(Vel::U8 key) {
        marks_.erase(key);
        velNotify<"mark">(key);
    }
    bool markExists(Vel::U8 key) const { return marks_.contains(key); }

    static constexpr auto description() {
        using T = ValueTable;
        return Vel::entity("StreamTest::ValueTable", Vel::attribute<&T::uid_, &T::uid, &T::uidIs>("uid"),
            Vel::values<&T::visitKeys>(Vel::collection<Vel::String, Entry, &T::entry, &T::entryIs, &T::entryDel,
                Vel::none, Vel::none, &T::entryExists>("entry")),
            Vel::values<&T::marks_>(Vel::collection<Vel::U8, Vel::U32, &T::mark, &T::markIs, &T::markDel, Vel::none,
                Vel::none, &T::markExists>("mark")));
    }
    static Vel::AttributeId const entryAttribute, markAttribute;

private:
    Vel::U32 uid_ = 0;
    Vel::HashMap<Vel::String, Entry> entries_;
    std::map<Vel::U8, Vel::U32> marks_;
};
inline constexpr Vel::AttributeId ValueTable::entryAttribute = Vel::attributeId<ValueTable>("entry");
inline constexpr Vel::AttributeId ValueTable::markAttribute = Vel::attributeId<ValueTable>("mark");

}  // namespace StreamTest
