#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/describe/Value.h"
#include "Vel/entity/Entity.h"

#include <map>

// Entities that the tool has never heard of: they refer to each other, are numbered, and answer for what nobody stored.
namespace Test {

class Level {
public:
    constexpr Level() = default;
    explicit constexpr Level(double litres) : litres_(litres), measured_(true) {}
    double litres() const { return litres_; }
    friend bool operator==(Level const&, Level const&) = default;

    static constexpr auto description() {
        return Vel::record(
            "Test::Level", Vel::field<&Level::litres_>("litres"), Vel::field<&Level::measured_>("measured"));
    }

private:
    double litres_ = 0;
    bool measured_ = false;
};

class Tank : public Vel::EntityOf<Tank> {
public:
    explicit Tank(Vel::String const& name) : EntityOf(name) {}

    Level level() const { return Level(); }
    void levelIs(Level const& v) {
        if (v.litres() < 0) throw Vel::RangeException("a tank holds no less than nothing");
        velSet<&Tank::level_>(v);
    }
    // Fills it to this level, from as many inlets, and returns how much each gives.
    double fill(double litres, Vel::U32 inlets) {
        if (inlets == 0) throw Vel::RangeException("there is no inlet");
        mostIs(inlets);
        levelIs(Level(litres));
        return litres / inlets;
    }
    void empty() { levelIs(Level()); }
    void joinTo(Vel::Ptr<Tank> const& other) { overflowIs(other); }

    Vel::U32 most() const { return most_; }
    void mostIs(Vel::U32 v) { velSet<&Tank::most_>(v < 100 ? v : 100); }
    Vel::Ptr<Tank> overflow() const { return overflow_; }
    void overflowIs(Vel::Ptr<Tank> const& v) { velSet<&Tank::overflow_>(v); }

    Vel::Ptr<Tank> inlet(Vel::U32 number) const {
        auto const found = inlets_.find(number);
        return found == inlets_.end() ? nullptr : found->second;
    }
    void inletIs(Vel::U32 number, Vel::Ptr<Tank> const& v) {
        inlets_[number] = v;
        velNotify<"inlet">(number);
    }
    Vel::Ptr<Tank> inletDel(Vel::U32 number) {
        Vel::Ptr<Tank> const gone = inlet(number);
        inlets_.erase(number);
        velNotify<"inlet">(number);
        return gone;
    }
    Vel::U32 inlets() const { return static_cast<Vel::U32>(inlets_.size()); }
    Vel::U32 inletChangeCounter() const { return 0; }
    bool inletExists(Vel::U32 number) const { return inlets_.contains(number); }
    std::map<Vel::U32, Vel::Ptr<Tank>> inletMembers() const { return inlets_; }

    static constexpr auto description() {
        using T = Tank;
        return Vel::entity("Test::Tank", Vel::attribute<&T::level_, &T::level, &T::levelIs>("level"),
            Vel::attribute<&T::most_, &T::most, &T::mostIs>("most"),
            Vel::attribute<&T::overflow_, &T::overflow, &T::overflowIs>("overflow"),
            Vel::references<&T::inletMembers>(Vel::collection<Vel::U32, Vel::Ptr<Tank>, &T::inlet, &T::inletIs,
                &T::inletDel, &T::inlets, &T::inletChangeCounter, &T::inletExists>("inlet")),
            Vel::values<&T::notes_>(Vel::collection<Vel::String, Vel::U32, &T::note, &T::noteIs, &T::noteDel, Vel::none,
                Vel::none, &T::noteExists>("note")),
            Vel::method<&T::fill>("fill", "litres", "inlets"), Vel::method<&T::empty>("empty"),
            Vel::method<&T::joinTo>("joinTo", "other"));
    }

    Vel::U32 note(Vel::String const& key) const {
        auto const found = notes_.find(key);
        return found == notes_.end() ? 0 : found->second;
    }
    void noteIs(Vel::String const& key, Vel::U32 v) {
        notes_[key] = v;
        velNotify<"note">(key);
    }
    void noteDel(Vel::String const& key) {
        if (notes_.erase(key) != 0) velNotify<"note">(key);
    }
    bool noteExists(Vel::String const& key) const { return notes_.contains(key); }

private:
    Level level_;
    Vel::U32 most_ = 0;
    Vel::Ptr<Tank> overflow_;
    std::map<Vel::U32, Vel::Ptr<Tank>> inlets_;
    std::map<Vel::String, Vel::U32> notes_;
};

}  // namespace Test

VEL_MODULE(Tank, f5016418b9955683, Test::Level, Test::Tank);
