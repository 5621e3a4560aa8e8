#include "Vel/entity/Dir.h"

#include "Vel/describe/Module.h"
#include "Vel/entity/internal/DirIndex.h"

#include <new>
#include <vector>

namespace Vel {

Dir::Dir(String const& name) : EntityOf(name) {}
Dir::~Dir() { entryDelAll(); }

namespace {

void checkName(std::string_view name) {
    if (name.empty() || name.find('/') != std::string_view::npos)
        throwRangeException(valueToStrep(String(name)) + " cannot be an entity's name: it is empty or holds a \"/\"");
}

// Checks that the entity is in no other place in the tree, and that `dir` is not within it.
void checkPlace(Entity const& entity, Dir const& dir) {
    if (entity.parent() && entity.parent() != &dir)
        throwRangeException(entity.path() + " is in use in another place than " + dir.path());
    if (entity.encloses(dir)) throwRangeException(entity.path() + " cannot be put within itself");
}

}  // namespace

Ptr<Entity> Dir::createEntity(std::string_view typeName, std::string_view name, void const* const* arguments) {
    if (Ptr<Entity> existing = entry(name)) return existing;
    VelType const type = Registry::type(typeName);
    if (!type) throw TypeException(format("no module defines the type %s", valueToStrep(String(typeName)).charPtr()));
    return createEntity(type, name, arguments);
}

Ptr<Entity> Dir::createEntity(VelType type, std::string_view name, void const* const* arguments) {
    if (Ptr<Entity> existing = entry(name)) return existing;
    if (!type || !type.isEntity() || !type.glue().newEntity) GenericIfImpl::throwTypeException(type);
    checkName(name);
    Ptr<Entity> const created = ptr_cast<Entity>(type.glue().newEntity(String(name), arguments));
    entryIs(created);
    return created;
}

void Dir::entryIs(Ptr<Entity> const& entity) {
    if (!entity) throwMutatorArgNullPointerException(fwkType(), attributeId<Dir>("entry"));
    String const name = entity->name();
    checkName(name);
    checkPlace(*entity, *this);
    auto const [place, isNew] = entries_.try_emplace(name, entity);
    if (!isNew) {
        if (place->second == entity) return;
        throw NameInUseException(format("the name %s is in use in %s", valueToStrep(name).charPtr(), path().charPtr()));
    }
    indexAdd(place);
    ++changeCounter_;
    entity->parentIs(this);
    velNotify<"entry">(name);
}

Ptr<Entity> Dir::entryDel(std::string_view name) {
    auto const found = find(name);
    auto const place = entries_.erase(found, found);  // the same place, not const
    if (place == entries_.end()) return nullptr;
    Ptr<Entity> const entity = std::move(place->second);
    String const key = place->first;
    indexRemove(place);
    entries_.erase(place);
    ++changeCounter_;
    entity->parentIs(nullptr);
    velNotify<"entry">(key);
    return entity;
}

void Dir::entryDelAll() {
    while (!entries_.empty()) entryDel(entries_.begin()->first.view());
}

void Dir::visitEntries(std::function<void(Ptr<Entity> const&)> const& visit) const {
    std::vector<Ptr<Entity>> entities;
    entities.reserve(entries_.size());
    for (auto const& [name, entity] : entries_) entities.push_back(entity);
    for (Ptr<Entity> const& entity : entities) visit(entity);
}

Ptr<Entity> Dir::velChild(std::string_view name) const {
    auto const place = find(name);
    return place == entries_.end() ? nullptr : place->second;
}

Dir::Entries::const_iterator Dir::find(std::string_view name) const {
    if (!index_) return entries_.find(name);
    auto const* const place = index_->find(name);
    return place ? *place : entries_.end();
}

// An index is dropped if it gets no memory: the map alone finds every entry, too. The next new entry makes another one.
void Dir::indexAdd(Entries::iterator place) noexcept {
    try {
        if (index_)
            index_->add(place);
        else if (entries_.size() >= Index::minEntries)
            index_ = std::make_unique<Index>(entries_);
    } catch (std::bad_alloc const&) {
        index_ = nullptr;
    }
}

void Dir::indexRemove(Entries::iterator place) noexcept {
    if (!index_) return;
    try {
        index_->remove(place);
    } catch (std::bad_alloc const&) {
        index_ = nullptr;
    }
    if (entries_.size() <= Index::fewEntries) index_ = nullptr;
}

Ptr<Dir> globalDir() {
    static auto* const root = new Ptr<Dir>(Dir::newEntity(""));  // never destroyed: destructors may use it during exit
    return *root;
}

}  // namespace Vel

VEL_MODULE(Dir, a59ae0616679f906, Vel::Entity, Vel::Dir);
