#include "RightsSimulation.h"
#include "Room.h"

#include <cctype>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>

namespace RightsSimulation {

namespace {

using StreamTest::Bytes;
using StreamTest::PathRights;
using StreamTest::Rights;
using StreamTest::rightsOf;
using StreamTest::Room;
using StreamTest::takeOutput;
using Vel::Access;
using Vel::Ptr;
using Vel::String;
using Vel::NboAttrLog::Compact;

enum What : unsigned {
    setText,
    setTitle,
    point,
    link,
    unlink,
    setMark,
    deleteMark,
    add,
    move,
    takeOut,
    hang,
    carry,
    reconnect,
    settle,
    writeAsSpy,
    relay,
    whats
};

constexpr std::size_t tokenSize = 8;   // "T000042;"
constexpr std::size_t mostRooms = 24;  // beside those that rules are about

using Tokens = std::set<std::string>;

// The rooms, and who could read what of them. Does not look at how a source finds out about that.
class World {
public:
    World() {
        for (char const* const path : {"open", "half", "shut"}) parts.push_back(root->roomIs(path));
        parts.push_back(parts[0]->roomIs("priv"));
        parts.push_back(parts[2]->roomIs("deep"));
    }

    String token() { return Vel::format("T%06u;", ++tokens_); }
    Ptr<Room> room(unsigned n) const {
        std::size_t const i = n % (parts.size() + rooms.size());
        return i < parts.size() ? parts[i] : rooms[i - parts.size()];
    }
    std::vector<Ptr<Room>> all() const {
        std::vector<Ptr<Room>> all = parts;
        all.insert(all.end(), rooms.begin(), rooms.end());
        return all;
    }
    // The path that rights are about, or nothing.
    std::optional<std::string> path(Room const& room) const {
        std::string below;
        for (Vel::Entity const* at = &room; at != root.get(); at = at->parent()) {
            if (auto const last = lastPaths.find(at); last != lastPaths.end())
                return last->second + (below.empty() ? "" : "/" + below);
            if (!at->parent()) return std::nullopt;
            below = at->name().stdString() + (below.empty() ? "" : "/" + below);
        }
        return below;
    }
    Access may(Rights const& rights, Room const& room) const {
        if (!rights) return Access::all;
        auto const path = this->path(room);
        return path ? rights->of(String(*path)) : rights->of(String()) | Access::read;
    }
    bool mayRead(Rights const& rights, Room const& room) const { return allows(may(rights, room), Access::read); }

    Ptr<Room> root = Room::newEntity("root");
    std::vector<Ptr<Room>> parts, rooms;
    std::map<Vel::Entity const*, std::string> lastPaths;  // of rooms that were taken out

private:
    unsigned tokens_ = 0;
};

// All that a reader can come to from a room, as a text. Rooms for which `shows` is false are not there.
template <class Shows> class Picture {
public:
    explicit Picture(Shows shows) : shows_(shows) {}

    std::string of(Room const& room, bool isRoot = true) {
        auto const [place, isNew] = seen.try_emplace(&room, seen.size());
        std::string text = std::to_string(place->second);
        if (!isNew) return "@" + text;
        if (!isRoot) note(room.name());
        text +=
            "{" + (isRoot ? "" : room.name().stdString()) + "|" + note(room.text()) + "|" + note(room.title()) + "|";
        if (room.next() && shows_(*room.next())) text += of(*room.next(), false);
        text += "|" + all(room.rooms()) + "|" + all(room.links()) + "|";
        for (auto const& [key, mark] : room.marks()) text += note(key) + "=" + note(mark) + ",";
        return text + "}";
    }

    std::map<Room const*, std::size_t> seen;
    Tokens tokens;

private:
    std::string note(String const& text) {
        tokens.insert(text.stdString());
        return text.stdString();
    }
    std::string all(Room::Rooms const& rooms) {
        std::string text;
        for (auto const& [key, room] : rooms)
            if (shows_(*room)) text += note(key) + ":" + of(*room, false) + ",";
        return text;
    }
    Shows shows_;
};

// A reader, and the tokens that it could have read so far.
class Reader {
public:
    Reader(World& world, Vel::AttrLogServer& server, Rights rights, char const* path)
        : world_(world),
          server_(server),
          rights_(std::move(rights)),
          path_(path),
          replica_(Vel::Dir::newEntity(""), "copy", {.path = path, .wantsToWrite = true}) {
        connect();
    }
    ~Reader() { cut(); }

