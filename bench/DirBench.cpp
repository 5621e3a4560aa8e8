// Finding an entity by its path, and making one.

#include "Bench.h"
#include "Level.h"

#include "Vel/describe/Module.h"
#include "Vel/entity/Dir.h"

#include <absl/container/flat_hash_map.h>

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace Bench {

namespace {

constexpr std::size_t pathCount = 1024;

std::string nameOf(std::size_t i) { return "Ethernet" + std::to_string(i); }

// What one would write without a framework: nodes in the table that is given.
template <class Table> struct Node;
struct MapTable {
    using View = std::string_view;
    using Of = std::map<std::string, std::unique_ptr<Node<MapTable>>, std::less<>>;
};
struct HashTable {
    using View = absl::string_view;
    using Of = absl::flat_hash_map<std::string, std::unique_ptr<Node<HashTable>>>;
};
template <class Table> struct Node {
    typename Table::Of children;

    Node const* find(std::string_view path) const {
        Node const* node = this;
        while (node && !path.empty()) {
            auto const slash = path.find('/');
            auto const found = node->children.find(viewOf(path.substr(0, slash)));
            path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
            node = found == node->children.end() ? nullptr : found->second.get();
        }
        return node;
    }
    static auto viewOf(std::string_view name) { return typename Table::View(name.data(), name.size()); }
};

// Four directories, one in the other, of so many entries each; `paths` lead to random entries of the last one.
struct Trees {
    explicit Trees(std::size_t entries) {
        std::mt19937 random(1);
        auto dir = root;
        auto* map = &mapRoot;
        auto* hash = &hashRoot;
        std::string above;
        for (int depth = 0; depth < 4; ++depth) {
            std::string const next = nameOf(random() % entries);
            for (std::size_t i = 0; i < entries; ++i) {
                dir->createEntity("Vel::Dir", nameOf(i));
                map->children.emplace(nameOf(i), std::make_unique<Node<MapTable>>());
                hash->children.emplace(nameOf(i), std::make_unique<Node<HashTable>>());
            }
            if (depth == 3) break;
            dir = Vel::ptr_cast<Vel::Dir>(dir->entry(next));
            map = map->children.find(next)->second.get();
            hash = hash->children.find(next)->second.get();
            above += next + "/";
        }
        for (std::size_t i = 0; i < pathCount; ++i) paths.push_back(above + nameOf(random() % entries));
        for (std::string const& path : paths) {
            uris.emplace_back(Vel::String(path));
            auto const found = root->entity(uris.back());
            Bench::require(found && "/" + path == found->path().stdString(), "the entity's path");
            Bench::require(mapRoot.find(path) && hashRoot.find(path), "the node's path");
        }
    }

    Vel::Ptr<Vel::Dir> const root = Vel::Dir::newEntity("");
    Node<MapTable> mapRoot;
    Node<HashTable> hashRoot;
    std::vector<std::string> paths;
    std::vector<Vel::EntityUriPath> uris;
};

void addLookUp(std::size_t entries) {
    std::string const group = "4 names, " + std::to_string(entries) + " entries in each directory";
    auto const trees = std::make_shared<Trees>(entries);
    Bench::add(group, "Vel::Entity::entity", [trees](benchmark::State& state) {
        std::size_t i = 0;
        for (auto _ : state) benchmark::DoNotOptimize(trees->root->entity(trees->uris[i++ % pathCount]).get());
    });
    Bench::add(group, "nodes of std::map", [trees](benchmark::State& state) {
        std::size_t i = 0;
        for (auto _ : state) benchmark::DoNotOptimize(trees->mapRoot.find(trees->paths[i++ % pathCount]));
    });
    Bench::add(group, "nodes of absl::flat_hash_map", [trees](benchmark::State& state) {
        std::size_t i = 0;
        for (auto _ : state) benchmark::DoNotOptimize(trees->hashRoot.find(trees->paths[i++ % pathCount]));
    });
}

// As large as Level, with a virtual destructor and the name.
struct Plain {
    explicit Plain(Vel::String const& n) : name(n) {}
    virtual ~Plain() = default;
    Vel::String name;
    char rest[sizeof(Level) - sizeof(Vel::String) - sizeof(void*)] = {};
};

void addMaking() {
    Bench::add("made and destroyed", "entity", [name = Vel::String("level")](benchmark::State& state) {
        for (auto _ : state) benchmark::DoNotOptimize(Level::newEntity(name).get());
    });
    Bench::add(
        "made and destroyed", "object by std::make_shared", [name = Vel::String("level")](benchmark::State& state) {
            for (auto _ : state) benchmark::DoNotOptimize(std::make_shared<Plain>(name).get());
        });
    Bench::add("made, added, deleted", "entry of 10000", [](benchmark::State& state) {
        auto const dir = Vel::Dir::newEntity("");
        for (std::size_t i = 0; i < 10000; ++i) dir->createEntity("Bench::Level", nameOf(i));
        for (auto _ : state) {
            dir->entryIs(Level::newEntity("level"));
            dir->entryDel("level");
        }
    });
    Bench::add("made, added, deleted", "entry of 10", [](benchmark::State& state) {
        auto const dir = Vel::Dir::newEntity("");
        for (std::size_t i = 0; i < 10; ++i) dir->createEntity("Bench::Level", nameOf(i));
        for (auto _ : state) {
            dir->entryIs(Level::newEntity("level"));
            dir->entryDel("level");
        }
    });
}

}  // namespace
}  // namespace Bench

VEL_MODULE(DirBench, 64ca9ff60fa789b3, Bench::Level);

int main(int argc, char** argv) {
    for (std::size_t const entries : {4, 100, 10000}) Bench::addLookUp(entries);
    Bench::addMaking();
    return Bench::run(argc, argv);
}
