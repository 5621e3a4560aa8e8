#pragma once

#include "Vel/describe/Module.h"
#include "Vel/describe/Value.h"
#include "Vel/entity/Entity.h"

// A record and an entity in which all is right. Most files here define one thing otherwise, and then include this.
#ifndef MEMBER_Y
#define MEMBER_Y Vel::U32 y = 0
#endif
#ifndef NAME_OF_Y
#define NAME_OF_Y "y"
#endif
#ifndef MOVE
#define MOVE                                                                                                           \
    void moveIs(Vel::U32 dx, Vel::U32) { x += dx; }
#endif
#ifndef PARAMETERS_OF_MOVE
#define PARAMETERS_OF_MOVE "dx", "dy"
#endif
#ifndef CONSTRUCTOR_OF_POINT
#define CONSTRUCTOR_OF_POINT Point() = default
#endif
#define FIELDS_OF_POINT Vel::field<&Point::x>("x"), Vel::field<&Point::y>(NAME_OF_Y)
#define METHOD_OF_POINT Vel::method<&Point::moveIs>("move", PARAMETERS_OF_MOVE)
#ifndef DESCRIPTION_OF_POINT
#define DESCRIPTION_OF_POINT Vel::record("My::Point", FIELDS_OF_POINT, METHOD_OF_POINT)
#endif

#ifndef TYPE_OF_SIZE
#define TYPE_OF_SIZE Vel::U32
#endif
#ifndef SET_SIZE
#define SET_SIZE velSet<&Place::size_>(size)
#endif
#ifndef MORE_OF_PLACE
#define MORE_OF_PLACE
#endif
#define SIZE_OF_PLACE Vel::attribute<&Place::size_, &Place::size, &Place::sizeIs>("size")
#ifndef DESCRIPTION_OF_PLACE
#define DESCRIPTION_OF_PLACE Vel::entity("My::Place", SIZE_OF_PLACE)
#endif

namespace My {

class Point {
public:
    Vel::U32 x = 0;
    MEMBER_Y;
    MOVE;
    friend bool operator==(Point const&, Point const&) = default;

    CONSTRUCTOR_OF_POINT;
    static constexpr auto description() { return DESCRIPTION_OF_POINT; }
};

class Place : public Vel::EntityOf<Place> {
public:
    explicit Place(Vel::String const& name) : EntityOf(name) {}
    TYPE_OF_SIZE size() const { return size_; }
    void sizeIs(TYPE_OF_SIZE size) { SET_SIZE; }
    MORE_OF_PLACE;
#ifndef PLACE_WITHOUT_DESCRIPTION
    static constexpr auto description() { return DESCRIPTION_OF_PLACE; }
#endif

private:
    TYPE_OF_SIZE size_ = 0;
};

}  // namespace My
