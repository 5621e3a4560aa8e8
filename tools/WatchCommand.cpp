#include "tools/Commands.h"
#include "tools/LiveCommand.h"
#include "tools/lib/Clean.h"
#include "tools/lib/Connection.h"
#include "tools/lib/Moments.h"
#include "tools/lib/TreeLines.h"

#include "Vel/base/Exception.h"

#include <algorithm>
#include <limits>
#include <unordered_set>

#include <poll.h>
#include <unistd.h>

namespace Tool {

namespace {

constexpr char help[] =
    R"~(Shows what a server has at a path, then every change of it as it happens. When the server goes away it waits for it
to come back; what has changed meanwhile is shown then.

Lines, which up to the mark "# synced" are a state file as "mox serve" takes it; behind it each begins with its time:
  PATH TYPE                     an entity
  PATH ATTRIBUTE = VALUE        a value, or the path of what a reference leads to
  PATH COLLECTION KEY = PATH    an entity in one more collection
  # synced: 7 entities          what was there has been shown; changes follow
  + PATH TYPE                   an entity has appeared; its values follow
  - PATH                        one has gone, with all below it
  - PATH COLLECTION KEY         it has left that collection
  # stale: why                  the connection is lost
  # error: why                  connecting has failed, and is tried again
  # replaced: PATH              there is another entity now; all of it follows

Times, by --time:
  local     2026-11-21 09:05:07.250   this machine's time, to the millisecond (default)
  utc       2026-11-21 08:05:07.250Z
  relative  +12.500                   seconds since the command began
  none

Examples:
  mox watch /run/mox.sock                                all that there is
  mox watch /run/mox.sock /ql/cell                       one part of it
  mox watch /run/mox.sock --until-synced >state.txt      what there is now
  mox watch /run/mox.sock /ql/cell --count 1             leaves after one change
  mox watch /run/mox.sock --time utc | tee changes.log   to compare with other machines' logs
  mox watch /run/mox.sock --json | jq -c 'select(.event == "set")'
  mox --module ./libmytypes.so watch ADDRESS             with types of that library

JSON: one object a line, with "event": "entity" (path, type), "set" (path, attribute, value or target), "member" (path,
collection, key, target; null: it has left), "gone" (path), "synced" (path, entities), "stale" (path, error), "error"
(error), "replaced" (path). What happens has "time", too, in ISO 8601: 2026-11-21T09:05:07.250+01:00, PT12.500S.

Bytes of a peer or a type that a terminal would obey, such as escape sequences, stand as \xNN in texts, %XX in paths.

Exit code 1 when --timeout ends it before it was synced, or before --count changes.)~";

struct Options {
    std::optional<std::uint64_t> count;  // number of changes after which to end
    bool untilSynced = false;
    std::optional<double> duration;  // seconds after which to end
    std::string time = "local";      // form of the times: see Moments.h
    bool json = false;
};

using Clock = std::chrono::steady_clock;
using Node = EntityTree::Node;
using State = Mount::Client::State;
using Vel::StreamAttribute;

// Whether the reader of standard output has gone. Then the command ends now, and does not wait for the next change to
// find out.
bool isOutputClosed() {
    pollfd output{STDOUT_FILENO, 0, 0};
    return ::poll(&output, 1, 0) == 1 && (output.revents & POLLERR);
}

class Watching final : public EntityTree::Observer {
public:
    Watching(Options const& options, ConnectionOptions const& where)
        : options_(options),
          where_(where),
          path_(normalPath(where.path)),
          moments_(timeFormFrom(options.time)),
          lines_(answers_, options.json, [this](bool isNote) { return time(isNote); }) {
        connect(client_, loop_, place_, clientOptions(where, askedPath()), where);
        client_->onErrorIs([this](Vel::String const& error) { failed(error.stdString()); });
    }

    int run() {
        std::optional<Clock::time_point> end;
        if (options_.duration) end = Clock::now() + secondsFrom(*options_.duration);
        for (;;) {
            Mount::Loop::Duration wait = std::chrono::seconds(1);
            if (end) wait = std::clamp<Mount::Loop::Duration>(*end - Clock::now(), Mount::Loop::Duration(0), wait);
            if (loop_.runUntil([this] { return followed(); }, wait)) break;
            if (isOutputClosed()) return somethingWrong;
            if (end && Clock::now() >= *end) return timeIsOver();
        }
        answers_.flush();
        return warned();
    }

private:
    // Returns the path for which the server is asked. Throws Failure if it has steps that are not names, since a server
    // only knows names.
    std::string askedPath() const {
        std::string asked;
        for (Step const& step : stepsOf(path_)) {
            if (!step.attribute.empty() || step.key.find('/') != std::string::npos)
                throw Failure(badUsage, "a server cannot be asked for " + shown(path_) +
                                            ", which is no entity that it knows by name: watch what is above it");
            asked += "/" + step.key;
        }
        return asked.empty() ? "/" : asked;
    }

    int warned() const { return tree_ ? exitCodeOf(*tree_) : fine; }

    int timeIsOver() {
        bool const isMissed = options_.count || options_.untilSynced;
        if (!isMissed && hasSynced_) return warned();
        std::string const seconds = Vel::format("%g", *options_.duration).stdString() + " s";
        complain(hasSynced_ ? "fewer changes came in " + seconds
                            : "not synced in " + seconds +
                                  (error_.empty() ? "" : ", since: " + cleaned(withAddress(where_, error_))));
        return somethingWrong;
    }

