#pragma once

#include "tools/lib/Output.h"

#include "Vel/describe/StreamTable.h"
#include "Vel/entity/Entity.h"

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

// What of an entity travels, as texts: for entities of types that the tool has never heard of. Only what is stored is
// looked at: an accessor of a copy might answer for the machine that the copy is on.
namespace Tool {

inline Vel::StreamTable const* streamTableOf(Vel::Entity const& entity) {
    auto* const stream = entity.fwkType().glue().stream;
    return stream ? &stream() : nullptr;
}
// By which the entities below one are named: the first collection that makes its members, else the first one, with
// names as keys. Null: the type has none.
Vel::StreamAttribute const* namingCollection(Vel::StreamTable const& table);

std::string attributeName(Vel::VelType type, Vel::AttributeId id);
Vel::StreamAttribute const* attributeNamed(Vel::VelType type, std::string_view name);  // that travels, or null
std::vector<std::string> attributeNames(Vel::VelType type);                            // that travel, in their order
std::string noSuchAttribute(
    Vel::VelType type, std::string_view name);  // "TYPE has no attribute NAME; did you mean ...?"
// The attribute of that name, which travels. Throws Failure (something wrong), with names that it has.
Vel::StreamAttribute const& attributeOf(Vel::Entity const& entity, std::string const& name);
std::string typeName(Vel::StreamAttribute const& attribute);  // of a reference: what it refers to at most
Vel::VelType keyTypeOf(Vel::VelType type, Vel::StreamAttribute const& collection);

// --- values ---

// REQUIRES: an attribute of kind value.
Vel::GenericValue storedValue(Vel::Entity const& entity, Vel::StreamAttribute const& attribute);
// What a collection of values has at a key; nothing when it has not.
std::optional<Vel::GenericValue> storedItem(
    Vel::Entity const& entity, Vel::StreamAttribute const& collection, std::string_view key);
// Through the mutator, which may throw what it likes.
void storedValueIs(Vel::Entity& entity, Vel::StreamAttribute const& attribute, Vel::GenericValue const& value);
// Numbers, booleans and strings as such, records as objects of their fields, others as their text; a number that JSON
// does not have as its text.
Json jsonValue(Vel::GenericValue const& value);

// --- keys ---

// A collection's key as the tree keeps it: a name as it stands, of others their encoding.
std::string keyFromEncoding(Vel::StreamAttribute const& collection, std::string_view encoding);
std::string keyFromEncoding(Vel::StreamAttribute const& collection, Vel::NboAttrLog::Out const& encoding);
std::string keyFromValue(Vel::StreamAttribute const& collection, Vel::GenericValue const& value);
std::string encodedKey(Vel::StreamAttribute const& collection, std::string_view key);
Vel::GenericValue keyValue(Vel::VelType type, Vel::StreamAttribute const& collection, std::string_view key);
std::span<Vel::U8 const> bytesOf(std::string_view text);
// Calls f(key) for all keys that the collection has now.
void eachKey(Vel::Entity const& entity, Vel::StreamAttribute const& collection,
    std::function<void(std::string const&)> const& f);
Vel::Entity* memberOf(Vel::Entity const& entity, Vel::StreamAttribute const& collection, std::string_view key);

// --- paths ---

// A path has a "/" before each step. A step is the name of an entity in the naming collection of the one above it, or
// "@attribute" for what a pointer refers to, or "@collection[key]" for the member of another collection, the key as
// text. What would end a step, or is not for a terminal (see Clean.h), stands as %XX: "/" and "%", blanks, control
// bytes, what is no UTF-8, and an "@" at the beginning. So a path is one word, and JSON can hold it.
std::string stepText(Vel::VelType above, Vel::StreamAttribute const& attribute, std::string_view key);
std::string decodedStep(std::string_view step);  // a "%" that two digits do not follow stands for itself

struct Step {
    std::string attribute;  // empty: a name
    std::string key;        // the name, or the text of the key
    bool hasKey = true;     // false: a pointer
    std::size_t end = 0;    // in the path, behind the step
};
// Every text is a path; doubled separators mean nothing.
std::vector<Step> stepsOf(std::string_view path);

// Where a step leads to: null when nothing is there.
struct StepPlace {
    Vel::StreamAttribute const* attribute = nullptr;  // null: the type has none such
    std::string key;
};
StepPlace placeOf(Vel::Entity const& entity, Step const& step);
Vel::Entity* entityAt(Vel::Entity const& entity, StepPlace const& place);

}  // namespace Tool
