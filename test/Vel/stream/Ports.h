#pragma once

#include "Vel/describe/Enumeration.h"
#include "Vel/describe/Value.h"
#include "Vel/entity/Dir.h"

#include <map>
#include <memory>

// Two versions of a module. The process has registered the first one. The second one is what a server has that is newer:
// it is in no registry.
namespace Ports {

using Vel::Ptr;
using Vel::String;
using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;

namespace Old {

enum class MoodName : U8 { calm, wild };

class Mood : public Vel::EnumerationOf<Mood, MoodName> {
public:
    using EnumerationOf::EnumerationOf;
    static constexpr auto description() {
        return Vel::enumeration<Mood>(
            "Ports::Mood", Vel::enumerator<MoodName::calm>("calm"), Vel::enumerator<MoodName::wild>("wild"));
    }
};

struct Point {
    U32 x = 0, y = 0;
    friend bool operator==(Point const&, Point const&) = default;
    static constexpr auto description() {
        return Vel::record("Ports::Point", Vel::field<&Point::x>("x"), Vel::field<&Point::y>("y"));
    }
};

class Port : public Vel::EntityOf<Port> {
public:
    explicit Port(String const& name) : EntityOf(name) {}

    U32 speed() const { return speed_; }
    void speedIs(U32 v) { velSet<&Port::speed_>(v); }
    String label() const { return label_; }
    void labelIs(String const& v) { velSet<&Port::label_>(v); }
    Mood mood() const { return mood_; }
    void moodIs(Mood v) { velSet<&Port::mood_>(v); }
    Point point() const { return point_; }
    void pointIs(Point const& v) { velSet<&Port::point_>(v); }
    Ptr<Port> peer() const { return peer_; }
    void peerIs(Ptr<Port> const& v) { velSet<&Port::peer_>(v); }
    bool aged() const { return aged_; }
    void agedIs(bool v) { velSet<&Port::aged_>(v); }

    Point mark(U8 key) const { return markExists(key) ? marks_.at(key) : Point(); }
    void markIs(U8 key, Point const& mark) {
        marks_[key] = mark;
        velNotify<"mark">(key);
    }
    void markDel(U8 key) {
        if (marks_.erase(key) != 0) velNotify<"mark">(key);
    }
    bool markExists(U8 key) const { return marks_.contains(key); }

    Ptr<Port> link(U8 key) const {
        auto const found = links_.find(key);
        return found == links_.end() ? nullptr : found->second;
    }
    void linkIs(U8 key, Ptr<Port> const& link) {
        links_[key] = link;
        velNotify<"link">(key);
    }
    void linkDel(U8 key) {
        if (links_.erase(key) != 0) velNotify<"link">(key);
    }

    static constexpr auto description() {
        return Vel::entity("Ports::Port", Vel::attribute<&Port::speed_, &Port::speed, &Port::speedIs>("speed"),
            Vel::attribute<&Port::label_, &Port::label, &Port::labelIs>("label"),
            Vel::attribute<&Port::mood_, &Port::mood, &Port::moodIs>("mood"),
            Vel::attribute<&Port::point_, &Port::point, &Port::pointIs>("point"),
            Vel::attribute<&Port::peer_, &Port::peer, &Port::peerIs>("peer"),
            Vel::attribute<&Port::aged_, &Port::aged, &Port::agedIs>("aged"),
            Vel::values<&Port::marks_>(Vel::collection<U8, Point, &Port::mark, &Port::markIs, &Port::markDel, Vel::none,
                Vel::none, &Port::markExists>("mark")),
            Vel::references<&Port::links_>(
                Vel::collection<U8, Ptr<Port>, &Port::link, &Port::linkIs, &Port::linkDel>("link")));
    }

private:
    U32 speed_ = 0;
    String label_;
    Mood mood_;
    Point point_;
    Ptr<Port> peer_;
    bool aged_ = false;
    std::map<U8, Point> marks_;
    std::map<U8, Ptr<Port>> links_;
};

}  // namespace Old

namespace New {

enum class MoodName : U8 { calm, wild, angry };

class Mood : public Vel::EnumerationOf<Mood, MoodName> {
public:
    using EnumerationOf::EnumerationOf;
    static constexpr auto description() {
        return Vel::enumeration<Mood>("Ports::Mood", Vel::enumerator<MoodName::calm>("calm"),
            Vel::enumerator<MoodName::wild>("wild"), Vel::enumerator<MoodName::angry>("angry"));
    }
};

struct Point {
    U32 x = 0, y = 0;
    friend bool operator==(Point const&, Point const&) = default;
    static constexpr auto description() {
        return Vel::record("Ports::Point", Vel::field<&Point::x>("x"), Vel::field<&Point::y>("y"));
    }
};

// It has attributes in another order, a speed of another type, and some that the older version does not have.
class Port : public Vel::EntityOf<Port> {
public:
    explicit Port(String const& name) : EntityOf(name) {}
    ~Port() override {
        for (auto const& [name, lane] : lanes_) lane->parentIs(nullptr);  // somebody else may keep it
    }