    void look() {
        auto const root = Vel::ptr_cast<Room>(world_.root->entity(path_));
        auto const shows = [&](Room const& room) { return world_.mayRead(rights_, room); };
        Picture picture(shows);
        expected_ = picture.of(*root);
        // What may be read and cannot be reached any more is told of until a sweep finds it.
        for (Ptr<Room> const& room : world_.all())
            if (seen_.contains(room.get()) && shows(*room)) picture.of(*room, false);
        for (auto const& [room, number] : picture.seen) seen_.insert(room);
        readable_.merge(picture.tokens);
    }
    void reconnect() {
        cut();
        connect();
    }
    void carry(unsigned up, std::size_t limit) {
        if (up & 1) reader_->input(takeOutput(replica_));
        auto const bytes = reader_->output(limit);
        Bytes const kept(bytes.begin(), bytes.end());
        reader_->outputTaken(kept.size());
        check(kept);
        replica_.input(kept);
    }
    void settle() {
        while (violation.empty() && (replica_.wantsOutput() || reader_->wantsOutput())) carry(1, 1 << 16);
        if (!replica_.error().empty()) return violated("error: " + replica_.error().stdString());
        if (replica_.state() != Vel::AttrLogReplica::State::synced) return violated("a reader is not synced");
        auto const all = [](Room const&) { return true; };
        std::string const copy = Picture(all).of(*Vel::ptr_cast<Room>(replica_.root()));
        if (copy != expected_) violated("the copy is not what may be read: " + copy + " and not " + expected_);
    }
    // Asks for a change of any entity, by its id. The replica does not hear of the answer.
    void writeTo(Vel::EntityId id, bool expects, String const& value) {
        readable_.insert(value.stdString());  // who has written it knows it
        auto const peer = server_.newReader(true, nullptr, {}, rights_);
        peer->input(takeOutput(replicaOf(path_)));
        check(takeOutput(*peer));
        peer->input(StreamTest::writeMessage(0, expects ? 2 : 0, id, [&](StreamTest::Out& out) {
            out << Compact{Vel::attributeId<Room>("text")};
            if (expects) out << true << String("?");
            out << value;
        }));
        check(takeOutput(*peer));
        peer->closed("");
    }
    Rights const& rights() const { return rights_; }

    std::string violation;

private:
    void connect() {
        reader_ = server_.newReader(true, nullptr, {}, rights_);
        replica_.connected();
        last_.clear();
    }
    void cut() {
        reader_->closed("");
        replica_.closed("");
    }
    static Vel::AttrLogReplica& replicaOf(char const* path) {
        static std::unique_ptr<Vel::AttrLogReplica> replica;
        replica = std::make_unique<Vel::AttrLogReplica>(
            Vel::Dir::newEntity(""), "copy", Vel::AttrLogReplica::Options{.path = path, .wantsToWrite = true});
        replica->connected();
        return *replica;
    }
    void check(Bytes const& bytes) {
        last_.append(bytes.begin(), bytes.end());
        for (std::size_t at = 0; (at = last_.find('T', at)) != last_.npos && at + tokenSize <= last_.size(); ++at) {
            std::string const token = last_.substr(at, tokenSize);
            bool const isToken =
                token[tokenSize - 1] == ';' && std::all_of(token.begin() + 1, token.end() - 1, ::isdigit);
            if (isToken && !readable_.contains(token))
                violated("a reader was sent " + token + ", which it may not read");
        }
        if (last_.size() >= tokenSize) last_.erase(0, last_.size() - tokenSize + 1);
    }
    void violated(std::string const& text) {
        if (violation.empty()) violation = text;
    }

    World& world_;
    Vel::AttrLogServer& server_;
    Rights rights_;
    char const* path_;
    Vel::AttrLogReplica replica_;
    std::unique_ptr<Vel::StreamPeer> reader_;
    std::string last_;  // bytes that may be the beginning of a token
    std::string expected_;
    Tokens readable_;
    std::set<Room const*> seen_;  // at some time
};

class Run {
public:
    Run() {
        Rights const few = rightsOf({{"", Access::read}, {"shut", Access::none}});
        Rights const deep = rightsOf(
            {{"", Access::read}, {"half", Access::none}, {"shut", Access::none}, {"shut/deep", Access::write}});
        Rights const open = rightsOf({{"open", Access::write}, {"open/priv", Access::none}});
        for (Rights const& rights : {few, few, deep}) admit(rights, "");
        admit(open, "open");
        admit(nullptr, "");
    }

