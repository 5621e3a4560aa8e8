#pragma once

#include "Vel/base/String.h"

#include <string_view>

namespace Vel {

// How many bytes the character takes that `text` begins with, if it shows as itself wherever it is printed. 0: it does
// not, and is no more than one byte then. What does not show are control characters of both sets, what is no UTF-8,
// what separates lines, and what changes the direction of a text. REQUIRES: text is not empty.
VEL_API std::size_t shownSize(std::string_view text);

// What a peer has said, fit for a log, a terminal and an entity that is served on: at most `most` bytes, of UTF-8 that
// shows. What does not show, or changes the direction of the text, is escaped byte by byte (\x1b); what is cut ends in
// "...". Doing it again changes nothing. REQUIRES: most >= 3.
VEL_API String peerText(std::string_view text, std::size_t most = 256);

}  // namespace Vel
