#pragma once

#include "tools/lib/EntityText.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace Tool {

// All entities that one leads to, each at one place: where it is named if it is named anywhere, else where something
// refers to it. Entities may refer to each other in any way, and nest to any depth.
//
// Nothing is kept alive by a tree. Without an observer it is good as long as no entity changes; with one it follows.
// An entity whose path would be longer than `longestPath` is left out, with all that is only below it: what is printed
// stays bounded by what there is.
class EntityTree {
public:
    static constexpr std::size_t longestPath = 65536;  // bytes

    struct Place {
        Vel::StreamAttribute const* attribute = nullptr;
        std::string key;  // as keyFromEncoding() has it

        friend bool operator<(Place const& a, Place const& b) {
            if (a.attribute->id != b.attribute->id) return a.attribute->id < b.attribute->id;
            return a.key < b.key;
        }
    };
    class Node;
    using Children = std::map<Place, Node*>;

    // Is told of changes while they are made, after the tree has followed. Nothing of the tree may be destroyed by it.
    class Observer {
    public:
        virtual ~Observer();
        virtual void appeared(Node& node) = 0;  // and what is below it: each is told of
        virtual void gone(Node& node) = 0;  // with all below it, of which nothing is told; the node has its path still
        virtual void changed(Node& node, Vel::StreamAttribute const& attribute) = 0;  // value or pointer
        // At a key where a value is or was, or an entity that has its place elsewhere.
        virtual void memberChanged(Node& node, Vel::StreamAttribute const& collection, std::string const& key) = 0;
    };

    class Node final : public Vel::Notifiee {
    public:
        Node(EntityTree& tree, Vel::Entity& entity);

        Vel::Entity& entity() const { return *entity_; }
        Vel::VelType type() const { return type_; }
        Vel::StreamTable const& table() const { return table_; }
        Node* above() const { return above_; }                  // null: the root
        Place const& place() const { return place_->first; }    // in the one above. REQUIRES: not the root
        Children const& children() const { return children_; }  // in the order of attributes and keys
        std::string step() const;                               // of the path; empty for the root
        std::string path() const;
        std::size_t depth() const { return depth_; }  // of the root 0

        void handleAttribute(Vel::AttributeId attribute) override;
        void handleAttribute(Vel::AttributeId attribute, Vel::NotifieeKey const& key) override;
        void handleNotifierDel() noexcept override;

    private:
        friend EntityTree;
        EntityTree& tree_;
        Vel::Entity* entity_;
        Vel::VelType type_;
        Vel::StreamTable const& table_;
        Node* above_ = nullptr;
        Children::iterator place_;
        Children children_;
        std::size_t pathSize_ = 0, depth_ = 0;
        bool isLost_ = true;
    };

    // rootPath: what all paths begin with, "/" or "/a/b".
    EntityTree(Vel::Entity& root, std::string const& rootPath, Observer* observer = nullptr);
    EntityTree(EntityTree const&) = delete;
    EntityTree& operator=(EntityTree const&) = delete;
    ~EntityTree();

    Node& root() const { return *root_; }
    Node* find(Vel::Entity const& entity) const;  // null: it is not in the tree
    std::size_t size() const { return size_; }    // nodes
    bool isWhole() const { return isWhole_; }     // nothing was left out
    static Node* next(
        Node& node, Node const& top);  // in the order of paths, each before what is below it, up to `top`'s end
    static Node* nextBeside(Node& node, Node const& top);  // the same without what is below this one
    // To be called when nothing changes: finds what has moved, and forgets what has gone.
    void settle();

private:
    Node* place(Vel::Entity& entity, Node* above, Place place);
    void explore(Node& from);
    void exploreNames(Node& node, std::vector<Node*>& found);
    void exploreOthers(Node& node, std::vector<Node*>& found);
    void lose(Node& node);
    bool check(Node& node, Place const& place);
    bool isFree(Vel::Entity const& entity) const;

    std::string rootPath_;
    Observer* observer_ = nullptr;
    std::unordered_map<Vel::Entity const*, std::unique_ptr<Node>> nodes_;
    std::vector<std::unique_ptr<Node>> dead_;  // may be in use further up the stack
    Node* root_ = nullptr;
    std::size_t size_ = 0;
    bool isWhole_ = true;
    bool hasNewlyLost_ = false;
};

}  // namespace Tool
