#pragma once

#include "Vel/describe/Enumeration.h"
#include "Vel/entity/Entity.h"

// Types in a library of their own. own_module.cpp shows how a program uses them.
namespace Weather {

enum class SkyName : Vel::U8 { clear, cloudy, rain };

class VEL_API Sky : public Vel::EnumerationOf<Sky, SkyName> {
public:
    using EnumerationOf::EnumerationOf;
    static constexpr auto description() {
        return Vel::enumeration<Sky>("Weather::Sky", Vel::enumerator<SkyName::clear>("clear"),
            Vel::enumerator<SkyName::cloudy>("cloudy"), Vel::enumerator<SkyName::rain>("rain"));
    }
};

// The sky as it is seen from one place.
class VEL_API View : public Vel::EntityOf<View> {
public:
    explicit View(Vel::String const& name) : EntityOf(name) {}
    Sky sky() const { return sky_; }
    void skyIs(Sky sky) const { velSet<&View::sky_>(sky); }

    static constexpr auto description() {
        return Vel::entity("Weather::View", Vel::attribute<&View::sky_, &View::sky, &View::skyIs>("sky"));
    }

private:
    Sky sky_;
};

}  // namespace Weather
