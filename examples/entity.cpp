// Defines an entity type, creates an entity in the directory tree by the name of its type, and finds it by its path.
#include "Vel/describe/Module.h"
#include "Vel/entity/Dir.h"

#include <iostream>

namespace Weather {

class Station : public Vel::EntityOf<Station> {
public:
    explicit Station(Vel::String const& name) : EntityOf(name) {}

    Vel::String place() const { return place_; }
    Vel::U32 interval() const { return interval_; }
    void placeIs(Vel::String const& v) const { velSet<&Station::place_>(v); }
    void intervalIs(Vel::U32 v) const { velSet<&Station::interval_>(v); }

    static constexpr auto description() {
        using Vel::attribute;
        return Vel::entity("Weather::Station",
            attribute<&Station::place_, &Station::place, &Station::placeIs>("place"),               // 258
            attribute<&Station::interval_, &Station::interval, &Station::intervalIs>("interval"));  // 259
    }

private:
    Vel::String place_;
    Vel::U32 interval_ = 60;  // seconds between readings
};

}  // namespace Weather

VEL_MODULE(Weather, e551e81d65563a2a, Weather::Station);

int main() {
    auto const weather = Vel::ptr_cast<Vel::Dir>(Vel::globalDir()->createEntity("Vel::Dir", "weather"));
    weather->createEntity("Weather::Station", "roof");

    auto const roof = Vel::ptr_cast<Weather::Station>(Vel::globalDir()->entity("/weather/roof"));
    if (!roof) return 1;
    roof->placeIs("north wing");
    std::cout << roof->path() << ": " << roof->place() << ", every " << roof->interval() << " seconds\n";

    bool const sameAgain = weather->createEntity("Weather::Station", "roof") == roof;  // returns the existing entity
    weather->entryDel("roof");
    bool const gone = !Vel::globalDir()->entity("/weather/roof");
    std::cout << "still " << roof->place() << ": the reference keeps it, though it is out of the tree\n";
    return sameAgain && gone && roof->place() == "north wing" ? 0 : 1;
}
