#pragma once

#include "Vel/String.h"

#include <string_view>

namespace Vel {

// What a peer has said, fit for a log, a terminal and an entity that is served on: at most `most` bytes, of UTF-8 that
// shows. What does not show, or changes the direction of the text, is escaped byte by byte (\x1b); what is cut ends in
// "...". Doing it again changes nothing. REQUIRES: most >= 3.
VEL_API String peerText(std::string_view text, std::size_t most = 256);

}  // namespace Vel
