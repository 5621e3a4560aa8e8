#pragma once

#include "Vel/describe/GenericIf.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

// Values as people read and write them.
namespace Tool {

std::vector<Vel::VelAttr> fieldsOf(Vel::VelType type);

// Returns the value's text form, with \xNN for bytes that are not safe to print (see Clean.h). valueFrom() reads it.
std::string valueText(Vel::GenericValue const& value);

// Called for each part of a text that is read differently: "1 is taken for 1.0", and its offset in the text.
using Taken = std::function<void(std::string const& note, std::size_t offset)>;

// Parses a value. A text in the type's text form is read as such. Any other text may differ from the text form by
//
//     a word without quotes where a string is meant    uplink   'uplink'
//     a word where a name of an enumeration is meant   rain     'rain'
//     a whole number where a double is meant           1        1.0
//     \xNN in a string for any byte from 0x80 up, as valueText() writes it
//
// also in the fields of records. If that does not help, throws what is wrong with the unchanged text.
Vel::GenericValue valueFrom(Vel::VelType type, std::string_view text, Taken const& taken = {});

// Returns a function that reports it with --verbose: "PLACE: 1 is taken for 1.0".
Taken remarking(std::string const& place);

// Parses a value of the command line. Throws Failure with `exitCode`, whose text is `errorPlace`, and what is wrong and
// where. remarkPlace: the place for remarking().
Vel::GenericValue givenValue(Vel::VelType type, std::string const& text, int exitCode,
    std::string const& remarkPlace = "", std::string const& errorPlace = "");

}  // namespace Tool
