#include "Mount/Rights.h"

#include "Mount/internal/RightsTrie.h"
#include "Mount/internal/Users.h"

#include "Vel/base/Exception.h"
#include "Vel/text/PeerText.h"

#include <algorithm>

namespace Mount {

using Vel::format;
using Vel::plainPath;

namespace {

constexpr std::string_view blanks = " \t\r";

String quoted(std::string_view text) { return "\"" + Vel::peerText(text) + "\""; }

bool isBelow(std::string_view path, std::string_view above) {
    return above.empty() || (path.starts_with(above) && (path.size() == above.size() || path[above.size()] == '/'));
}

// --- who ---

void needPattern(Rights::Rule& rule, std::string_view name) {
    auto const star = name.find('*');
    if (name.empty()) Vel::throwRangeException("a certificate's name is missing behind \"name:\"");
    rule.who = star == std::string_view::npos ? Rights::Who::name : Rights::Who::pattern;
    if (rule.who == Rights::Who::pattern &&
        (star != 0 || name.find('*', 1) != name.npos || name == "*." || (name.size() > 1 && name[1] != '.')))
        Vel::throwRangeException("a star is the first label of a name, as in *.lab.example");
    rule.name = String(rule.who == Rights::Who::pattern ? name.substr(1) : name);
}

U32 needNumber(char const* kind, std::string_view name, RightsNames::Find const& find) {
    if (name.empty()) Vel::throwRangeException(format("the %s's name or number is missing", kind));
    bool const isText = name.find('\0') == name.npos;  // the system would look up what is before the zero
    if (auto const number = isText ? find(String(name)) : std::nullopt) return *number;
    Vel::throwRangeException(format("there is no %s %s on this machine", kind, quoted(name).charPtr()));
}

void whoIs(Rights::Rule& rule, std::string_view who, RightsNames const& names) {
    auto const colon = std::min(who.find(':'), who.size());
    std::string_view const kind = who.substr(0, colon), name = who.substr(std::min(colon + 1, who.size()));
    rule.whoText = String(who);
    if (who == "everybody") {
        rule.who = Rights::Who::everybody;
    } else if (kind == "user") {
        rule.who = Rights::Who::user;
        rule.number = needNumber("user", name, names.user ? names.user : userNumber);
    } else if (kind == "group") {
        rule.who = Rights::Who::group;
        rule.number = needNumber("group", name, names.group ? names.group : groupNumber);
    } else if (kind == "name") {
        needPattern(rule, name);
    } else {
        Vel::throwRangeException(quoted(who) + " is nobody: everybody, user:NAME, group:NAME or name:PATTERN expected");
    }
}

Access nextAccess(std::string_view word) {
    if (word == "nothing") return Access::none;
    if (word == "read") return Access::read;
    if (word == "write") return Access::write;
    if (word == "call") return Access::call;
    Vel::throwRangeException(quoted(word) + " is no right: read, write, call or nothing expected");
}

bool isName(std::string_view name, std::string_view behindStar) {
    return name.size() > behindStar.size() && name.ends_with(behindStar);
}

// --- the rights of some peers ---

class PeerRights final : public Vel::StreamRights {
public:
    void accessIs(std::string_view path, Access access) {
        most_ = most_ | access;
        least_ = least_ & access;
        if (path.empty())
            root_ = access;
        else
            trie_->accessIs(path, access);
    }
    Access of(String const& path) const override { return trie_->access(path.view(), root_); }
    Access most() const override { return most_; }
    Access least() const override { return root_ & least_; }

private:
    Vel::Ptr<AccessTrie> trie_ = AccessTrie::newEntity("");
    Access root_ = Access::none, most_ = Access::none, least_ = Access::all;
};

}  // namespace

Rights::Rights() = default;
Rights::~Rights() = default;

// --- rules ---

void Rights::add(std::string_view who, std::string_view path, Access may, RightsNames const& names) {
    if (rules_.size() >= mostRules) Vel::throwRangeException(format("there are more than %zu rules", mostRules));
    if (path.size() > longestPath)
        Vel::throwRangeException(format("a path of a rule has at most %zu bytes", longestPath));
    Rule rule;
    whoIs(rule, who, names);
    rule.path = String(plainPath(path));
    rule.may = may;
    rules_.push_back(std::move(rule));
}

// Reads the lines of a text.
class Rights::Reader {
public:
    Reader(Rights& rights, std::vector<Mistake>& mistakes, RightsNames const& names)
        : rights_(rights), mistakes_(mistakes), names_(names) {}

    void read(std::string_view text) {
        for (line_ = 1; !text.empty() && mistakes_.size() < mostMistakes; ++line_) {
            std::string_view const line = text.substr(0, text.find('\n'));
            text.remove_prefix(std::min(text.size(), line.size() + 1));
            try {
                take(line);
            } catch (Vel::RangeException const& error) {
                mistakes_.push_back({line_, column_, error.text()});
            }
        }
    }

private:
    void take(std::string_view line) {
        rest_ = begin_ = line;
        if (!next() || word_.starts_with('#')) return;
        std::string const who = word_;
        std::size_t const whoColumn = column_;
        if (!next()) Vel::throwRangeException("a path expected behind who the rule is for");
        std::string const path = word_;
        if (!path.starts_with('/') && path != "@history")
            Vel::throwRangeException("a path begins with \"/\"; \"/\" alone is all that is served");
        Access may = Access::none;
        std::size_t words = 0;
        for (; next() && !word_.starts_with('#'); ++words) {
            if (words != 0 && (word_ == "nothing" || may == Access::none))
                Vel::throwRangeException("\"nothing\" stands alone");
            may = may | nextAccess(word_);
        }
        if (words == 0) Vel::throwRangeException("read, write, call or nothing expected behind the path");
        column_ = whoColumn;
        rights_.add(who, path, may, names_);
        rights_.rules_.back().line = line_;
    }

