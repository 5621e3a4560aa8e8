#pragma once

#include "Vel/describe/ForeignTypes.h"
#include "Vel/entity/Entity.h"

#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace Vel {

// An entity of a type that this process does not have and that a peer has described. Reflection, observers and the
// functions of its StreamTable work as for any entity: attributes have the peer's numbers and names.
//
// It has the attributes that are sent. It owns the members of collections that make their members, and is their parent.
class VEL_API ForeignEntity final : public Entity {
public:
    // The functions for ForeignTypes.
    static ForeignEntityFunctions const& functions();

    // REQUIRES: a type of ForeignTypes::entityType(), and not Vel::Entity.
    static Ptr<ForeignEntity> newEntity(VelType type, String const& name);
    ~ForeignEntity() override;

    VelType fwkType() const override { return type_.self(); }
    Ptr<Entity> velChild(std::string_view name) const override;  // a member whose key is the name

    // These REQUIRE a streamed attribute of the type, of the kind.
    GenericValue value(AttributeId attribute) const;
    std::string_view bytes(AttributeId attribute) const;             // as the attribute log has them
    void valueIs(AttributeId attribute, GenericValue const& value);  // throws TypeException for a value of another type
    Ptr<Entity> target(AttributeId attribute) const;
    std::size_t members(AttributeId attribute) const;  // number of keys of a collection

private:
    friend struct ForeignEntityGlue;
    // Orders keys: texts as texts, numbers as numbers, all else by its bytes.
    struct KeyOrder {
        std::size_t skipped = 0;  // bytes at the beginning that do not count: the length of a text
        bool operator()(std::string const& a, std::string const& b) const {
            return std::string_view(a).substr(skipped) < std::string_view(b).substr(skipped);
        }
    };
    using Bytes = std::string;
    using Members = std::map<std::string, Ptr<Entity>, KeyOrder>;
    using Values = std::map<std::string, std::string, KeyOrder>;
    using Place = std::variant<Bytes, Ptr<Entity>, Members, Values>;

    ForeignEntity(ForeignType const& type, String const& name);
    StreamAttribute const& row(AttributeId attribute, StreamKind kind) const;
    template <class T> T& at(ForeignAttribute const& attribute) { return std::get<T>(places_[attribute.place]); }
    template <class T> T const& at(ForeignAttribute const& attribute) const {
        return std::get<T>(places_[attribute.place]);
    }
    void keyChanged(AttributeId id, ForeignAttribute const& attribute, std::string const& key) const;
    void memberIs(StreamAttribute const& row, std::string const& key, Ptr<Entity> member);

    std::shared_ptr<ForeignTypes> types_;
    ForeignType const& type_;
    std::vector<Place> places_;
};

}  // namespace Vel