    U64 serial() const { return serial_; }
    void serialIs(U64 v) { velSet<&Port::serial_>(v); }
    U64 speed() const { return speed_; }
    void speedIs(U64 v) { velSet<&Port::speed_>(v); }
    String label() const { return label_; }
    void labelIs(String const& v) { velSet<&Port::label_>(v); }
    Mood mood() const { return mood_; }
    void moodIs(Mood v) { velSet<&Port::mood_>(v); }
    Point point() const { return point_; }
    void pointIs(Point const& v) {
        if (v.x == 13) throw Vel::RangeException("a point at 13");
        velSet<&Port::point_>(v);
    }
    Ptr<Port> peer() const { return peer_; }
    void peerIs(Ptr<Port> const& v) { velSet<&Port::peer_>(v); }

    Point mark(U8 key) const { return markExists(key) ? marks_.at(key) : Point(); }
    void markIs(U8 key, Point const& mark) {
        marks_[key] = mark;
        velNotify<"mark">(key);
    }
    void markDel(U8 key) {
        if (marks_.erase(key) != 0) velNotify<"mark">(key);
    }
    bool markExists(U8 key) const { return marks_.contains(key); }

    Ptr<Port> link(U8 key) const {
        auto const found = links_.find(key);
        return found == links_.end() ? nullptr : found->second;
    }
    void linkIs(U8 key, Ptr<Port> const& link) {
        links_[key] = link;
        velNotify<"link">(key);
    }
    void linkDel(U8 key) {
        if (links_.erase(key) != 0) velNotify<"link">(key);
    }

    // Lanes: members that the collection makes.
    Ptr<Port> lane(String const& name) const {
        auto const found = lanes_.find(name);
        return found == lanes_.end() ? nullptr : found->second;
    }
    Ptr<Port> laneIs(String const& name) {
        if (Ptr<Port> there = lane(name)) return there;
        Ptr<Port> const made = newEntity(name);
        laneAdd(made);
        return made;
    }
    void laneAdd(Ptr<Port> const& lane) {
        lanes_[lane->name()] = lane;
        lane->parentIs(this);
        velNotify<"lane">(lane->name());
    }
    Ptr<Port> laneDel(String const& name) {
        Ptr<Port> const was = lane(name);
        lanes_.erase(name);
        if (was) was->parentIs(nullptr);
        velNotify<"lane">(name);
        return was;
    }