    // Takes the next word, which may be in single quotes, with a backslash before a quote or a backslash in it.
    bool next() {
        rest_.remove_prefix(std::min(rest_.find_first_not_of(blanks), rest_.size()));
        column_ = begin_.size() - rest_.size() + 1;
        word_.clear();
        if (rest_.starts_with('\'')) return nextQuoted();
        std::size_t const size = std::min(rest_.find_first_of(blanks), rest_.size());
        word_ = rest_.substr(0, size);
        rest_.remove_prefix(size);
        return size != 0;
    }
    bool nextQuoted() {
        for (std::size_t i = 1; i < rest_.size(); ++i) {
            if (rest_[i] == '\'') {
                rest_.remove_prefix(i + 1);
                return true;
            }
            if (rest_[i] == '\\' && i + 1 < rest_.size()) ++i;
            word_ += rest_[i];
        }
        Vel::throwRangeException("the quote is not closed");
    }

    Rights& rights_;
    std::vector<Mistake>& mistakes_;
    RightsNames const& names_;
    std::size_t line_ = 0, column_ = 0;
    std::string_view begin_, rest_;
    std::string word_;
};

std::shared_ptr<Rights> Rights::parsed(
    std::string_view text, std::vector<Mistake>& mistakes, RightsNames const& names) {
    auto const rights = std::make_shared<Rights>();
    if (text.size() > longestText)
        mistakes.push_back(
            {1, 1, format("rules have at most %zu bytes, and these have %zu", longestText, text.size())});
    else
        Reader(*rights, mistakes, names).read(text);
    return rights;
}

std::shared_ptr<Rights> Rights::of(std::string_view text) {
    std::vector<Mistake> mistakes;
    auto const rights = parsed(text, mistakes);
    std::string all;
    for (auto const& [line, column, why] : mistakes)
        all += (all.empty() ? "" : "\n") + std::to_string(line) + ":" + std::to_string(column) + ": " + why.stdString();
    if (!all.empty()) Vel::throwRangeException(String(all));
    return rights;
}

// --- who may do what ---

RightsPeer Rights::peerOf(std::span<String const> who, RightsNames const& names) {
    RightsPeer peer;
    for (String const& text : who) {
        Rule rule;
        whoIs(rule, text.view(), names);
        if (rule.who == Who::pattern) Vel::throwRangeException("a peer has one name, and no pattern: " + text);
        if (rule.who == Who::user) peer.user = rule.number;
        if (rule.who == Who::group) peer.groups.push_back(rule.number);
        if (rule.who == Who::name) peer.name = rule.name;
        if (rule.who != Who::user || names.user) continue;
        auto const groups = groupsOf(rule.number);
        peer.groups.insert(peer.groups.end(), groups.begin(), groups.end());
    }
    return peer;
}

bool Rights::applies(Rule const& rule, RightsPeer const& peer) {
    switch (rule.who) {
    case Who::everybody:
        return true;
    case Who::user:
        return peer.user == rule.number;
    case Who::group:
        return std::find(peer.groups.begin(), peer.groups.end(), rule.number) != peer.groups.end();
    case Who::name:
        return !peer.name.empty() && peer.name == rule.name;
    case Who::pattern:
        return isName(peer.name.view(), rule.name.view());
    }
    return false;
}

std::vector<Rights::Rule const*> Rights::deciding(RightsPeer const& peer, std::string_view path) const {
    std::string const plain = plainPath(path);
    auto const rank = [](Rule const& rule) { return std::pair(rule.path.size(), rule.who); };
    std::vector<Rule const*> found;
    for (Rule const& rule : rules_) {
        if (!applies(rule, peer) || !isBelow(plain, rule.path.view())) continue;
        if (!found.empty() && rank(*found.front()) > rank(rule)) continue;
        if (!found.empty() && rank(*found.front()) < rank(rule)) found.clear();
        found.push_back(&rule);
    }
    return found;
}

std::shared_ptr<Vel::StreamRights const> Rights::ofPeer(RightsPeer const& peer) const {
    Chosen chosen;
    for (std::size_t i = 0; i < rules_.size(); ++i)
        if (applies(rules_[i], peer)) chosen.push_back(i);
    if (auto const found = shared_.find(chosen); found != shared_.end())
        if (auto shared = found->second.lock()) return shared;
    if (shared_.size() >= mostShared_) {
        std::erase_if(shared_, [](auto const& entry) { return entry.second.expired(); });
        mostShared_ = std::max<std::size_t>(64, 2 * shared_.size());
    }
    std::map<std::string_view, std::pair<Who, Access>> paths;
    for (std::size_t const i : chosen) {
        Rule const& rule = rules_[i];
        auto const [at, isNew] = paths.try_emplace(rule.path.view(), rule.who, rule.may);
        auto& [who, may] = at->second;
        if (rule.who > who) at->second = {rule.who, rule.may};
        if (rule.who == who) may = may | rule.may;
    }
    auto const made = std::make_shared<PeerRights>();
    for (auto const& [path, decided] : paths) made->accessIs(path, decided.second);
    shared_[std::move(chosen)] = made;
    return made;
}

Access accessOf(std::span<Rights::Rule const* const> rules) {
    Access access = Access::none;
    for (Rights::Rule const* const rule : rules) access = access | rule->may;
    return access;
}

String textOf(Access access) {
    std::string text;
    if (access == Access::none) return "nothing";
    if (allows(access, Access::read)) text = "read";
    if (allows(access, Access::write)) text += " write";
    if (allows(access, Access::call)) text += " call";
    return String(text);
}

}  // namespace Mount
