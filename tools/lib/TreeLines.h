#pragma once

#include "tools/lib/Answers.h"
#include "tools/lib/EntityTree.h"

#include <string_view>

namespace Tool {

// Writes the entities of a tree, and changes of it, one line each. The lines are those of a state file (see
// StateFile.h), with "+ " before an entity that has appeared and "- " before one that has gone. In JSON they are
// objects with a member "event".
class TreeLines {
public:
    using Node = EntityTree::Node;

    // Returns the time that is written before the next line, or into its JSON object; "" means none. `isNote` says that
    // the line is a note.
    using Time = std::function<std::string(bool isNote)>;

    TreeLines(Answers& answers, bool json, Time time = {}) : answers_(answers), json_(json), time_(std::move(time)) {}

    // Writes the entity with all its attributes, but not the entities below it.
    void whole(EntityTree const& tree, Node const& node, bool isNew);
    // Writes one attribute. REQUIRES: a value or a pointer.
    void attribute(EntityTree const& tree, Node const& node, Vel::StreamAttribute const& attribute);
    // Writes what a collection has at the key, unless that is an entity whose place in the tree is there.
    void member(
        EntityTree const& tree, Node const& node, Vel::StreamAttribute const& collection, std::string const& key);
    void gone(Node const& node);
    // Writes a remark about the whole copy: "# EVENT: TEXT", or in JSON an object of `more` and the event. The text is
    // escaped, so that it stays on one line.
    void note(std::string_view event, std::string const& text, Json const& more);

    std::uint64_t count() const { return count_; }  // number of lines, without notes

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

// Return the target of a pointer or key: a path, or "None".
std::string referenceText(EntityTree const& tree, Vel::Entity const* target);
Json referenceJson(EntityTree const& tree, Vel::Entity const* target);

// Return an attribute's value, or the target of a pointer. REQUIRES: it is no collection.
std::string heldText(EntityTree const& tree, Vel::Entity const& entity, Vel::StreamAttribute const& attribute);
Json heldJson(EntityTree const& tree, Vel::Entity const& entity, Vel::StreamAttribute const& attribute);

// Calls f(collection, key, member) for those members of the node's collections whose place in the tree is elsewhere.
void eachReference(EntityTree::Node const& node,
    std::function<void(Vel::StreamAttribute const&, std::string const&, Vel::Entity&)> const& f);

// Calls f(collection, key, value) for the values in the node's collections of values.
void eachItem(EntityTree::Node const& node,
    std::function<void(Vel::StreamAttribute const&, std::string const&, Vel::GenericValue const&)> const& f);

// Returns the entity's pointers, and the members that eachReference() visits: each as "attribute" or
// "@collection[key]", and its target as a path or "None".
std::vector<std::pair<std::string, std::string>> referencesOf(EntityTree const& tree, EntityTree::Node const& node);

// Returns the entity with all its attributes, but not the entities below it.
Json entityJson(EntityTree const& tree, EntityTree::Node const& node);

// Returns the exit code of a command that has shown the tree. Says on standard error if something was left out.
int exitCodeOf(EntityTree const& tree);

}  // namespace Tool
