#pragma once

#include "Vel/entity/Entity.h"
#include "Vel/entity/HashMap.h"
#include "Vel/entity/OrderedMap.h"

#include <set>
#include <vector>

// An entity with two collections of entities that others own: under keys of their own choice, and under numbers.
// Putting a member where another is replaces it, and tells observers once.
class Shelf : public Vel::EntityOf<Shelf> {
    using Member = Vel::Ptr<Vel::Entity>;

public:
    explicit Shelf(Vel::String const& name) : EntityOf(name) { all().insert(this); }
    ~Shelf() override { all().erase(this); }
    // Shelves may hold each other in circles, which nobody frees, and which need not be reachable any more.
    static void emptyAll() {
        std::vector<Vel::Ptr<Shelf>> shelves;
        for (Shelf* const shelf : all()) shelves.push_back(shelf);
        for (auto const& shelf : shelves) {
            shelf->items_.clear();
            shelf->ranks_.clear();
        }
    }

    Member item(std::string_view key) const {
        Member const* const found = items_.find(key);
        return found ? *found : nullptr;
    }
    void itemIs(Vel::String const& key, Member const& member) {
        if (item(key) == member) return;
        items_.set(key, member);
        velNotify<"item">(key);
    }
    void itemDel(std::string_view key) {
        Vel::String const kept(key);
        if (items_.erase(key)) velNotify<"item">(kept);
    }
    Vel::U32 items() const { return static_cast<Vel::U32>(items_.size()); }

    Member rank(Vel::U8 key) const {
        Member const* const found = ranks_.find(key);
        return found ? *found : nullptr;
    }
    void rankIs(Vel::U8 key, Member const& member) {
        if (rank(key) == member) return;
        ranks_.set(key, member);
        velNotify<"rank">(key);
    }
    void rankDel(Vel::U8 key) {
        if (ranks_.erase(key)) velNotify<"rank">(key);
    }

    static constexpr auto description() {
        return Vel::entity("Simulation::Shelf",
            Vel::references<&Shelf::items_>(
                Vel::collection<Vel::String, Member, &Shelf::item, &Shelf::itemIs, &Shelf::itemDel>("item")),
            Vel::references<&Shelf::ranks_>(
                Vel::collection<Vel::U8, Member, &Shelf::rank, &Shelf::rankIs, &Shelf::rankDel>("rank")));
    }

private:
    static std::set<Shelf*>& all() {
        static std::set<Shelf*> shelves;
        return shelves;
    }

    Vel::HashMap<Vel::String, Member> items_;
    Vel::OrderedMap<Vel::U8, Member> ranks_;
};
