// expect only: My::P.*each attribute needs a name of its own
#include "Vel/Entity.h"
#include "Vel/Module.h"
#include "Vel/Value.h"

namespace My {

class Point {
public:
    Vel::U32 x = 0;
    Vel::U32 y = 0;
    void moveIs(Vel::U32 dx, Vel::U32 dy) & { x += dx, y += dy; }
    friend bool operator==(Point const&, Point const&) = default;

    Point() = default;
    Point(Vel::String::IteratorConst& it, Vel::String::IteratorConst const& end) { Vel::parse(*this, it, end); }
    Point(Vel::NboAttrLog::In* in, Vel::StreamBogon) { Vel::read(*this, *in); }
    static constexpr auto description() {
        return Vel::record("My::Point", Vel::field<&Point::x>("x"), Vel::field<&Point::y>("x"),
            Vel::method<&Point::moveIs>("move", "dx", "dy"));
    }
};

class Place : public Vel::EntityOf<Place> {
public:
    explicit Place(Vel::String const& name) : EntityOf(name) {}
    Vel::U32 size() const { return size_; }
    void sizeIs(Vel::U32 size) { velSet<&Place::size_>(size); }

    static constexpr auto description() {
        return Vel::entity("My::Place", Vel::attribute<&Place::size_, &Place::size, &Place::sizeIs>("size"));
    }

private:
    Vel::U32 size_ = 0;
};

}  // namespace My

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