    // Returns the time that is put before a line. All lines of one batch have the same time. Until the first "synced"
    // they have none, since they are the lines of a state file, and not changes.
    std::string time(bool isNote) {
        if (!hasSynced_ && !(isNote && options_.json)) return "";
        if (now_.empty()) now_ = options_.json ? moments_.isoText() : moments_.text();
        return now_;
    }

    // --- what happens ---

    // Called after each batch that has come in. Returns whether the command is done.
    bool followed() {
        auto const& root = client_->replica().root();
        if (tree_ && (!root || tree_->find(*root) != &tree_->root())) {
            reportFresh();
            tree_.reset();
            lines_.note("replaced", path_, {{"path", path_}});
        }
        if (tree_) follow();
        State const state = client_->state();
        if (state == State::synced && !tree_) begin();
        if (state != state_) tellState(state);
        state_ = state;
        answers_.flush();
        now_.clear();
        return isDone_;
    }

    void follow() {
        reportFresh();
        tree_->settle();
        reportFresh();
    }

    void begin() {
        fresh_.clear();
        tree_.emplace(*client_->replica().root(), path_, this);
        for (Node* node = &tree_->root(); node; node = EntityTree::next(*node, tree_->root())) {
            lines_.whole(*tree_, *node, false);
            if (answers_.kept().size() > 65536) answers_.flush();
        }
    }

    void tellState(State state) {
        if (state == State::synced) {
            std::size_t const size = tree_->size();
            lines_.note("synced", std::to_string(size) + (size == 1 ? " entity" : " entities"),
                {{"path", path_}, {"entities", size}});
            hasSynced_ = true;
            error_.clear();
            isDone_ = isDone_ || options_.untilSynced || (options_.count && *options_.count == changes_);
        }
        if (state == State::stale) {
            if (tree_ && hasSynced_) lines_.note("stale", error_, {{"path", path_}, {"error", error_}});
        }
    }

    void failed(std::string const& error) {
        std::string const text = (error.empty() ? "the connection was closed" : error) + adviceFor(client_->fault());
        if (text == error_) return;  // prints an error once, however often the client tries again
        error_ = text;
        // If a connection was lost, its error is printed together with that.
        if (state_ == State::synced) return;
        lines_.note("error", text, {{"error", text}});
    }

    // Counts a change. Returns false if there were enough changes before, so that this one is not printed.
    bool counts() {
        if (isDone_) return false;
        ++changes_;
        isDone_ = options_.count && changes_ == *options_.count;
        return true;
    }

    void reportFresh() {
        if (fresh_.empty()) return;
        // Prints in the order of the tree, starting with the new entities whose parent is not new.
        std::vector<Node*> tops;
        for (Node* const node : appeared_)
            if (fresh_.contains(node) && !fresh_.contains(node->above())) tops.push_back(node);
        appeared_.clear();
        for (Node* const top : tops)
            for (Node* node = top; node; node = EntityTree::next(*node, *top))
                if (fresh_.erase(node) != 0 && counts()) lines_.whole(*tree_, *node, true);
        fresh_.clear();
    }

    void appeared(Node& node) override {
        if (fresh_.insert(&node).second) appeared_.push_back(&node);
    }
    void gone(Node& node) override {
        bool const isFresh = fresh_.contains(&node);
        if (!fresh_.empty())
            for (Node* below = &node; below; below = EntityTree::next(*below, node)) fresh_.erase(below);
        if (!isFresh && counts()) lines_.gone(node);
    }
    void changed(Node& node, StreamAttribute const& attribute) override {
        if (!fresh_.contains(&node) && counts()) lines_.attribute(*tree_, node, attribute);
    }
    void memberChanged(Node& node, StreamAttribute const& collection, std::string const& key) override {
        if (!fresh_.contains(&node) && counts()) lines_.member(*tree_, node, collection, key);
    }

    Options const& options_;
    ConnectionOptions const& where_;
    std::string path_, now_;
    Moments moments_;
    Answers answers_{std::numeric_limits<std::size_t>::max()};  // no limit, so it is never flushed amid a change
    TreeLines lines_;
    Mount::Loop loop_;
    Vel::Ptr<Vel::Dir> place_ = placeForCopy();
    std::optional<EntityTree> tree_;
    std::optional<Mount::Client> client_;
    // Entities that have appeared in this batch. They are printed at its end, with the values that they have then.
    std::unordered_set<Node*> fresh_;
    std::vector<Node*> appeared_;
    State state_ = State::empty;
    std::string error_;
    std::uint64_t changes_ = 0;
    bool hasSynced_ = false, isDone_ = false;
};

class WatchCommand final : public LiveCommand {
public:
    explicit WatchCommand(CLI::App& app) : LiveCommand(app, "watch", "Follow what a server has; also: mount", help) {
        alias("mount");
        addPath("Of the entity to watch, with all below it; default: /");
        number("--count", options_.count, "Leave after so many changes");
        flag("--until-synced", options_.untilSynced, "Leave when all that is there has been shown");
        option("--timeout", options_.duration, "S", "Leave after so long");
        option("--time", options_.time, "FORM", "Of changes: local (default), utc, relative or none");
        flag("--json", options_.json, "One JSON object a line");
    }

    int run() override { return Watching(options_, where_).run(); }

private:
    Options options_;
};

}  // namespace

std::unique_ptr<Command> makeWatch(CLI::App& app) { return std::make_unique<WatchCommand>(app); }

}  // namespace Tool