    std::string of(History const& history) {
        for (auto const& reader : readers_) reader->look();
        for (Step const& step : history) {
            apply(step);
            for (auto const& reader : readers_) {
                reader->look();
                if (!reader->violation.empty()) return reader->violation;
            }
            if (!violation_.empty()) return violation_;
        }
        for (auto const& reader : readers_) {
            reader->settle();
            if (!reader->violation.empty()) return reader->violation;
        }
        return violation_;
    }

private:
    void admit(Rights const& rights, char const* path) {
        readers_.push_back(std::make_unique<Reader>(world_, server_, rights, path));
    }
    Reader& reader(unsigned n) { return *readers_[n % readers_.size()]; }

    void apply(Step const& step) {
        auto const& n = step.n;
        Ptr<Room> const room = world_.room(n[0]), other = world_.room(n[1]);
        switch (step.what % whats) {
        case carry:
            return reader(n[0]).carry(n[2], 1 + n[1] % 300);
        case reconnect:
            return reader(n[0]).reconnect();
        case settle:
            return reader(n[0]).settle();
        case relay:
            return relayTo(reader(n[0] % 3).rights(), 1 + n[1] % 60, 1 + n[2] % 300, n[3]);
        case writeAsSpy:
            return write(reader(n[0]), n[1] % 64, n[2] % 2 != 0);
        case add:
            return addTo(*room);
        case move:
            return moveTo(room, *other);
        case takeOut:
            return take(room);
        default:
            return change(step, *room, other);
        }
    }
    void change(Step const& step, Room& room, Ptr<Room> const& other) {
        unsigned const key = step.n[2];
        switch (step.what % whats) {
        case setText:
            return room.textIs(world_.token());
        case setTitle:
            return room.titleIs(world_.token());
        case point:
            return room.nextIs(key % 4 ? other : nullptr);
        case link:
            return room.linkIs(key % 2 || room.links().empty() ? world_.token() : nth(room.links(), key), other);
        case unlink:
            if (!room.links().empty()) room.linkDel(nth(room.links(), key));
            return;
        case setMark:
            return room.markIs(world_.token(), world_.token());
        case deleteMark:
            if (!room.marks().empty()) room.markDel(nth(room.marks(), key));
            return;
        case hang:
            if (world_.rooms.size() >= mostRooms) return;
            world_.rooms.push_back(Room::newEntity(world_.token()));
            return room.nextIs(world_.rooms.back());
        default:
            return;
        }
    }
    template <class Map> static String nth(Map const& map, unsigned n) {
        return std::next(map.begin(), static_cast<std::ptrdiff_t>(n % map.size()))->first;
    }
    void addTo(Room& room) {
        if (world_.rooms.size() < mostRooms) world_.rooms.push_back(room.roomIs(world_.token()));
    }
    bool isPart(Ptr<Room> const& room) const {
        return std::find(world_.parts.begin(), world_.parts.end(), room) != world_.parts.end();
    }
    // Between the two changes the room is in no place, and nobody may see more of it.
    void moveTo(Ptr<Room> const& room, Room& to) {
        if (isPart(room) || room->encloses(to) || !isBelowRoot(to)) return;
        if (auto* const from = dynamic_cast<Room*>(room->parent())) from->roomDel(room->name());
        to.adopt(room);
        for (Ptr<Room> const& other : world_.rooms)
            if (room->encloses(*other)) world_.lastPaths.erase(other.get());
    }
    bool isBelowRoot(Room const& room) const { return world_.root->encloses(room); }
    // A room that everybody may read: whether a source remembers the place of another one depends on who has read.
    void take(Ptr<Room> const& room) {
        auto* const from = dynamic_cast<Room*>(room->parent());
        if (isPart(room) || !from || !isBelowRoot(*room)) return;
        std::string const path = *world_.path(*room);
        if (!path.starts_with("open/") || path.starts_with("open/priv")) return;
        world_.lastPaths[room.get()] = path;
        from->roomDel(room->name());
    }
    // Serves a copy to a reader with rights while the copy is being made, `piece` bytes at a time. If `cut` is odd, the
    // connection of the copy ends once in the middle. The rooms do not change meanwhile: else the copy might hear of a
    // change before it hears of the move that hides it.
    void relayTo(Rights const& rights, std::size_t piece, std::size_t limit, unsigned cut) {
        Vel::AttrLogReplica copy(Vel::Dir::newEntity(""), "copy", {});
        std::optional<Vel::AttrLogServer> server;
        std::optional<Reader> reader;
        std::size_t left = cut % 2 ? cut * 3 : 0;  // pieces before the connection ends; 0: it does not
        auto const carryPiece = [&](Vel::StreamPeer& source) {
            auto const bytes = source.output(piece);
            Bytes const kept(bytes.begin(), bytes.end());
            source.outputTaken(kept.size());
            copy.input(kept);
            if (!reader && copy.root()) {
                server.emplace(copy.root(), Vel::AttrLogSource::Options{});
                reader.emplace(world_, *server, rights, "");
                reader->look();
            }
            if (reader) reader->carry(1, limit);
        };
        for (bool isDone = false; !isDone;) {
            auto const source = server_.newReader(false);
            copy.connected();
            source->input(takeOutput(copy));
            while (source->wantsOutput() && (left == 0 || --left != 0)) carryPiece(*source);
            isDone = !source->wantsOutput();
            source->closed("");
            if (isDone) reader->settle();
            copy.closed("");
            left = 0;
        }
        if (!reader->violation.empty()) violation_ = "of a copy: " + reader->violation;
    }
    void write(Reader& reader, Vel::EntityId id, bool expects) {
        String const value = world_.token();
        reader.writeTo(id, expects, value);
        auto const check = [&](Ptr<Room> const& room) {
            bool const may = reader.rights() && allows(world_.may(reader.rights(), *room), Access::write);
            if (room->text() == value && !may) violation_ = "a room was changed by a reader that may not";
        };
        for (Ptr<Room> const& room : world_.all()) check(room);
        check(world_.root);
    }

