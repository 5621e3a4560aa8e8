#pragma once

#include "Vel/entity/Entity.h"

#include <functional>
#include <map>
#include <memory>

namespace Vel {

// A directory: an entity that has other entities as entries, in the order of their names. A look-up takes the same time
// however many entries there are: beside the ordered map, a directory of more than 16 has an index by the names' hashes,
// which adds 21 to 64 bytes an entry.
class VEL_API Dir : public EntityOf<Dir> {
public:
    explicit Dir(String const& name);
    ~Dir() override;

    // Returns the entry with this name, even if it is of another type. If there is none, makes one of the type, with
    // the arguments. Throws TypeException if no module defines the type, or if it is no entity type that can be
    // created. Throws RangeException for a name that is empty or has a "/". Throws NewEntityArgsException if there are
    // arguments and the type takes none.
    Ptr<Entity> createEntity(std::string_view typeName, std::string_view name, void const* const* arguments = nullptr);
    Ptr<Entity> createEntity(VelType type, std::string_view name, void const* const* arguments = nullptr);

    Ptr<Entity> entry(std::string_view name) const { return velChild(name); }  // null if there is none
    // Adds an entity under its own name. Throws NameInUseException if another entry has that name, and
    // MutatorArgNullPointerException for null. Throws RangeException for a bad name, for an entity that is in another
    // directory, and for an entity that this directory is within.
    void entryIs(Ptr<Entity> const& entity);
    Ptr<Entity> entryDel(std::string_view name);  // removes the entry and returns it, or null if there was none
    void entryDelAll();
    U32 entries() const { return static_cast<U32>(entries_.size()); }
    bool entryExists(std::string_view name) const { return find(name) != entries_.end(); }
    U32 entryChangeCounter() const { return changeCounter_; }
    // Calls visit(entity) for every entry that exists at the time of the call; `visit` may add and remove entries.
    void visitEntries(std::function<void(Ptr<Entity> const&)> const& visit) const;

    Ptr<Entity> velChild(std::string_view name) const override;

    static constexpr auto description() {
        return Vel::entity(
            "Vel::Dir", Vel::references<&Dir::entries_>(Vel::collection<String, Ptr<Entity>, &Dir::entry, &Dir::entryIs,
                            &Dir::entryDel, &Dir::entries, &Dir::entryChangeCounter, &Dir::entryExists>("entry")));
    }

private:
    using Entries = std::map<String, Ptr<Entity>, std::less<>>;
    class Index;

    Entries::const_iterator find(std::string_view name) const;
    void indexAdd(Entries::iterator place) noexcept;
    void indexRemove(Entries::iterator place) noexcept;

    Entries entries_;
    U32 changeCounter_ = 0;
    std::unique_ptr<Index> index_;  // null if there are few entries, or no memory for it
};

// The root directory of the process. It lives until the process ends.
VEL_API Ptr<Dir> globalDir();

}  // namespace Vel
