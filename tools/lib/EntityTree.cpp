#include "tools/lib/EntityTree.h"

#include <algorithm>

namespace Tool {

using Vel::AttributeId;
using Vel::Entity;
using Vel::StreamAttribute;
using Vel::StreamKind;

using Node = EntityTree::Node;

EntityTree::Observer::~Observer() = default;

// --- nodes ---

Node::Node(EntityTree& tree, Entity& entity)
    : tree_(tree), entity_(&entity), type_(entity.fwkType()), table_(type_.glue().stream()) {}

std::string Node::step() const {
    return above_ ? stepText(above_->type_, *place_->first.attribute, place_->first.key) : "";
}

std::string Node::path() const {
    std::vector<Node const*> way;
    for (Node const* node = this; node->above_; node = node->above_) way.push_back(node);
    std::string path = tree_.rootPath_;
    path.reserve(pathSize_);
    for (auto node = way.rbegin(); node != way.rend(); ++node) {
        if (!path.ends_with('/')) path += '/';
        path += (*node)->step();
    }
    return path;
}

void Node::handleAttribute(AttributeId id) {
    StreamAttribute const* const attribute = isLost_ ? nullptr : table_.find(id);
    if (!attribute || attribute->isCollection()) return;
    if (attribute->kind == StreamKind::pointer) tree_.check(*this, {attribute, ""});
    tree_.observer_->changed(*this, *attribute);
}

void Node::handleAttribute(AttributeId id, Vel::NotifieeKey const& key) {
    StreamAttribute const* const collection = isLost_ ? nullptr : table_.find(id);
    if (!collection || !collection->isCollection()) return;
    Vel::NboAttrLog::Out out;
    collection->writeKey(out, key.data());
    Place const place{collection, keyFromEncoding(*collection, out)};
    if (!collection->holdsEntities() || !tree_.check(*this, place))
        tree_.observer_->memberChanged(*this, *collection, place.key);
}

void Node::handleNotifierDel() noexcept {
    if (!isLost_) tree_.lose(*this);
    auto const self = tree_.nodes_.find(entity_);
    tree_.dead_.push_back(std::move(self->second));
    tree_.nodes_.erase(self);
}

// --- the tree ---

EntityTree::EntityTree(Entity& root, std::string const& rootPath, Observer* observer) : rootPath_(rootPath) {
    if (!streamTableOf(root)) throw Failure(somethingWrong, std::string(root.fwkType().name()) + " does not travel");
    root_ = place(root, nullptr, {});
    explore(*root_);
    if (!observer) return;
    // Set after explore(), so that the observer is not called for entities that are there from the beginning.
    observer_ = observer;
    for (auto const& [entity, node] : nodes_) node->notifierIs(entity);
}

EntityTree::~EntityTree() = default;

Node* EntityTree::find(Entity const& entity) const {
    auto const found = nodes_.find(&entity);
    return found == nodes_.end() || found->second->isLost_ ? nullptr : found->second.get();
}

bool EntityTree::isFree(Entity const& entity) const { return !find(entity) && streamTableOf(entity); }

// Puts an entity that is new, or was lost, at a place. Returns null if its path is too long.
Node* EntityTree::place(Entity& entity, Node* above, Place place) {
    std::size_t pathSize = rootPath_.size();
    if (above) pathSize = above->pathSize_ + 1 + stepText(above->type_, *place.attribute, place.key).size();
    if (above && pathSize > longestPath) {
        isWhole_ = false;
        return nullptr;
    }
    std::unique_ptr<Node>& node = nodes_[&entity];
    bool const isNew = !node;
    if (isNew) node = std::make_unique<Node>(*this, entity);
    node->above_ = above;
    node->pathSize_ = pathSize;
    node->depth_ = above ? above->depth_ + 1 : 0;
    node->isLost_ = false;
    if (above) node->place_ = above->children_.emplace(std::move(place), node.get()).first;
    ++size_;
    if (isNew && observer_) node->notifierIs(&entity);
    return node.get();
}

// Finds the entities below `from`. Follows names first, as far as they lead, so that every entity that has a name gets
// its place by it.
void EntityTree::explore(Node& from) {
    std::vector<Node*> named{&from}, others;
    while (!named.empty() || !others.empty()) {
        bool const isNamed = !named.empty();
        std::vector<Node*>& list = isNamed ? named : others;
        Node& node = *list.back();
        list.pop_back();
        if (isNamed) {
            if (observer_) observer_->appeared(node);
            exploreNames(node, named);
            others.push_back(&node);
        } else {
            exploreOthers(node, named);
        }
    }
}

void EntityTree::exploreNames(Node& node, std::vector<Node*>& found) {
    StreamAttribute const* const naming = namingCollection(node.table_);
    if (!naming) return;
    eachKey(*node.entity_, *naming, [&](std::string const& key) {
        Entity* const member = memberOf(*node.entity_, *naming, key);
        bool const isHome = member && (naming->kind == StreamKind::instances || member->parent() == node.entity_);
        if (!isHome || !isFree(*member)) return;
        if (Node* const child = place(*member, &node, {naming, key})) found.push_back(child);
    });
}

void EntityTree::exploreOthers(Node& node, std::vector<Node*>& found) {
    auto const take = [&](Entity* target, Place at) {
        if (!target || !isFree(*target)) return;
        if (Node* const child = place(*target, &node, std::move(at))) found.push_back(child);
    };
    for (StreamAttribute const& attribute : node.table_.attributes) {
        if (attribute.kind == StreamKind::pointer) take(attribute.target(*node.entity_), {&attribute, ""});
        if (attribute.holdsEntities())
            eachKey(*node.entity_, attribute, [&](std::string const& key) {
                take(memberOf(*node.entity_, attribute, key), {&attribute, key});
            });
    }
}

Node* EntityTree::next(Node& node, Node const& top) {
    if (!node.children_.empty()) return node.children_.begin()->second;
    return nextBeside(node, top);
}

Node* EntityTree::nextBeside(Node& node, Node const& top) {
    for (Node* at = &node; at != &top; at = at->above_)
        if (auto const beside = std::next(at->place_); beside != at->above_->children_.end()) return beside->second;
    return nullptr;
}

// --- changes ---

// Looks whether another entity is at the place now. Returns whether the observer needs no further call for it.
bool EntityTree::check(Node& node, Place const& place) {
    Entity* const target = entityAt(*node.entity_, {place.attribute, place.key});
    auto const known = node.children_.find(place);
    if (known != node.children_.end()) {
        if (known->second->entity_ == target) return true;
        lose(*known->second);
        if (!target) return true;
    }
    if (!target || !isFree(*target)) return false;
    if (Node* const child = this->place(*target, &node, place)) explore(*child);
    return true;
}

void EntityTree::lose(Node& node) {
    if (observer_) observer_->gone(node);
    if (node.above_) node.above_->children_.erase(node.place_);
    std::vector<Node*> lost{&node};
    while (!lost.empty()) {
        Node& one = *lost.back();
        lost.pop_back();
        one.isLost_ = true;
        one.above_ = nullptr;
        --size_;
        for (auto const& [place, child] : one.children_) lost.push_back(child);
        one.children_.clear();
    }
    hasNewlyLost_ = true;
}

void EntityTree::settle() {
    dead_.clear();
    if (!std::exchange(hasNewlyLost_, false) || size_ == nodes_.size()) return;
    // An entity has lost its place, but still exists: look whether it has another one.
    std::vector<Node*> all;
    for (auto const& [entity, node] : nodes_)
        if (!node->isLost_) all.push_back(node.get());
    for (Node* const node : all) {
        std::vector<Node*> found;
        exploreNames(*node, found);
        exploreOthers(*node, found);
        for (Node* const moved : found) explore(*moved);
    }
}

}  // namespace Tool
