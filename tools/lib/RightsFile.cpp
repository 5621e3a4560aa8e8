#include "tools/lib/RightsFile.h"

#include "tools/lib/Clean.h"
#include "tools/lib/Complaints.h"
#include "tools/lib/Input.h"
#include "tools/lib/Output.h"

#include <algorithm>

namespace Tool {

namespace {

// Returns the line with this number, from 1 on.
std::string_view lineOf(std::string_view text, std::size_t number) {
    while (--number != 0) text.remove_prefix(std::min(text.size(), text.find('\n') + 1));
    return text.substr(0, text.find('\n'));
}

}  // namespace

std::shared_ptr<Mount::Rights> readRights(std::string const& file) {
    Input input(file);
    std::optional<std::string> const text = input.all(Mount::Rights::longestText);
    if (!text) throw Failure(badUsage, input.tooLarge(Mount::Rights::longestText) + ", which is the limit of rights");
    std::vector<Mount::Rights::Mistake> mistakes;
    auto rights = Mount::Rights::parsed(*text, mistakes);
    Nature nature;
    nature.see(*text);
    Complaints complaints(input.name(), nature);
    for (auto const& [line, column, why] : mistakes)
        complaints.add(input.name() + ":" + std::to_string(line) + ":" + std::to_string(column), cleaned(why.view()),
            lineOf(*text, line), column - 1);
    complaints.end();
    if (complaints.count() != 0) throw Failure(badUsage, "");
    return rights;
}

}  // namespace Tool
