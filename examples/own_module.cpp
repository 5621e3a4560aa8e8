// Uses a module in a library of its own, made by mox_add_module (CMakeLists.txt). The program includes no header of it,
// and finds its types by their names.
#include "Vel/describe/Module.h"
#include "Vel/entity/Dir.h"

#include <iostream>

int main() {
    Vel::VelType const sky = Vel::Registry::type("Weather::Sky");
    if (!sky) {
        std::cerr << "the library of module Sky is not linked\n";
        return 1;
    }
    std::cout << sky.name() << " is one of";
    for (Vel::U32 i = 1; i < sky.attributeCount(); ++i) std::cout << ' ' << sky.attribute(i).name();
    std::cout << '\n';

    Vel::GenericValue const rain(sky, "'rain'");
    auto const view = Vel::ptr_cast<Vel::Entity>(Vel::globalDir()->createEntity("Weather::View", "north"));
    Vel::VelAttr const attribute = view->fwkType().attribute("sky").value();
    view->attributeOp(nullptr, attribute, Vel::AttributeOp::set, nullptr, rain.data());

    Vel::GenericValue now(sky);
    view->attributeOp(now.data(), attribute, Vel::AttributeOp::get);
    std::cout << view->path() << ": " << now.strep() << '\n';
    return now.strep() == "'rain'" ? 0 : 1;
}
