#pragma once

#include "Vel/base/String.h"

#include <string_view>

namespace Vel {

// Returns the number of bytes of the first character of `text`, or 0 if it is not safe to print. Not safe are control
// characters of both sets, bytes that are no UTF-8, characters that separate lines, and characters that change the
// direction of a text. Of these the caller skips one byte. REQUIRES: text is not empty.
VEL_API std::size_t shownSize(std::string_view text);

// Makes a text that a peer has sent safe for a log, a terminal and an entity that is served to others. Returns at most
// `most` bytes of valid UTF-8. Characters that are not safe to print are escaped byte by byte (\x1b). A text that had
// to be cut ends with "...". Applied to its own result, the function changes nothing. REQUIRES: most >= 3.
VEL_API String peerText(std::string_view text, std::size_t most = 256);

}  // namespace Vel
