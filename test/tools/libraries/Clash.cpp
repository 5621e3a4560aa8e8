#include "Vel/describe/Module.h"
#include "Vel/describe/Value.h"

// Defines a type whose name is taken.
namespace Clash {

class CellId {
public:
    constexpr CellId() = default;
    CellId(Vel::U16 value) : value_(value) {}
    friend bool operator==(CellId, CellId) = default;

    static constexpr auto description() { return Vel::number("Cell::CellId", Vel::field<&CellId::value_>("value")); }

private:
    Vel::U16 value_ = 0;
};

}  // namespace Clash

VEL_MODULE(Clash, 7300aa384982e3c9, Clash::CellId);
