#pragma once

#include "SimulationSkew.h"
#include "SimulationWorld.h"

#include "Vel/stream/internal/AttrLogReader.h"

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// A source, replicas, and a network between them that delays, splits, cuts and stalls at any byte.
namespace Simulation {

// All that happens in a run. Whatever the program, the same history comes to the same.
using History = std::vector<Step>;
History historyOf(U64 seed);
// The same where readers are at different paths, which overlap. Its seeds are others.
History pathsHistoryOf(U64 seed);
// The same where readers also ask for changes, some of them of several values, and call methods. Its seeds are others.
History writesHistoryOf(U64 seed);
// The same where the source has types of which readers have another version or none, and their policies differ. Its seeds
// are others.
History skewedHistoryOf(U64 seed);
std::string textOf(History const& history);  // "make 1 2 3 4; connect 0 0 0 0"
History historyFrom(std::string_view text);  // throws std::invalid_argument

struct Result {
    std::string violation;           // empty: all that is guaranteed held. What comes before a ':' says of which kind
    std::vector<std::string> words;  // what was done, step by step, if that is asked for
    std::size_t steps = 0;           // done until the violation
    std::string kind() const { return violation.substr(0, violation.find(':')); }
};
Result run(History const& history, bool tells = false);
// The history with as few steps as can be for which `fails` holds. REQUIRES: it does for the one given.
History shrunk(History history, std::function<bool(History const&)> const& fails);

constexpr std::size_t readers = 3;

// What readers of one path have in common. The source is made when the first of them says hello.
class Site {
public:
    Site(std::shared_ptr<Vel::StreamDemuxer> demuxer, Ptr<Vel::Entity> root, Vel::AttrLogSource::Options const& options)
        : demuxer_(std::move(demuxer)), root_(std::move(root)), options_(options) {}

    Vel::Entity& root() const { return *root_; }
    Vel::AttrLogSource& source();
    void sweep(bool leaves);  // what can't be reached; `leaves`: and the source, if it has no readers
    std::size_t logged() const { return source_ ? source_->impl().log().size() : 0; }  // bytes

private:
    std::shared_ptr<Vel::StreamDemuxer> demuxer_;
    Ptr<Vel::Entity> root_;
    Vel::AttrLogSource::Options options_;
    std::unique_ptr<Vel::AttrLogSource> source_;
};

// One replica, its connection, and what it was seen to be.
class Mounted {
public:
    Mounted(World& world, Site& site, bool writes, Vel::StreamPolicy policy, std::string& violation);
    ~Mounted();

    std::string apply(Step const& step);
    void settle();  // everything arrives, and stays connected; the copy equals the source then
    // Entities that have left what is served, or been outside of it, may be told otherwise from now on.
    void lookAtPaths();
    void settleSwept();  // and the copy was told of what it has, and of nothing else

private:
    struct Watch;
    struct Asked;
    void connect();
    void cut();
    void deliver(std::size_t limit, std::size_t taken, std::size_t arriving);  // shares of 65536
    void arrive(std::size_t count);
    void observe(Vel::Entity& entity);
    void observeAll();
    void seen(Thing& thing, Vel::AttributeId attribute);
    void seenNumber(Thing& thing);
    void seenPair(Thing& thing);
    void seen(ValueTable& table, String const& key);
    void seen(Account& account);
    void seenPort(Vel::Entity const& copy, Vel::AttributeId attribute);
    void seenPoint(PortView const& port);
    std::string ask(Step const& step);
    void send(Step const& step, Account& account, std::shared_ptr<Asked> const& asked);
    void answered(Asked const& asked, Vel::WriteAnswer const& answer);
    void done(Asked const& asked, Account const& account);
    void upload(std::size_t count);
    void atSyncMark();
    void compareNotifications();
    U64 timesBehind() const;
    void watch();
    void violated(std::string const& text) {
        if (violation_.empty()) violation_ = text;
    }

    World& world_;
    Site& site_;
    std::string& violation_;
    Ptr<Vel::Dir> place_ = Vel::Dir::newEntity("");
    Vel::StreamPolicy policy_;
    Vel::AttrLogReplica replica_;
    std::unique_ptr<Vel::StreamPeer> reader_;
    std::deque<U8> wire_;                         // to the replica
    std::deque<std::shared_ptr<Asked>> asked_;    // not answered yet
    std::map<Vel::Entity const*, bool> isWhole_;  // of copies of accounts and ports, since the sync mark
    std::map<Vel::Entity const*, std::unique_ptr<Vel::Notifiee>> observers_;
    std::map<U32, U32> last_;  // number by uid
    std::map<U32, U32> lastPair_;
    std::map<U32, U32> lastPoint_;
    std::map<World::Place, U32> lastEntry_;
    std::map<U32, U32> atConnect_;
    std::vector<std::unique_ptr<Watch>> watches_;  // since it was last equal
    U64 timesBehind_ = 0;                          // the reader's, when watching began
    bool wasCut_ = false;
    U64 movesAtConnect_ = 0;
};

}  // namespace Simulation
