#include "SimulationWorld.h"

#include "Vel/stream/internal/AttrLogReader.h"

#include <cstdlib>
#include <functional>
#include <unordered_map>

// Every order of a few steps in a small world, beside the long runs that chance makes of a large one: two tries "a" and "b",
// a member that one refers to and the other owns, two keys, and a reader that gets one message at a time and has fallen
// behind when two wait for it. MOX_WALK_DEPTH=n walks n steps deep (default: 2).
namespace {

using namespace StreamTest;
using Mox::PrefixTrie;
using Simulation::Trie;
using Vel::Ptr;
using Vel::String;
using Vel::U64;

class Small {
public:
    // `sent` messages of the first synchronisation have been sent. `nested`: "b" is in "a".
    Small(bool nested, std::size_t sent) {
        root_->adopt(a_);
        (nested ? a_ : root_)->adopt(b_);
        a_->childIs(b_->prefixChildIs("k"));
        pair_.connect();
        pair_.reader->input(takeOutput(pair_.replica));
        for (; sent != 0; --sent) sendMessage();
    }

    struct Step {
        std::string words;
        std::function<bool(Small&)> apply;  // false: there is nothing to do
    };
    static std::vector<Step> const& steps();
    // All that what happens next depends on. Ends what can be done with this world: everything is sent, and compared.
    std::string end();
    bool sendMessage();
    bool isDone() { return !pair_.reader || !pair_.reader->wantsOutput(); }
    std::string error;

private:
    static void addTrieSteps(
        std::vector<Step>& steps, std::string const& name, Ptr<Trie> Small::*x, Ptr<Trie> Small::*y);
    static void addKeySteps(
        std::vector<Step>& steps, std::string const& name, Ptr<Trie> Small::*x, Ptr<Trie> Small::*y, char const* key);
    bool move(Ptr<PrefixTrie> const& member, Trie& to);
    std::string flagsOf(Vel::Entity const& entity, std::size_t number);
    std::string numbered(std::string const& told) const;

    Ptr<Trie> root_ = Trie::newEntity("r"), a_ = Trie::newEntity("a"), b_ = Trie::newEntity("b");
    Pair pair_{root_, {.logSize = 0, .chunkSize = 1}};
    std::map<std::string, std::size_t> numbers_;  // of entities in the order of the tree, by their ids
};

// --- steps ---

bool Small::move(Ptr<PrefixTrie> const& member, Trie& to) {
    if (!member || member->parent() == &to) return false;
    for (Vel::Entity* above = &to; above; above = above->parent())
        if (above == member.get()) return false;
    if (auto* const from = dynamic_cast<Trie*>(member->parent())) from->prefixChildDel(member->name().view());
    to.adopt(member);
    return true;
}

void Small::addKeySteps(
    std::vector<Step>& steps, std::string const& name, Ptr<Trie> Small::*x, Ptr<Trie> Small::*y, char const* key) {
    std::string const k = std::string(" ") + key;
    steps.push_back({name + " makes" + k, [=](Small& s) {
                         if ((s.*x)->prefixChildExists(key)) return false;
                         (s.*x)->prefixChildIs(key);
                         return true;
                     }});
    steps.push_back({name + " deletes" + k, [=](Small& s) { return (s.*x)->prefixChildDel(key) != nullptr; }});
    steps.push_back({name + " refers no more to" + k, [=](Small& s) { return (s.*x)->childDel(key) != nullptr; }});
    steps.push_back({name + " refers to the other's" + k, [=](Small& s) {
                         auto const member = (s.*y)->prefixChild(key);
                         if (!member || (s.*x)->child(key) == member) return false;
                         (s.*x)->childIs(member);
                         return true;
                     }});
    steps.push_back(
        {name + " gets the other's" + k, [=](Small& s) { return s.move((s.*y)->prefixChild(key), *(s.*x)); }});
}

void Small::addTrieSteps(std::vector<Step>& steps, std::string const& name, Ptr<Trie> Small::*x, Ptr<Trie> Small::*y) {
    steps.push_back({name + " changes", [=](Small& s) {
                         (s.*x)->presentIs(!(s.*x)->present());
                         return true;
                     }});
    steps.push_back({name + " moves into the other", [=](Small& s) { return s.move(s.*x, *(s.*y)); }});
    steps.push_back({name + " moves into the root", [=](Small& s) { return s.move(s.*x, *s.root_); }});
    for (char const* const key : {"k", "l"}) addKeySteps(steps, name, x, y, key);
}

std::vector<Small::Step> const& Small::steps() {
    static std::vector<Step> const all = [] {
        std::vector<Step> steps;
        steps.push_back({"a message is sent", [](Small& s) { return s.sendMessage(); }});
        steps.push_back({"the connection is cut", [](Small& s) {
                             if (!s.pair_.reader) return false;
                             s.pair_.disconnect("cut");
                             return true;
                         }});
        steps.push_back({"the reader connects", [](Small& s) {
                             if (s.pair_.reader) return false;
                             s.pair_.connect();
                             return true;
                         }});
        addTrieSteps(steps, "a", &Small::a_, &Small::b_);
        addTrieSteps(steps, "b", &Small::b_, &Small::a_);
        return steps;
    }();
    return all;
}

bool Small::sendMessage() {
    if (!pair_.reader) return false;
    pair_.reader->input(takeOutput(pair_.replica));
    Bytes message;
    while (pair_.reader->wantsOutput()) {
        auto const byte = pair_.reader->output(1);
        message.insert(message.end(), byte.begin(), byte.end());
        pair_.reader->outputTaken(byte.size());
        auto const [size, length] = Vel::NboAttrLog::messageLength(message);
        if (size != 0 && message.size() == size + length) break;
    }
    pair_.replica.input(message);
    if (pair_.replica.isClosing()) error = "the copy says: " + pair_.replica.error().stdString();
    return !message.empty();
}

// --- states ---

std::string Small::flagsOf(Vel::Entity const& entity, std::size_t number) {
    auto const* const adapter = pair_.source.adapter(entity);
    if (!adapter) return "-";
    numbers_[std::to_string(adapter->id())] = number;
    if (!pair_.reader) return "";
    auto const& connection = static_cast<Vel::AttrLogReader const&>(*pair_.reader);
    std::string text = connection.isLive() ? "L" : "";
    text += connection.isAnnounced(*adapter) ? "a" : "";
    text += connection.isNotBegun(*adapter) ? "n" : "";
    auto const* const owner = pair_.source.adapter(adapter->owner());
    text += owner ? numbered(" " + std::to_string(owner->id())) : "";
    Vel::NboAttrLog::FlowOut const* const flow = connection.flow(*adapter);
    if (!flow) return text + ";";
    text += "f" + std::to_string(flow->resumeId());
    if (flow->bookmark()) text += "b" + std::to_string(flow->bookmark()->left());
    for (Vel::StreamAttribute const& attribute : adapter->table().attributes) {
        text += flow->velIsDirty(attribute.id) ? "d" : flow->velHasSynced(attribute.id) ? "s" : ".";
        for (char const* const key : {"k", "l", "a", "b"}) {
            Out bytes;
            bytes << String(key);
            std::string_view const view(reinterpret_cast<char const*>(bytes.data()), bytes.size());
            if (attribute.isCollection() && flow->velKeyIsDirty(attribute.id, view)) text += key;
        }
    }
    return text + ";";
}

// Ids depend on how often members were made before, which changes nothing.
std::string Small::numbered(std::string const& told) const {
    std::string text, word;
    auto const take = [&] {
        auto const found = numbers_.find(word);
        text += found == numbers_.end() ? word : "#" + std::to_string(found->second);
        word.clear();
    };
    for (char const c : told) {
        if (c >= '0' && c <= '9') {
            word += c;
            continue;
        }
        take();
        text += c;
    }
    take();
    return text;
}

std::string Small::end() {
    std::string text = treeOf(*root_) + "\n" + (pair_.replica.root() ? treeOf(*pair_.replica.root()) : "nothing") +
                       "\n" + std::to_string(static_cast<int>(pair_.replica.state()));
    std::size_t number = 0;
    Simulation::walk(*root_, [&](Vel::Entity& entity) { text += flagsOf(entity, ++number); });
    text += pair_.reader ? "" : " cut";
    if (!pair_.reader) pair_.connect();
    pair_.reader->input(takeOutput(pair_.replica));
    auto const rest = takeOutput(*pair_.reader);
    for (std::string const& message : told(rest)) text += "\n" + numbered(message);
    pair_.replica.input(rest);
    if (pair_.replica.isClosing())
        error = "the copy says: " + pair_.replica.error().stdString();
    else if (treeOf(*pair_.replica.root()) != treeOf(*root_))
        error = "the copy has\n" + treeOf(*pair_.replica.root()) + "\nwhere the source has\n" + treeOf(*root_);
    return text;
}

// --- the walk ---

class Walk {
public:
    Walk(bool nested, std::size_t sent, std::unordered_map<U64, int>& seen)
        : nested_(nested), sent_(sent), seen_(seen) {}

