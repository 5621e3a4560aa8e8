#pragma once

#include "Vel/entity/Entity.h"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

// A state file describes a tree of entities. "mox tree ADDRESS --state" prints it, and "mox serve" serves it.
//
//     # blank lines, and lines that begin with a "#", are skipped
//     PATH TYPE               an entity; directories above it that are not in the file are made
//     PATH TYPE 'name'        an entity whose name is not the last step of its path, since that begins with "@"
//     PATH ATTRIBUTE = VALUE  a value, in any text that valueFrom() in ValueText.h accepts
//     PATH ATTRIBUTE = PATH   a reference to an entity anywhere in the file, or None
//     PATH COLLECTION KEY = PATH, or VALUE
//
// Paths have the form of EntityText.h. The line of an entity comes before those of its attributes, and of the entities
// below it.
namespace Tool {

// A remark about a line: a mistake, or a text that was read as something slightly different.
struct StateMistake {
    std::string text;
    std::size_t line = 0;    // counted from 1
    std::size_t offset = 0;  // in the line, in bytes
    std::string lineText;
};

struct StateListener {
    // Called for each mistake. The line is skipped, and so are all lines about an entity that is missing because of it.
    // If the function is empty, the first mistake is thrown.
    std::function<void(StateMistake const&)> mistake;
    std::function<void(StateMistake const&)> taken;  // called for texts that valueFrom() reads differently
};

// Makes the tree that the text describes, and returns its root: a Vel::Dir, unless a line gives "/" another type.
// Throws StateMistake.
Vel::Ptr<Vel::Entity> entitiesFromState(std::string_view text, StateListener const& listener = {});

}  // namespace Tool
