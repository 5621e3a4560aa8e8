#pragma once

#include "StreamTools.h"
#include "Vel/stream/AttrLogServer.h"

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <vector>

namespace StreamTest {

// A room with rooms in it, with a pointer and links to any others, and with notes on its wall.
class Room : public Vel::EntityOf<Room> {
public:
    explicit Room(Vel::String const& name) : EntityOf(name) { all_.insert(this); }
    ~Room() override {
        all_.erase(this);
        for (auto const& [name, room] : rooms_) room->parentIs(nullptr);
    }

    // Frees rooms that refer to each other in a circle, at the source and in copies. REQUIRES: nobody uses any room.
    static void freeCircles() {
        std::vector<Vel::Ptr<Room>> const kept(all_.begin(), all_.end());
        for (auto const& room : kept) {
            room->next_ = nullptr;
            room->links_.clear();
        }
    }

    Vel::String text() const { return text_; }
    void textIs(Vel::String const& v) { velSet<&Room::text_>(v); }
    Vel::String title() const { return title_; }
    void titleIs(Vel::String const& v) { velSet<&Room::title_>(v); }
    Vel::Ptr<Room> next() const { return next_; }
    void nextIs(Vel::Ptr<Room> const& v) { velSet<&Room::next_>(v); }

    Vel::Ptr<Room> room(Vel::String const& name) const { return found(rooms_, name); }
    Vel::Ptr<Room> roomIs(Vel::String const& name) {
        if (!room(name)) adopt(newEntity(name));
        return room(name);
    }
    void adopt(Vel::Ptr<Room> const& room) {
        rooms_[room->name()] = room;
        room->parentIs(this);
        velNotify<"room">(room->name());
    }
    Vel::Ptr<Room> roomDel(Vel::String const& name) {
        Vel::Ptr<Room> const room = this->room(name);
        if (rooms_.erase(name) == 0) return nullptr;
        if (room->parent() == this) room->parentIs(nullptr);
        velNotify<"room">(name);
        return room;
    }

    Vel::Ptr<Room> link(Vel::String const& key) const { return found(links_, key); }
    void linkIs(Vel::String const& key, Vel::Ptr<Room> const& room) {
        links_[key] = room;
        velNotify<"link">(key);
    }
    void linkDel(Vel::String const& key) {
        if (links_.erase(key) != 0) velNotify<"link">(key);
    }

    Vel::String mark(Vel::String const& key) const { return markExists(key) ? marks_.at(key) : Vel::String(); }
    void markIs(Vel::String const& key, Vel::String const& mark) {
        marks_[key] = mark;
        velNotify<"mark">(key);
    }
    void markDel(Vel::String const& key) {
        if (marks_.erase(key) != 0) velNotify<"mark">(key);
    }
    bool markExists(Vel::String const& key) const { return marks_.contains(key); }

    using Rooms = std::map<Vel::String, Vel::Ptr<Room>>;
    Rooms const& rooms() const { return rooms_; }
    Rooms const& links() const { return links_; }
    std::map<Vel::String, Vel::String> const& marks() const { return marks_; }

    Vel::String greet(Vel::String const& who) {
        textIs("greeted " + who);
        return text_;
    }

    Vel::Ptr<Entity> velChild(std::string_view name) const override { return room(Vel::String(name)); }

    static constexpr auto description() {
        using R = Room;
        return Vel::entity("StreamTest::Room", Vel::attribute<&R::text_, &R::text, &R::textIs>("text"),
            Vel::attribute<&R::title_, &R::title, &R::titleIs>("title"),
            Vel::attribute<&R::next_, &R::next, &R::nextIs>("next"),
            Vel::instances<&R::rooms_, &R::adopt>(
                Vel::collection<Vel::String, Vel::Ptr<R>, &R::room, &R::roomIs, &R::roomDel>("room")),
            Vel::references<&R::links_>(
                Vel::collection<Vel::String, Vel::Ptr<R>, &R::link, &R::linkIs, &R::linkDel>("link")),
            Vel::values<&R::marks_>(Vel::collection<Vel::String, Vel::String, &R::mark, &R::markIs, &R::markDel,
                Vel::none, Vel::none, &R::markExists>("mark")),
            Vel::method<&R::greet>("greet", "who"));
    }

private:
    static Vel::Ptr<Room> found(Rooms const& rooms, Vel::String const& key) {
        auto const found = rooms.find(key);
        return found == rooms.end() ? nullptr : found->second;
    }

