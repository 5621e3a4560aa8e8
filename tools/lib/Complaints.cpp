#include "tools/lib/Complaints.h"

#include "tools/lib/Clean.h"
#include "tools/lib/Output.h"

#include <algorithm>
#include <vector>

namespace Tool {

namespace {

using namespace std::string_view_literals;

// First bytes of the kinds of files that users often pass instead of text files.
constexpr std::pair<std::string_view, std::string_view> beginnings[] = {{"\x1f\x8b"sv, "gzip"}, {"BZh"sv, "bzip2"},
    {"\xfd"
     "7zXZ\0"sv,
        "xz"},
    {"\x28\xb5\x2f\xfd"sv, "zstd"}, {"\x04\x22\x4d\x18"sv, "lz4"}, {"\x1f\x9d"sv, "compress"}, {"PK\x03\x04"sv, "zip"},
    {"7z\xbc\xaf\x27\x1c"sv, "7-Zip"},
    {"\x7f"
     "ELF"sv,
        "a program (ELF)"},
    {"\xff\xfe"sv, "UTF-16"}, {"\xfe\xff"sv, "UTF-16"}};
constexpr std::size_t longestBeginning = 6;

constexpr std::size_t mostKinds = 100, kindsShown = 8;

// Returns the kind of a mistake: its text without the place and the excerpt.
std::string kindOf(std::string const& what) { return what.substr(0, what.find(" at offset ")); }

}  // namespace

void Nature::see(std::string_view bytes) {
    if (!text_.empty()) return;
    if (beginning_.size() < longestBeginning) {
        beginning_ += bytes.substr(0, longestBeginning - beginning_.size());
        for (auto const& [beginning, name] : beginnings)
            if (std::string_view(beginning_).starts_with(beginning)) text_ = "looks like " + std::string(name);
    }
    std::size_t const zero = bytes.find('\0');
    if (text_.empty() && zero != std::string_view::npos)
        text_ = "binary: byte 0x00 at offset " + std::to_string(seen_ + zero);
    seen_ += bytes.size();
}

void Complaints::add(std::string const& place, std::string const& what, std::string_view line, std::size_t offset) {
    ++count_;
    if (hasTold_) return;
    if (count_ > mostShown) return keep(what);
    if (before_) before_();
    complain(place + ": " + cleaned(what) + "\n" + caretBelow(line, offset));
    if (nature_.text().empty()) return;
    complain(name_ + ": " + nature_.text() + "; no more is said about its lines");
    hasTold_ = true;
}

void Complaints::keep(std::string const& what) {
    ++notShown_;
    std::string kind = shortened(cleaned(kindOf(what)), 120);
    if (kinds_.size() < mostKinds || kinds_.contains(kind))
        ++kinds_[std::move(kind)];
    else
        ++others_;
}

void Complaints::end() {
    if (notShown_ == 0) return;
    std::vector<std::pair<std::uint64_t, std::string>> kinds;
    for (auto const& [kind, count] : kinds_) kinds.emplace_back(count, kind);
    std::stable_sort(kinds.begin(), kinds.end(), [](auto const& a, auto const& b) { return a.first > b.first; });
    for (; kinds.size() > kindsShown; kinds.pop_back()) others_ += kinds.back().first;
    if (others_ != 0) kinds.emplace_back(others_, "of other kinds");
    std::string text = name_ + ": " + std::to_string(notShown_) + " more that are not shown:";
    for (auto const& [count, kind] : kinds) text += "\n    " + std::to_string(count) + "  " + kind;
    if (before_) before_();
    complain(text);
}

}  // namespace Tool
