#pragma once

#include "tools/lib/Answers.h"
#include "tools/lib/EntityTree.h"

#include <string_view>

namespace Tool {

// What is in a tree, and what happens to it, one line each: as lines of a state file (see StateFile.h), with "+ "
// before what has appeared and "- " before what has gone, or as JSON objects with a member "event".
class TreeLines {
public:
    using Node = EntityTree::Node;

    // time: of what is told next, put before lines and into JSON; isNote: for a note. May return "".
    using Time = std::function<std::string(bool isNote)>;

    TreeLines(Answers& answers, bool json, Time time = {}) : answers_(answers), json_(json), time_(std::move(time)) {}

    // The entity and all that it holds, but not what is below it.
    void whole(EntityTree const& tree, Node const& node, bool isNew);
    // REQUIRES: a value or a pointer.
    void attribute(EntityTree const& tree, Node const& node, Vel::StreamAttribute const& attribute);
    // What a collection has at the key, unless that is an entity in the tree at that very place.
    void member(
        EntityTree const& tree, Node const& node, Vel::StreamAttribute const& collection, std::string const& key);
    void gone(Node const& node);
    // Something about the copy as a whole: "# EVENT: TEXT", or an object with that member besides `more`.
    // The text stays on its line whatever it holds.
    void note(std::string_view event, std::string const& text, Json const& more);

    std::uint64_t count() const { return count_; }  // lines, without notes

private:
    void entity(Node const& node, bool isNew);
    void add(Json json, bool isNote);
    void add(Json json) { add(std::move(json), false); }
    void add(std::string_view mark, std::string const& text);

    Answers& answers_;
    bool json_;
    Time time_;
    std::uint64_t count_ = 0;
};

// What a pointer or a key refers to: a path, or "None".
std::string referenceText(EntityTree const& tree, Vel::Entity const* target);
Json referenceJson(EntityTree const& tree, Vel::Entity const* target);

// What an attribute holds: a value, or what a pointer refers to. REQUIRES: no collection.
std::string heldText(EntityTree const& tree, Vel::Entity const& entity, Vel::StreamAttribute const& attribute);
Json heldJson(EntityTree const& tree, Vel::Entity const& entity, Vel::StreamAttribute const& attribute);

// Calls f(collection, key, member) for the members of the node's collections that have their place elsewhere.
void eachReference(EntityTree::Node const& node,
    std::function<void(Vel::StreamAttribute const&, std::string const&, Vel::Entity&)> const& f);

// The same for the values in the node's collections of values.
void eachItem(EntityTree::Node const& node,
    std::function<void(Vel::StreamAttribute const&, std::string const&, Vel::GenericValue const&)> const& f);

// What the entity's pointers, and the keys that eachReference() goes through, refer to: "attribute" or
// "@collection[key]", and a path or "None".
std::vector<std::pair<std::string, std::string>> referencesOf(EntityTree const& tree, EntityTree::Node const& node);

// The entity and all that it holds, but not what is below it.
Json entityJson(EntityTree const& tree, EntityTree::Node const& node);

// Of who has shown the tree: says on standard error when something was left out.
int exitCodeOf(EntityTree const& tree);

}  // namespace Tool