    static inline std::set<Room*> all_;
    Vel::String text_, title_;
    Vel::Ptr<Room> next_;
    Rooms rooms_, links_;
    std::map<Vel::String, Vel::String> marks_;
};

// Rights by the deepest path that leads to an entity: {{"", Access::read}, {"s", Access::none}}.
class PathRights final : public Vel::StreamRights {
public:
    using Rules = std::map<std::string, Vel::Access>;
    explicit PathRights(Rules rules) : rules_(std::move(rules)) {}

    Vel::Access of(Vel::String const& path) const override {
        std::string at = path.stdString();
        for (;;) {
            if (auto const found = rules_.find(at); found != rules_.end()) return found->second;
            if (at.empty()) return Vel::Access::none;
            auto const slash = at.rfind('/');
            at.resize(slash == std::string::npos ? 0 : slash);
        }
    }
    Vel::Access most() const override {
        Vel::Access most = Vel::Access::none;
        for (auto const& [path, access] : rules_) most = most | access;
        return most;
    }
    Vel::Access least() const override {
        Vel::Access least = of("");
        for (auto const& [path, access] : rules_) least = least & access;
        return least;
    }

private:
    Rules rules_;
};

using Rights = std::shared_ptr<Vel::StreamRights const>;
inline Rights rightsOf(PathRights::Rules rules) { return std::make_shared<PathRights>(std::move(rules)); }

// Counts how often it is asked for the rights of a path.
class CountingRights final : public Vel::StreamRights {
public:
    explicit CountingRights(Rights rights) : rights_(std::move(rights)) {}
    Vel::Access of(Vel::String const& path) const override { return ++asked, rights_->of(path); }
    Vel::Access most() const override { return rights_->most(); }
    Vel::Access least() const override { return rights_->least(); }

    mutable std::size_t asked = 0;

private:
    Rights rights_;
};

// A reader with rights, its copy, and all bytes that it was ever sent.
class Visitor {
public:
    Visitor(Vel::AttrLogServer& server, Rights rights, std::string const& path = {}, bool writes = true)
        : server_(server),
          rights_(std::move(rights)),
          replica(place, "copy", {.path = Vel::String(path), .wantsToWrite = writes}) {
        connect();
    }
    ~Visitor() { disconnect(); }

    void connect() {
        reader = server_.newReader(true, nullptr, {}, rights_);
        replica.connected();
        run();
    }
    void disconnect() {
        if (reader) reader->closed("");
        reader = nullptr;
        replica.closed("");
    }
    void run(std::size_t limit = 1u << 16) {
        while (replica.wantsOutput() || reader->wantsOutput()) {
            reader->input(takeOutput(replica));
            take(takeOutput(*reader, limit));
        }
    }
    // Sends at most one output of so many bytes, so that the reader stays behind.
    void step(std::size_t limit) {
        auto const bytes = reader->output(limit);
        Bytes const kept(bytes.begin(), bytes.end());
        reader->outputTaken(kept.size());
        take(kept);
    }
    Strings toldNow() {
        Bytes const bytes = takeOutput(*reader);
        take(bytes);
        return told(bytes);
    }
    bool heard(std::string_view text) const { return sent.find(text) != std::string::npos; }
    Vel::Ptr<Room> root() const { return Vel::ptr_cast<Room>(replica.root()); }
    Vel::Ptr<Room> at(char const* path) const { return root() ? Vel::ptr_cast<Room>(root()->entity(path)) : nullptr; }
    // Sends a message of the reader, and returns the answer.
    std::string ask(Bytes const& bytes) {
        reader->input(bytes);
        std::string answer;
        Bytes const out = takeOutput(*reader);
        sent.append(out.begin(), out.end());
        for (std::string const& message : told(out))
            if (message.starts_with("answer")) answer = message.substr(message.find(' ', 7) + 1);
        return answer;
    }

private:
    void take(Bytes const& bytes) {
        sent.append(bytes.begin(), bytes.end());
        replica.input(bytes);
    }
    Vel::AttrLogServer& server_;
    Rights rights_;

public:
    Vel::Ptr<Vel::Dir> place = Vel::Dir::newEntity("");
    Vel::AttrLogReplica replica;
    std::unique_ptr<Vel::StreamPeer> reader;
    std::string sent;
};

}  // namespace StreamTest
