#pragma once

#include "Vel/entity/Entity.h"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

// A state file says what a tree of entities is: what "mox tree ADDRESS --state" prints, and "mox serve" serves.
//
//     # blank lines, and those that begin with a "#", are skipped
//     PATH TYPE               an entity; directories above it that are not in the file are made
//     PATH TYPE 'name'        one whose name is not the last step of its path, since that begins with "@"
//     PATH ATTRIBUTE = VALUE  a value, as the text of its type, or what valueFrom() in ValueText.h makes of it
//     PATH ATTRIBUTE = PATH   a reference to an entity anywhere in the file, or None
//     PATH COLLECTION KEY = PATH, or VALUE
//
// Paths are those of EntityText.h. An entity comes before its attributes and what is below it.
namespace Tool {

// Something about a line: a mistake, or what was taken for something else.
struct StateMistake {
    std::string text;
    std::size_t line = 0;    // from 1
    std::size_t offset = 0;  // in the line, in bytes
    std::string lineText;
};

struct StateListener {
    // Told of each mistake, whose line is left out, with all that is about an entity that is missing by that. Empty:
    // the first mistake is thrown.
    std::function<void(StateMistake const&)> mistake;
    std::function<void(StateMistake const&)> taken;  // told of what was taken for something else: see ValueText.h
};

// The root of what the text says, a Vel::Dir unless the path "/" says otherwise. Throws StateMistake.
Vel::Ptr<Vel::Entity> entitiesFromState(std::string_view text, StateListener const& listener = {});

}  // namespace Tool
