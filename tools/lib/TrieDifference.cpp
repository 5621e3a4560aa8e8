#include "tools/lib/TrieDifference.h"

namespace Tool {

namespace {

class Difference {
public:
    Difference(Answers& answers, bool json) : answers_(answers), json_(json) {}

    bool write(TagTrie const& here, TagTrie const& there, std::string const& hereName, std::string const& thereName,
        std::uint64_t bad) {
        names_ = red("--- " + hereName) + "\n" + green("+++ " + thereName) + "\n";
        compareAll(here, there);
        if (json_) {
            JsonList list(answers_, "\"onlyHere\": ");
            for (Json const& item : onlyHere_) list.add(item);
            list.next("\"onlyThere\": ");
            for (Json const& item : onlyThere_) list.add(item);
            list.next("\"different\": ");
            for (Json const& item : different_) list.add(item);
            list.close(bad);
        }
        return found_;
    }

private:
    // A level of the walk through both tries at once. Either may end before the other.
    struct Level {
        std::vector<Ptr<PrefixTrie>> left, right;
        std::size_t pathSize;
        std::size_t l = 0, r = 0;

        Level(PrefixTrie const* here, PrefixTrie const* there, std::size_t size) : pathSize(size) {
            if (here) left = childrenInOrder(*here);
            if (there) right = childrenInOrder(*there);
        }
        bool isDone() const { return l == left.size() && r == right.size(); }
        // Returns the next two nodes with the same key, or one node and null.
        std::pair<PrefixTrie const*, PrefixTrie const*> next() {
            bool const takeLeft = r == right.size() || (l < left.size() && left[l]->name() <= right[r]->name());
            bool const takeRight = l == left.size() || (r < right.size() && right[r]->name() <= left[l]->name());
            return {takeLeft ? left[l++].get() : nullptr, takeRight ? right[r++].get() : nullptr};
        }
    };
    void compareAll(TagTrie const& here, TagTrie const& there) {
        std::vector<Level> way;
        way.emplace_back(&here, &there, 0);
        while (!way.empty()) {
            path_.resize(way.back().pathSize);
            if (way.back().isDone()) {
                way.pop_back();
                continue;
            }
            auto const [a, b] = way.back().next();
            path_ += (a ? a : b)->name().view();
            compare(a && isListed(*a) ? a : nullptr, b && isListed(*b) ? b : nullptr);
            way.emplace_back(a, b, path_.size());
        }
    }

    void compare(PrefixTrie const* here, PrefixTrie const* there) {
        if (!here && !there) return;
        if (here && there && here->present() == there->present() && here->mountPoint() == there->mountPoint() &&
            (!here->present() || here->state() == there->state() || tagsOf(*here) == tagsOf(*there)))
            return;
        if (!found_ && !json_) answers_.add(names_);
        found_ = true;
        if (json_)
            keep(here, there);
        else if (!there)
            answers_.add(red("- " + listed(*here)) + "\n");
        else if (!here)
            answers_.add(green("+ " + listed(*there)) + "\n");
        else
            answers_.add("~ " + cleaned(path_) + " " + what(*here) + " -> " + what(*there) + "\n");
    }
    std::string listed(PrefixTrie const& node) const {
        return cleaned(path_) + (node.present() ? tagsBehind(node) : "*");
    }
    static std::string what(PrefixTrie const& node) { return node.present() ? tagText(node) : "*"; }

    void keep(PrefixTrie const* here, PrefixTrie const* there) {
        if (!there || !here) return (there ? onlyThere_ : onlyHere_).push_back(jsonOf(there ? *there : *here, path_));
        Json left = jsonOf(*here, path_), right = jsonOf(*there, path_);
        left.erase("path");
        right.erase("path");
        different_.push_back({{"path", path_}, {"here", left}, {"there", right}});
    }

    Answers& answers_;
    bool json_;
    bool found_ = false;
    std::string names_, path_;
    std::vector<Json> onlyHere_, onlyThere_, different_;
};

}  // namespace

bool writeDifference(Answers& answers, TagTrie const& here, TagTrie const& there, std::string const& hereName,
    std::string const& thereName, std::uint64_t bad, bool json) {
    return Difference(answers, json).write(here, there, hereName, thereName, bad);
}

}  // namespace Tool
