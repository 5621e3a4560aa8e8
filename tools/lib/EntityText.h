#pragma once

#include "tools/lib/Output.h"

#include "Vel/describe/StreamTable.h"
#include "Vel/entity/Entity.h"

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

// The streamed attributes of an entity as texts. It works for types that the tool was not built with. It reads stored
// values and calls no accessor, since an accessor of a copy could answer for the machine that the copy is on.
namespace Tool {

inline Vel::StreamTable const* streamTableOf(Vel::Entity const& entity) {
    Vel::StreamTableRef const stream = entity.fwkType().glue().stream;
    return stream ? &stream() : nullptr;
}
// Returns the collection that names the entities below one in paths. Of the collections whose keys are names, it is the
// first that makes its members, or else the first. Returns null if the type has none.
Vel::StreamAttribute const* namingCollection(Vel::StreamTable const& table);

std::string attributeName(Vel::VelType type, Vel::AttributeId id);
Vel::StreamAttribute const* attributeNamed(Vel::VelType type, std::string_view name);  // null if none is streamed
std::vector<std::string> attributeNames(Vel::VelType type);  // of all streamed attributes, in their order
// Returns "TYPE has no attribute NAME; did you mean ...?".
std::string noSuchAttribute(Vel::VelType type, std::string_view name);
// Returns the streamed attribute with this name. Throws Failure (something wrong), with the names that there are.
Vel::StreamAttribute const& attributeOf(Vel::Entity const& entity, std::string const& name);
std::string typeName(Vel::StreamAttribute const& attribute);  // for a reference, the declared type of its target
Vel::VelType keyTypeOf(Vel::VelType type, Vel::StreamAttribute const& collection);

// --- values ---

// REQUIRES: an attribute of kind value.
Vel::GenericValue storedValue(Vel::Entity const& entity, Vel::StreamAttribute const& attribute);
// Returns the value at a key of a collection of values, or nothing if the key is not there.
std::optional<Vel::GenericValue> storedItem(
    Vel::Entity const& entity, Vel::StreamAttribute const& collection, std::string_view key);
// Calls the mutator, which may throw any exception.
void storedValueIs(Vel::Entity& entity, Vel::StreamAttribute const& attribute, Vel::GenericValue const& value);
// Returns a number, a boolean or a string as itself, a record as an object of its fields, and any other value as its
// text. A number that JSON does not have, such as a NaN, becomes its text.
Json jsonValue(Vel::GenericValue const& value);

// --- keys ---

// The form of a collection's key in the tree is the name, or the encoding if the key is no name. These convert between
// the forms.
std::string keyFromEncoding(Vel::StreamAttribute const& collection, std::string_view encoding);
std::string keyFromEncoding(Vel::StreamAttribute const& collection, Vel::NboAttrLog::Out const& encoding);
std::string keyFromValue(Vel::StreamAttribute const& collection, Vel::GenericValue const& value);
std::string encodedKey(Vel::StreamAttribute const& collection, std::string_view key);
Vel::GenericValue keyValue(Vel::VelType type, Vel::StreamAttribute const& collection, std::string_view key);
std::span<Vel::U8 const> bytesOf(std::string_view text);
// Calls f(key) for each key that is in the collection now.
void eachKey(Vel::Entity const& entity, Vel::StreamAttribute const& collection,
    std::function<void(std::string const&)> const& f);
Vel::Entity* memberOf(Vel::Entity const& entity, Vel::StreamAttribute const& collection, std::string_view key);

// --- paths ---

// A path has a "/" before each step. A step is the name of an entity in the naming collection of the entity above it,
// or "@attribute" for the target of a pointer, or "@collection[key]" for a member of another collection, with the key
// as text. Bytes that would end a step, or that are not safe to print (see Clean.h), are written as %XX: "/" and "%",
// blanks, control bytes, bytes that are no UTF-8, and an "@" at the beginning. So a path is one word that JSON can
// hold.
std::string stepText(Vel::VelType above, Vel::StreamAttribute const& attribute, std::string_view key);
std::string decodedStep(std::string_view step);  // keeps a "%" that is not followed by two hexadecimal digits

struct Step {
    std::string attribute;  // empty if the step is a name
    std::string key;        // the name, or the text of the key
    bool hasKey = true;     // false if the attribute is a pointer
    std::size_t end = 0;    // offset of the end of the step in the path
};
// Splits a path. Every text is a path; doubled separators are ignored.
std::vector<Step> stepsOf(std::string_view path);

// The place in an entity to which a step leads.
struct StepPlace {
    Vel::StreamAttribute const* attribute = nullptr;  // null if the type has no such attribute
    std::string key;
};
StepPlace placeOf(Vel::Entity const& entity, Step const& step);
Vel::Entity* entityAt(Vel::Entity const& entity, StepPlace const& place);  // null if no entity is there

}  // namespace Tool
