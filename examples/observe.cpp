// Observers: a lambda is told of each change of an entity, for as long as what notifieeOf() returns lives.
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
    status->productIs("tabletop");  // told
    status->productIs("tabletop");  // no change: not told
    status->cellIdIs(2);            // told

    observer.reset();
    status->productIs("rack");  // nobody left to tell

    // A directory tells which of its entries came or went.
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
