#pragma once

#include "Vel/entity/Entity.h"

#include <functional>
#include <map>

namespace Vel {

// A directory: an entity that holds others by name. Entries keep the order of their names.
class VEL_API Dir : public EntityOf<Dir> {
public:
    explicit Dir(String const& name);
    ~Dir() override;

    // The entry of that name, whatever its type; when there is none, a new one of the type, given the arguments.
    // Throws TypeException when no module defines the type or it is no entity type, RangeException for a name that is
    // empty or holds a "/", NewEntityArgsException when the type takes no arguments.
    Ptr<Entity> createEntity(std::string_view typeName, std::string_view name, void const* const* arguments = nullptr);
    Ptr<Entity> createEntity(VelType type, std::string_view name, void const* const* arguments = nullptr);

    Ptr<Entity> entry(std::string_view name) const { return velChild(name); }  // or null
    // Adds an entity under its own name. Throws NameInUseException when another has it, MutatorArgNullPointerException
    // for null, RangeException for a bad name, an entity that is in another directory, and one that this one is within.
    void entryIs(Ptr<Entity> const& entity);
    Ptr<Entity> entryDel(std::string_view name);  // removes the entry and returns it; null when there was none
    void entryDelAll();
    U32 entries() const { return static_cast<U32>(entries_.size()); }
    bool entryExists(std::string_view name) const { return entries_.contains(name); }
    U32 entryChangeCounter() const { return changeCounter_; }
    // Calls visit(entity) for every entry there is now; entries may come and go meanwhile.
    void visitEntries(std::function<void(Ptr<Entity> const&)> const& visit) const;

    Ptr<Entity> velChild(std::string_view name) const override;

    static constexpr auto description() {
        return Vel::entity(
            "Vel::Dir", Vel::references<&Dir::entries_>(Vel::collection<String, Ptr<Entity>, &Dir::entry, &Dir::entryIs,
                            &Dir::entryDel, &Dir::entries, &Dir::entryChangeCounter, &Dir::entryExists>("entry")));
    }

private:
    std::map<String, Ptr<Entity>, std::less<>> entries_;
    U32 changeCounter_ = 0;
};

// The root directory of the process. It lives until the process ends.
VEL_API Ptr<Dir> globalDir();

}  // namespace Vel
