// Observers: calls a lambda for each change of an entity, as long as the result of notifieeOf() lives.
#include "Mox/Cell.h"

#include "Vel/entity/Dir.h"

#include <iostream>

int main() {
    auto const status = Cell::statusFactory("cell");

    int changes = 0;
    auto observer = Vel::notifieeOf(*status, [&](Vel::AttributeId attribute) {
        ++changes;
        auto const attr = status->fwkType().attributeOfId(attribute);
        std::cout << attr->name() << " (attribute " << attribute << ") has changed\n";
    });
    status->productIs("tabletop");  // notifies
    status->productIs("tabletop");  // does not notify, since nothing changes
    status->cellIdIs(2);            // notifies

    observer.reset();
    status->productIs("rack");  // does not notify, since no observer is left

    // A directory notifies with the name of each entry that is added or removed.
    int entries = 0;
    auto const dir = Vel::globalDir();
    auto const watch = Vel::notifieeOf(*dir, [&](Vel::AttributeId, Vel::NotifieeKey const* key) {
        ++entries;
        auto const& name = key->as<Vel::String>();
        std::cout << "entry " << name << (dir->entryExists(name) ? " came" : " went") << '\n';
    });
    dir->createEntity("Vel::Dir", "scratch");
    dir->entryDel("scratch");

    return changes == 2 && entries == 2 ? 0 : 1;
}