    World world_;
    Vel::AttrLogServer server_{world_.root, {.logSize = 600, .chunkSize = 200}};
    std::vector<std::unique_ptr<Reader>> readers_;
    std::string violation_;
};

}  // namespace

History historyOf(Vel::U64 seed) {
    std::mt19937_64 random(seed);
    auto const below = [&](unsigned n) { return static_cast<unsigned>(random() % n); };
    History history(60 + below(200));
    for (Step& step : history) {
        // Half of them are of the network.
        constexpr unsigned network[] = {carry, carry, carry, carry, reconnect, settle, writeAsSpy};
        constexpr unsigned changes[] = {setText, setTitle, point, point, link, link, unlink, setMark, deleteMark, add,
            add, move, move, move, takeOut, hang};
        step.what = below(2) ? network[below(std::size(network))] : changes[below(std::size(changes))];
        for (unsigned& n : step.n) n = below(1000);
    }
    // Some runs have copies that are served again. That takes as long as many other steps.
    for (unsigned left = below(4) == 0 ? 2 : 0; left != 0; --left) {
        Step& step = history[below(static_cast<unsigned>(history.size()))];
        step.what = relay;
    }
    return history;
}

std::string textOf(History const& history) {
    std::string text;
    for (Step const& step : history) {
        text += (text.empty() ? "" : ";") + std::to_string(step.what);
        for (unsigned const n : step.n) text += " " + std::to_string(n);
    }
    return text;
}

History historyFrom(std::string_view text) {
    History history;
    std::stringstream lines{std::string(text)};
    for (std::string line; std::getline(lines, line, ';');) {
        std::stringstream numbers(line);
        Step step;
        numbers >> step.what;
        for (unsigned& n : step.n) numbers >> n;
        if (!numbers) throw std::invalid_argument("no step of a history with rights: " + line);
        history.push_back(step);
    }
    return history;
}

std::string run(History const& history) {
    std::string const violation = Run().of(history);
    Room::freeCircles();
    return violation;
}

History shrunk(History history) {
    for (std::size_t size = history.size(); size != 0; size /= 2)
        for (std::size_t at = 0; at + size <= history.size();) {
            History tried = history;
            auto const begin = tried.begin() + static_cast<std::ptrdiff_t>(at);
            tried.erase(begin, begin + static_cast<std::ptrdiff_t>(size));
            if (run(tried).empty())
                at += size;
            else
                history = std::move(tried);
        }
    return history;
}

}  // namespace RightsSimulation

VEL_MODULE(StreamRightsTest, 6d0a7f9779a66856, StreamTest::Room);
