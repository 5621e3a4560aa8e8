#include "tools/lib/Names.h"

#include "tools/lib/Output.h"

#include "Vel/describe/Module.h"

#include <algorithm>
#include <cctype>
#include <numeric>

namespace Tool {

namespace {

std::string lower(std::string_view text) {
    std::string out(text);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

std::string_view withoutNamespace(std::string_view name) {
    auto const colon = name.rfind(':');
    return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

// Returns the Levenshtein distance: the number of characters to insert, delete or replace.
std::size_t editDistance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t(0));
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < b.size(); ++j) {
            std::size_t const replaced = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

constexpr std::size_t farAway = 1000;

std::size_t distance(std::string_view wanted, std::string_view known) {
    std::string const a = lower(wanted), b = lower(known);
    std::string_view const tailA = withoutNamespace(a), tailB = withoutNamespace(b);
    if (tailA.empty()) return b.starts_with(a) ? 1 : farAway;
    if (a == b || tailA == tailB) return 0;
    std::size_t const edits = std::min(editDistance(a, b), editDistance(tailA, tailB));
    if (edits <= 1 + tailA.size() / 4) return edits;
    return tailA.size() >= 3 && tailB.find(tailA) != std::string_view::npos ? 10 : farAway;
}

}  // namespace

std::vector<std::string> nearest(std::string_view name, std::vector<std::string> const& known) {
    constexpr std::size_t longestName = 100;  // a longer one is no mistyped name, and would take long to compare
    if (name.empty() || name.size() > longestName) return {};
    std::vector<std::pair<std::size_t, std::string>> found;
    for (std::string const& candidate : known)
        if (std::size_t const d = distance(name, candidate); d < farAway) found.emplace_back(d, candidate);
    std::sort(found.begin(), found.end());
    std::vector<std::string> result;
    for (auto const& [d, candidate] : found) {
        // If a candidate differs only by its namespace, lists only such candidates.
        bool const worse = found[0].first == 0 && d > 0;
        bool const isRepeated = std::find(result.begin(), result.end(), candidate) != result.end();
        if (result.size() < 3 && !worse && !isRepeated) result.push_back(candidate);
    }
    return result;
}

std::string alternatives(std::vector<std::string> const& names) {
    std::string out;
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (i != 0) out += i + 1 == names.size() ? " or " : ", ";
        out += names[i];
    }
    return out;
}

std::string orNearest(std::string_view name, std::vector<std::string> const& known, std::string const& otherwise) {
    auto const near = nearest(name, known);
    return near.empty() ? otherwise : "; did you mean " + alternatives(near) + "?";
}

std::string orNearest(std::string_view name, std::vector<std::string> const& known) {
    return orNearest(name, known, known.empty() ? "" : ", only " + joined(known, ", "));
}

Vel::VelType typeNamed(std::string_view name) {
    if (Vel::VelType const type = Vel::Registry::type(name)) return type;
    throw Failure(badUsage,
        "there is no type " + shortened(shown(name), 80) + orNearest(name, typeNames(), "; \"mox types\" lists all"));
}

std::string fingerprintText(Vel::U64 fingerprint) { return Vel::format("%016lx", fingerprint).stdString(); }

std::vector<std::string> moduleNames() {
    std::vector<std::string> names;
    for (Vel::VelType const& type : Vel::Registry::types())
        if (names.empty() || names.back() != type.moduleName()) names.emplace_back(type.moduleName());
    return names;
}

std::vector<std::string> typeNames() {
    std::vector<std::string> names;
    for (Vel::VelType const& type : Vel::Registry::types()) names.emplace_back(type.name());
    return names;
}

}  // namespace Tool
