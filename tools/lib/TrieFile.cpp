#include "tools/lib/TrieFile.h"

#include "tools/lib/Clean.h"
#include "tools/lib/Complaints.h"
#include "tools/lib/Output.h"
#include "tools/lib/Progress.h"

#include <algorithm>

#include <unistd.h>

namespace Tool {

namespace {

constexpr char blanks[] = " \t";

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }
bool isSeparator(char c) { return c == '/' || c == '.'; }

std::size_t offsetIn(std::string_view line, std::string_view part) {
    return static_cast<std::size_t>(part.data() - line.data());
}

class Reader {
public:
    Reader(Input& input, std::string const& name)
        : name_(input.name()),
          progress_(input, false),
          lines_(
              input, [this] { progress_.tell(lines_); }, Input::largest),
          complaints_(name_, lines_.nature(), [this] { progress_.clear(); }) {
        if (!name.empty()) file_.trie = Tags::TagTrie::newEntity(Vel::String(name));
    }

    TrieFile result() {
        while (lines_.next())
            if (lines_.isTooLong())
                reject("this line is longer than 1 MiB, and left out", lines_.text().size());
            else if (!lines_.isBlank())
                take();
        progress_.clear();
        complaints_.end();
        file_.rejected = complaints_.count();
        if (file_.rejected != 0)
            complain(name_ + ": " + std::to_string(file_.rejected) + " of " +
                     std::to_string(file_.taken + file_.rejected) + " lines " + (file_.rejected == 1 ? "is" : "are") +
                     " bad and left out");
        return std::move(file_);
    }

private:
    void take() {
        std::string_view const line = lines_.text(), text = withoutMargins(line);
        std::string_view const path = text.substr(0, text.find_first_of(blanks));
        if (path.starts_with('{')) return reject("a path expected before the tags", offsetIn(line, path));
        if (auto const mistake = mistakeInPath(path))
            return reject(mistake->text, offsetIn(line, path) + mistake->offset);
        std::string_view const tagText = withoutMargins(text.substr(path.size()));
        auto const tags = Tags::checkedTags(tagText);
        if (!tags) return reject(tags.error().text.stdString(), offsetIn(line, tagText) + tags.error().offset);
        auto const all = Tags::checkedTags(uncleaned(tagText));  // parsed again, to sort the uncleaned tags by bytes
        state_->tagsIs(*all);  // for each line anew, since prefixIs() adds the tags of prefixes on the path to it
        file_.trie->prefixIs(Vel::String(uncleaned(path)), state_);
        ++file_.taken;
    }

    void reject(std::string const& why, std::size_t offset) {
        complaints_.add(lines_.place(offset), why, lines_.text(), offset);
    }

    std::string name_;
    TrieFile file_;
    Vel::Ptr<Tags::TagState> state_ = Tags::TagState::newEntity();
    Progress progress_;
    LineReader lines_;
    Complaints complaints_;
};

}  // namespace

std::optional<PathMistake> mistakeInPath(std::string_view path) {
    if (path.empty()) return PathMistake{"a path expected", 0};
    std::size_t components = 1, last = 0;  // `last` is where the last component begins
    for (std::size_t i = 0; i < path.size(); ++i) {
        if (isControl(path[i])) return PathMistake{"a path has no control bytes", i};
        if (i == 0 || !isSeparator(path[i])) continue;
        if (++components > mostComponents)
            return PathMistake{"a path has at most " + std::to_string(mostComponents) + " components", i};
        last = i;
    }
    if (auto const star = path.find('*', last); star != std::string_view::npos)
        return PathMistake{
            "the last component of a path has no star: it is a mount point without one, and a star is no wildcard",
            star};
    return std::nullopt;
}

std::string_view withoutMargins(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    return text.substr(0, text.find_last_not_of(blanks) + 1);
}

TrieFile readTrie(Input& input, std::string const& name) {
    if (::isatty(input.descriptor()) == 1 && ::isatty(STDERR_FILENO) == 1)
        complain("type paths, one on a line, with tags such as {a,b} behind those that have any; Ctrl-D ends");
    return Reader(input, name).result();
}

}  // namespace Tool
