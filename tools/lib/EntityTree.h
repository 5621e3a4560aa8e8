#pragma once

#include "tools/lib/EntityText.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace Tool {

// All entities that can be reached from a root, each at one place: where it is named, or, if it is named nowhere, where
// something refers to it. Entities may refer to each other in any way, and nest to any depth.
//
// The tree keeps no entity alive. Without an observer it is valid as long as no entity changes; with an observer it
// follows the changes. An entity whose path would be longer than `longestPath` is left out, with all that is only below
// it, so that deep nesting does not make the output grow without bounds.
class EntityTree {
public:
    static constexpr std::size_t longestPath = 65536;  // bytes

    struct Place {
        Vel::StreamAttribute const* attribute = nullptr;
        std::string key;  // in the form of keyFromEncoding()

        friend bool operator<(Place const& a, Place const& b) {
            if (a.attribute->id != b.attribute->id) return a.attribute->id < b.attribute->id;
            return a.key < b.key;
        }
    };
    class Node;
    using Children = std::map<Place, Node*>;

    // Is called for each change, after the tree has followed it. REQUIRES: the functions destroy no entity of the tree.
    class Observer {
    public:
        virtual ~Observer();
        virtual void appeared(Node& node) = 0;  // called for every new node, also for those below a new one
        // Called only for the top of a part that has gone; the node still has its path.
        virtual void gone(Node& node) = 0;
        virtual void changed(Node& node, Vel::StreamAttribute const& attribute) = 0;  // a value or a pointer
        // Called for a key that has or had a value, or an entity whose place in the tree is elsewhere.
        virtual void memberChanged(Node& node, Vel::StreamAttribute const& collection, std::string const& key) = 0;
    };

    class Node final : public Vel::Notifiee {
    public:
        Node(EntityTree& tree, Vel::Entity& entity);

        Vel::Entity& entity() const { return *entity_; }
        Vel::VelType type() const { return type_; }
        Vel::StreamTable const& table() const { return table_; }
        Node* above() const { return above_; }                  // null for the root
        Place const& place() const { return place_->first; }    // place in the node above. REQUIRES: not the root
        Children const& children() const { return children_; }  // in the order of attributes and keys
        std::string step() const;                               // last step of the path; empty for the root
        std::string path() const;
        std::size_t depth() const { return depth_; }  // 0 for the root

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

    // rootPath: the beginning of all paths, "/" or "/a/b".
    EntityTree(Vel::Entity& root, std::string const& rootPath, Observer* observer = nullptr);
    EntityTree(EntityTree const&) = delete;
    EntityTree& operator=(EntityTree const&) = delete;
    ~EntityTree();

    Node& root() const { return *root_; }
    Node* find(Vel::Entity const& entity) const;  // null if it is not in the tree
    std::size_t size() const { return size_; }    // number of nodes
    bool isWhole() const { return isWhole_; }     // false if an entity was left out
    // Returns the next node in the order of paths, in which a node comes before those below it. Null at the end of
    // `top`.
    static Node* next(Node& node, Node const& top);
    static Node* nextBeside(Node& node, Node const& top);  // the same, but skips the nodes below this one
    // Finds entities that have moved, and forgets those that have gone. REQUIRES: nothing changes at the moment.
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
    std::vector<std::unique_ptr<Node>> dead_;  // kept until settle(), since a caller may still use them
    Node* root_ = nullptr;
    std::size_t size_ = 0;
    bool isWhole_ = true;
    bool hasNewlyLost_ = false;
};

}  // namespace Tool