    // Tries everything that may happen next, `left` steps deep.
    void go(int left) {
        ++states;
        Small small(nested_, sent_);
        for (std::size_t i = 0; i < path_.size(); ++i)
            if (!Small::steps()[path_[i]].apply(small)) return;
        if (small.error.empty()) {
            int& depth = seen_.try_emplace(std::hash<std::string>()(small.end()), -1).first->second;
            if (small.error.empty() && depth >= left) return;
            depth = left;
        }
        if (!small.error.empty()) return report(small.error);
        for (std::size_t step = 0; left != 0 && step < Small::steps().size() && !testing::Test::HasFailure(); ++step) {
            path_.push_back(step);
            go(left - 1);
            path_.pop_back();
        }
    }
    U64 states = 0;

private:
    void report(std::string const& error) {
        std::string words = std::string(nested_ ? "b is in a" : "a and b are in the root") + ", " +
                            std::to_string(sent_) + " messages are sent";
        for (std::size_t const step : path_) words += "\n" + Small::steps()[step].words;
        ADD_FAILURE() << words << "\n" << error;
    }

    bool nested_;
    std::size_t sent_;
    std::unordered_map<U64, int>& seen_;  // how many steps were walked on from a state, by its hash
    std::vector<std::size_t> path_;
};

TEST(StreamWalkTest, EveryOrderOfAFewStepsEndsWithACopyThatEqualsTheSource) {
    char const* const text = std::getenv("MOX_WALK_DEPTH");
    int const depth = text ? std::atoi(text) : 2;
    std::unordered_map<U64, int> seen;
    U64 states = 0;
    auto const walk = [&](bool nested, std::size_t sent) {
        Walk walk(nested, sent, seen);
        walk.go(depth);
        states += walk.states;
    };
    auto const messages = [](bool nested) {
        std::size_t sent = 0;
        while (!Small(nested, sent).isDone()) ++sent;
        return sent;
    };
    walk(true, messages(true));
    for (std::size_t sent = messages(false) + 1; sent-- != 0 && !HasFailure();) walk(false, sent);
    RecordProperty("states", std::to_string(seen.size()));
    RecordProperty("walked", std::to_string(states));
    EXPECT_GT(seen.size(), 100u);
}

}  // namespace
