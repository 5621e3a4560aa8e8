#include "SimulationSmall.h"

namespace Simulation {

using Mox::PrefixTrie;

Small::Small(Beginning const& beginning) {
    root_->adopt(a_);
    (beginning.nested ? a_ : root_)->adopt(b_);
    a_->childIs(b_->prefixChildIs("k"));
    pair_.connect();
    pair_.reader->input(StreamTest::takeOutput(pair_.replica));
    for (std::size_t i = 0; i < beginning.sent; ++i) sendMessage();
}

std::string Small::Beginning::words() const {
    return std::string(nested ? "b is in a" : "a and b are in the root") + ", " + std::to_string(sent) +
           " messages are sent";
}

std::vector<Small::Beginning> const& Small::beginnings() {
    static std::vector<Beginning> const all = [] {
        auto const messages = [](bool nested) {
            Small small({nested, 0});
            std::size_t sent = 0;
            while (small.sendMessage()) ++sent;
            return sent;
        };
        std::vector<Beginning> some{{true, messages(true)}};
        for (std::size_t sent = messages(false) + 1; sent-- != 0;) some.push_back({false, sent});
        return some;
    }();
    return all;
}

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

// What the reader has to say, its hello, arrives with the first message.
bool Small::sendMessage() {
    if (!pair_.reader || !(pair_.reader->wantsOutput() || pair_.replica.wantsOutput())) return false;
    pair_.reader->input(StreamTest::takeOutput(pair_.replica));
    // Its first byte comes alone, so that no more is written than the one message.
    StreamTest::Bytes message;
    std::size_t wanted = 1;
    while (wanted != 0 && pair_.reader->wantsOutput()) {
        auto const bytes = pair_.reader->output(wanted);
        message.insert(message.end(), bytes.begin(), bytes.end());
        pair_.reader->outputTaken(bytes.size());
        auto const [size, length] = Vel::NboAttrLog::messageLength(message);
        wanted = size == 0 ? 1 : size + length - message.size();
    }
    pair_.replica.input(message);
    if (pair_.replica.isClosing()) error = "the copy says: " + pair_.replica.error().stdString();
    return true;
}

}  // namespace Simulation
