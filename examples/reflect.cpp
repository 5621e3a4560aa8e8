// Reflection: lists every type of the process, and uses a value and an entity without the headers of their types.
#include "Vel/describe/Module.h"
#include "Vel/entity/Dir.h"

#include <iostream>

int main() {
    for (Vel::VelType const& type : Vel::Registry::types()) {
        std::cout << type.name() << (type.isEntity() ? " (entity)" : "") << '\n';
        for (Vel::U32 i = 0; i < type.attributeCount(); ++i) {
            Vel::VelAttr const attr = type.attribute(i);
            std::cout << "  " << attr.attributeId() << ' ' << attr.name();
            if (attr.valueType()) std::cout << ": " << attr.valueType().name();
            std::cout << '\n';
        }
    }

    // A value: parses it, compares it by its type's order, and shows its bytes.
    Vel::VelType const seqno = Vel::Registry::type("Mox::Seqno16");
    Vel::GenericValue const last(seqno, "65535");
    Vel::GenericValue const next(seqno, "0");
    bool const wrapped = last.test(Vel::AttributeOp::less, &next).value();
    std::cout << last.strep() << (wrapped ? " comes before " : " comes after ") << next.strep() << '\n';

    // An entity: sets an attribute and reads it back, by the type's mutator and accessor.
    auto const status = Vel::globalDir()->createEntity("Cell::Status", "cell");
    Vel::VelAttr const product = status->fwkType().attribute("product").value();
    Vel::String const given = "tabletop";
    int const set = status->attributeOp(nullptr, product, Vel::AttributeOp::set, nullptr, &given);
    Vel::String seen;
    int const get = status->attributeOp(&seen, product, Vel::AttributeOp::get);
    std::cout << product.name() << " is " << seen << '\n';
    return wrapped && set == 0 && get == 0 && seen == given ? 0 : 1;
}
