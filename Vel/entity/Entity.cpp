#include "Vel/entity/Entity.h"

#include <string>
#include <string_view>
#include <vector>

namespace Vel {

NotifieeList* Entity::notifieeList() const { return &notifieeList_; }

Entity::~Entity() { notifieeList_.deleteAll(); }

String Entity::name() const { return name_; }
void Entity::handleParent() {}
Ptr<Entity> Entity::velChild(std::string_view) const { return nullptr; }

bool Entity::encloses(Entity const& other) const {
    if (!hasBeenParent_) return this == &other;
    for (Entity const* above = &other; above; above = above->parent_)
        if (above == this) return true;
    return false;
}

Ptr<Entity> Entity::entity(EntityUriPath const& path) const {
    auto const* start = this;
    if (path.isAbsolute())
        while (start->parent_) start = start->parent_;
    Ptr<Entity> found(const_cast<Entity*>(start));
    std::string_view rest = path.text();
    while (found && !rest.empty()) {
        auto const slash = rest.find('/');
        std::string_view const component = rest.substr(0, slash);
        rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
        if (!component.empty()) found = found->velChild(component);
    }
    return found;
}

String Entity::path() const {
    if (!parent_) return name().empty() ? String("/") : name();
    std::vector<String> names;
    for (Entity const* entity = this; entity->parent_; entity = entity->parent_) names.push_back(entity->name());
    std::string text;
    for (auto name = names.rbegin(); name != names.rend(); ++name) text.append("/").append(name->view());
    return text;
}

int Entity::attributeOp(void* result, VelAttr attr, AttributeOp op, void const* other, void const* arg) {
    return fwkType().glue().genericIfAttributeOp(result, static_cast<PtrInterface*>(this), attr, op, other, arg);
}

void Entity::velPrint(StrepOut& out) const { out << fwkType().name() << "(" << valueToStrep(path()).view() << ")"; }

void throwNewEntityArgsException(VelType type) {
    throw NewEntityArgsException(
        format("an entity of type %s takes no constructor arguments but its name", type.name()));
}

void throwMutatorArgNullPointerException(VelType type, AttributeId attribute) {
    auto const attr = type.attributeOfId(attribute);
    throw MutatorArgNullPointerException(
        format("%s.%s (attribute %u) takes no null pointer", type.name(), attr ? attr->name() : "?", attribute));
}

TraceStream& operator<<(TraceStream& out, Entity const* entity) {
    if (!entity) return out << "None";
    StrepOut text;
    entity->velPrint(text);
    return out << text.str();
}

}  // namespace Vel
