#pragma once

#include "SimulationWorld.h"
#include "test/Vel/stream/Ports.h"

#include "Vel/stream/StreamPolicy.h"

#include <map>
#include <string>

// A source with types that a reader has in another version or not at all, and what a copy of them is.
namespace Simulation {

// What a reader with this number of a step does about such types.
Vel::StreamPolicy policyOf(U16 n);

// The attribute of `copy` that has the value of an attribute of `original`. Null: it is not copied. They are the same
// unless the copy is by name.
Vel::StreamAttribute const* counterpart(
    Vel::Entity const& original, Vel::StreamAttribute const& attribute, Vel::Entity const& copy);
bool isByName(Vel::Entity const& original, Vel::Entity const& copy);
// The name of an attribute of a port that is copied by name, as both versions call it; else empty.
std::string commonName(Vel::Entity const& port, Vel::AttributeId attribute);

using Pairs = std::map<Vel::Entity const*, Vel::Entity const*>;
// Adds each entity that is copied, and its copy. Returns the first difference in what is copied; empty: there is none.
std::string pairUp(Vel::Entity& original, Vel::Entity& copy, Pairs& pairs);

// What a copy of a port is seen to be.
class PortView {
public:
    explicit PortView(Vel::Entity const& copy) : copy_(copy) {}
    static bool isPort(Vel::Entity const& entity);

    U32 uid() const;                                 // 0: not known yet
    bool isPoint(Vel::AttributeId attribute) const;  // whether it is the point
    U32 point() const;                               // its number
    bool isPointWhole() const;
    bool areMarksWhole() const;
    bool isWhole() const;  // two values that change together, of a described port

private:
    Vel::Entity const& copy_;
};

}  // namespace Simulation