    static constexpr auto description() {
        return Vel::entity("Ports::Port", Vel::attribute<&Port::serial_, &Port::serial, &Port::serialIs>("serial"),
            Vel::values<&Port::marks_>(Vel::collection<U8, Point, &Port::mark, &Port::markIs, &Port::markDel, Vel::none,
                Vel::none, &Port::markExists>("mark")),
            Vel::attribute<&Port::peer_, &Port::peer, &Port::peerIs>("peer"),
            Vel::attribute<&Port::speed_, &Port::speed, &Port::speedIs>("speed"),
            Vel::attribute<&Port::label_, &Port::label, &Port::labelIs>("label"),
            Vel::attribute<&Port::mood_, &Port::mood, &Port::moodIs>("mood"),
            Vel::attribute<&Port::point_, &Port::point, &Port::pointIs>("point"),
            Vel::references<&Port::links_>(
                Vel::collection<U8, Ptr<Port>, &Port::link, &Port::linkIs, &Port::linkDel>("link")),
            Vel::instances<&Port::lanes_, &Port::laneAdd>(
                Vel::collection<String, Ptr<Port>, &Port::lane, &Port::laneIs, &Port::laneDel>("lane")));
    }

private:
    U64 serial_ = 0;
    U64 speed_ = 0;
    String label_;
    Mood mood_;
    Point point_;
    Ptr<Port> peer_;
    std::map<U8, Point> marks_;
    std::map<U8, Ptr<Port>> links_;
    std::map<String, Ptr<Port>> lanes_;
};

// Types that the older version does not have. This one derives from one that it has.
class FastPort : public Vel::EntityOf<FastPort, Port> {
public:
    explicit FastPort(String const& name) : EntityOf(name) {}

    U16 lanes() const { return count_; }
    void lanesIs(U16 v) { velSet<&FastPort::count_>(v); }

    static constexpr auto description() {
        return Vel::entity(
            "Ports::FastPort", Vel::attribute<&FastPort::count_, &FastPort::lanes, &FastPort::lanesIs>("lanes"))
            .with(Vel::base<Port>);
    }

private:
    U16 count_ = 0;
};

class Rack : public Vel::EntityOf<Rack> {
public:
    explicit Rack(String const& name) : EntityOf(name) {}

    Mood mood() const { return mood_; }
    void moodIs(Mood v) { velSet<&Rack::mood_>(v); }
    Ptr<Port> uplink() const { return uplink_; }
    void uplinkIs(Ptr<Port> const& v) { velSet<&Rack::uplink_>(v); }
    Ptr<Vel::Entity> slot(U16 key) const {
        auto const found = slots_.find(key);
        return found == slots_.end() ? nullptr : found->second;
    }
    void slotIs(U16 key, Ptr<Vel::Entity> const& entity) {
        slots_[key] = entity;
        velNotify<"slot">(key);
    }
    void slotDel(U16 key) {
        slots_.erase(key);
        velNotify<"slot">(key);
    }

    static constexpr auto description() {
        return Vel::entity("Ports::Rack", Vel::attribute<&Rack::mood_, &Rack::mood, &Rack::moodIs>("mood"),
            Vel::attribute<&Rack::uplink_, &Rack::uplink, &Rack::uplinkIs>("uplink"),
            Vel::references<&Rack::slots_>(
                Vel::collection<U16, Ptr<Vel::Entity>, &Rack::slot, &Rack::slotIs, &Rack::slotDel>("slot")));
    }

private:
    Mood mood_;
    Ptr<Port> uplink_;
    std::map<U16, Ptr<Vel::Entity>> slots_;
};

// A type of another module, which refers to one that the older version does not have.
class Holder : public Vel::EntityOf<Holder> {
public:
    explicit Holder(String const& name) : EntityOf(name) {}

    Ptr<Rack> rack() const { return rack_; }
    void rackIs(Ptr<Rack> const& v) { velSet<&Holder::rack_>(v); }

    static constexpr auto description() {
        return Vel::entity("Holders::Holder", Vel::attribute<&Holder::rack_, &Holder::rack, &Holder::rackIs>("rack"));
    }

private:
    Ptr<Rack> rack_;
};

}  // namespace New

}  // namespace Ports
