#include "Vel/stream/StreamRights.h"

#include <algorithm>

namespace Vel {

std::string plainPath(std::string_view path, std::string above) {
    while (!path.empty()) {
        std::string_view const name = path.substr(0, path.find('/'));
        path.remove_prefix(std::min(path.size(), name.size() + 1));
        if (name.empty()) continue;
        if (!above.empty()) above += '/';
        above += name;
    }
    return above;
}

StreamRights::~StreamRights() = default;

}  // namespace Vel
