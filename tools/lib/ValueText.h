#pragma once

#include "Vel/describe/GenericIf.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

// Values as people read and write them.
namespace Tool {

std::vector<Vel::VelAttr> fieldsOf(Vel::VelType type);

// The value's text form, in which bytes that are not for a terminal (see Clean.h) stand as \xNN. valueFrom() reads it.
std::string valueText(Vel::GenericValue const& value);

// Told of what was taken for something else: "1 is taken for 1.0", and where in the text that is.
using Taken = std::function<void(std::string const& note, std::size_t offset)>;

// The value that a text says. What is the type's text form is taken as such; else it may differ from it by
//
//     a word without quotes where a string is meant    uplink   'uplink'
//     a whole number where a double is meant           1        1.0
//     \xNN in a string for any byte from 0x80 up, as valueText() writes it
//
// also in the fields of records. Throws what is wrong with the text as it stands.
Vel::GenericValue valueFrom(Vel::VelType type, std::string_view text, Taken const& taken = {});

// Tells of it with --verbose: "PLACE: 1 is taken for 1.0".
Taken remarking(std::string const& place);

// The value that the command line gives as a text. Throws Failure with that exit code, which says what is wrong and
// where, behind `errorPlace`. remarkPlace: as of remarking().
Vel::GenericValue givenValue(Vel::VelType type, std::string const& text, int exitCode,
    std::string const& remarkPlace = "", std::string const& errorPlace = "");

}  // namespace Tool
