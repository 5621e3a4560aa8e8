#pragma once

#include "Vel/describe/Module.h"
#include "Vel/entity/Dir.h"
#include "Vel/stream/AttrLogReplica.h"
#include "Vel/stream/AttrLogSource.h"
#include "Vel/stream/internal/AttrLogReader.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

// What the tests of streaming share.
namespace StreamTest {

using Bytes = std::vector<Vel::U8>;
using Strings = std::vector<std::string>;

// Takes all that a peer has to send, at most `limit` bytes at a time.
inline Bytes takeOutput(Vel::StreamPeer& peer, std::size_t limit = 1u << 16) {
    Bytes all;
    for (;;) {
        auto const bytes = peer.output(limit);
        if (bytes.empty()) {
            if (!peer.wantsOutput()) return all;
            continue;
        }
        all.insert(all.end(), bytes.begin(), bytes.end());
        peer.outputTaken(bytes.size());
    }
}

// Calls f(message) for each whole message: its kind and body.
template <class F> void eachMessage(std::span<Vel::U8 const> bytes, F f) {
    while (!bytes.empty()) {
        auto const [size, length] = Vel::NboAttrLog::messageLength(bytes);
        ASSERT_NE(size, 0u);
        ASSERT_LE(size + length, bytes.size());
        f(bytes.subspan(size, length));
        bytes = bytes.subspan(size + length);
    }
}

inline std::string hex(std::span<Vel::U8 const> bytes) {
    std::string text;
    for (Vel::U8 const byte : bytes) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

// One message a line: its bytes in hexadecimal, the length left out.
inline Strings messages(std::span<Vel::U8 const> bytes) {
    Strings result;
    eachMessage(bytes, [&](std::span<Vel::U8 const> message) { result.push_back(hex(message)); });
    return result;
}

using Vel::Entity;
using Vel::StreamAttribute;
using Vel::StreamKind;
using Vel::U32;
using Vel::NboAttrLog::In;
using Vel::NboAttrLog::MessageKind;
using Vel::NboAttrLog::Out;

inline Vel::StreamTable const& tableOf(Entity const& entity) { return entity.fwkType().glue().stream(); }

// Adds an entity without keys.
template <class Entities> void addTo(Entities& entities, Vel::EntityId id, Vel::Ptr<Entity> entity) {
    Vel::StreamTable const& table = tableOf(*entity);
    entities.add(id, std::move(entity), table, [](auto&, auto) {});
}

// A message with the body that is written.
inline Bytes message(
    MessageKind kind, std::function<void(Out&)> const& body = [](Out&) {}) {
    Vel::NboAttrLog::BufferSm sm;
    body(sm.begin(kind, 0));
    sm.commit();
    return {sm.bytes().begin(), sm.bytes().end()};
}

// What a reader sends to change something: the number of the change, what is asked for, and the entity. `body` writes
// the rest, from the attribute on.
inline Bytes writeMessage(U32 number, Vel::U8 ops, Vel::EntityId id, std::function<void(Out&)> const& body) {
    return message(MessageKind::write, [&](Out& out) {
        out << Vel::NboAttrLog::Compact{number} << ops << Vel::NboAttrLog::Compact{id};
        body(out);
    });
}

// A hello whose modules are changed.
inline Bytes hello(bool wantsToWrite, std::map<std::string, Vel::U64> const& instead) {
    Vel::NboAttrLog::BufferSm sm;
    auto& out = sm.begin(Vel::NboAttrLog::MessageKind::hello, 0);
    std::map<std::string, Vel::U64> modules;
    for (auto const* const module : Vel::Registry::modules()) {
        Vel::VelType const any(module, 0);
        modules[std::string(any.moduleName())] = any.moduleFingerprint();
    }
    for (auto const& [name, fingerprint] : instead) modules[name] = fingerprint;
    std::erase_if(modules, [](auto const& m) { return m.second == 0; });
    out << Vel::U32(0x56454c41) << Vel::U16(2) << wantsToWrite << Vel::String()
        << static_cast<Vel::U32>(modules.size());
    for (auto const& [name, fingerprint] : modules) out << Vel::String(name) << fingerprint;
    sm.commit();
    return {sm.bytes().begin(), sm.bytes().end()};
}

namespace Detail {

inline std::string textOf(In& in) { return in.nextString().stdString(); }
inline std::string number(In& in) { return std::to_string(nextCompact(in)); }

// "2.258", of an entity and an attribute.
inline std::string attributeOf(In& in) {
    std::string const id = number(in);
    return id + "." + number(in);
}

inline std::string announcementOf(In& in) {
    std::string text = "announce " + number(in);
    text += " type " + number(in);
    U32 const parent = nextCompact(in);
    if (parent != 0) text += " at " + std::to_string(parent) + "." + number(in);
    while (in.left() >= 4) text += " " + textOf(in);
    return text;
}

// "answer 3 done", "answer 3 rejected: words", "answer 3 differs 00000007".
inline std::string answerOf(In& in) {
    std::string text = "answer " + number(in);
    auto const result = static_cast<Vel::WriteResult>(in.nextU8());
    text += std::string(" ") + Vel::writeResultName(result);
    if (result == Vel::WriteResult::done) return text;
    if (result == Vel::WriteResult::differs) return text + (in.nextbool() ? " " + hex({in.data(), in.left()}) : "");
    return text + ": " + textOf(in);
}

// Of what says something about an attribute or a key.
inline std::string attributeMessageOf(MessageKind kind, In& in) {
    std::string const at = attributeOf(in);
    switch (kind) {
    case MessageKind::value:
        return "value " + at + " " + hex({in.data(), in.left()});
    case MessageKind::keySet: {
        std::string const key = textOf(in);
        return "keySet " + at + " " + key + " " + number(in);
    }
    case MessageKind::keyDel:
        return "keyDel " + at + " " + textOf(in);
    case MessageKind::keysAgain:
        return "keysAgain " + at;
    case MessageKind::keysEnd:
        return "keysEnd " + at;
    default:
        return "?";
    }
}

inline std::string toldOf(MessageKind kind, In in) {
    switch (kind) {
    case MessageKind::hello:
        return "hello";
    case MessageKind::welcome:
        return "welcome";
    case MessageKind::type: {
        std::string const index = number(in);
        return "type " + index + " " + textOf(in);
    }
    case MessageKind::announce:
        return announcementOf(in);
    case MessageKind::gone:
        return "gone " + number(in);
    case MessageKind::synced:
        return "synced";
    case MessageKind::refused:
        return "refused " + textOf(in);
    case MessageKind::write:
        return "write " + number(in);
    case MessageKind::writeValues:
        return "writeValues " + number(in);
    case MessageKind::call:
        return "call " + number(in);
    case MessageKind::values: {
        std::string const id = number(in);
        return "values " + id + " " + hex({in.data(), in.left()});
    }
    case MessageKind::answer:
        return answerOf(in);
    case MessageKind::ping:
        return "ping " + std::to_string(in.nextU32());
    case MessageKind::pong:
        return "pong " + std::to_string(in.nextU32());
    default:
        return attributeMessageOf(kind, in);
    }
}

class Hex final : public Vel::NboAttrLog::SerializeSink, public Vel::NboAttrLog::OutSm {
public:
    bool doMessageMulticast(Vel::AttributeId) override { return false; }
    OutSm* singletonSerializeCheck(
        Vel::AttributeId, Vel::NboAttrLog::FlowConnection*, bool, std::size_t size, bool) override {
        begin(MessageKind::value, size);
        return this;
    }
    Out bytes;

private:
    Out& room(std::size_t) override { return bytes; }
};

class TreeText {
public:
    std::string of(Entity const& entity, std::string const& path) {
        auto const [place, isNew] = seen_.try_emplace(&entity, path);
        if (!isNew) return "@" + place->second;
        std::string text = std::string(entity.fwkType().name()) + " '" + entity.name().stdString() + "'";
        for (StreamAttribute const& attribute : entity.fwkType().glue().stream().attributes) {
            text += "\n" + std::string(path.size(), ' ') + std::to_string(attribute.id) + " ";
            std::string const below = path + "." + std::to_string(attribute.id);
            if (attribute.kind == StreamKind::value) {
                Hex sink;
                attribute.serialize(sink, attribute.id, entity, nullptr);
                text += hex(Vel::NboAttrLog::messageBody(sink.bytes.bytes()));
            } else if (attribute.kind == StreamKind::pointer) {
                Entity const* const target = attribute.target(entity);
                text += target ? of(*target, below) : "null";
            } else if (attribute.kind == StreamKind::values) {
                std::map<std::string, std::string> values;
                std::unique_ptr<Vel::NboAttrLog::Bookmark> const keys(attribute.bookmark(entity));
                while (keys->left() != 0) {
                    Out key;
                    keys->next(key);
                    Hex sink;
                    attribute.serializeKey(sink, attribute.id, entity, key.bytes(), nullptr);
                    values[hex(key.bytes())] =
                        hex(Vel::NboAttrLog::messageBody(sink.bytes.bytes()).subspan(key.size()));
                }
                for (auto const& [key, value] : values)
                    text += "\n" + std::string(path.size() + 1, ' ') + key + ": " + value;
            } else {
                std::map<std::string, Entity const*> members;
                std::unique_ptr<Vel::NboAttrLog::Bookmark> const keys(attribute.bookmark(entity));
                while (keys->left() != 0) {
                    Out key;
                    keys->next(key);
                    In in(key.bytes());
                    In name(key.bytes());
                    members[attribute.keyIsName ? name.nextString().stdString() : hex(key.bytes())] =
                        attribute.member(entity, in);
                }
                for (auto const& [key, member] : members)
                    text +=
                        "\n" + std::string(path.size() + 1, ' ') + key + ": " + of(*member, below + "[" + key + "]");
            }
        }
        return text;
    }

private:
    std::map<Entity const*, std::string> seen_;
};

}  // namespace Detail

inline Strings told(std::span<Vel::U8 const> bytes) {
    Strings result;
    eachMessage(bytes, [&](std::span<Vel::U8 const> message) {
        result.push_back(Detail::toldOf(static_cast<MessageKind>(message[0]), In(message.subspan(1))));
    });
    return result;
}

inline std::string treeOf(Entity const& root) { return Detail::TreeText().of(root, "/"); }

// A connection by itself, which takes as many messages as it is told to.
class Line final : public Vel::NboAttrLog::FlowConnection {
public:
    explicit Line(Vel::StreamView& view) : FlowConnection(&view) {}

    std::size_t room = 1000;  // messages
    Vel::NboAttrLog::OutSm& nboAttrLogOut() override { return out_; }
    bool isOkToSerialize() const override { return count() < room; }
    std::size_t count() const { return messages(out_.bytes()).size(); }
    Strings take() {
        Strings const result = told(out_.bytes());
        out_.clear();
        return result;
    }
    // What is flowed out of the root from the attribute on, each time as many messages as there is room for, and the id
    // that each stop gave.
    using FlowConnection::flow;
    std::vector<Vel::AttributeId> flow(Vel::Entity::VelNboAttrLogSa& adapter, Vel::AttributeId from) {
        if (!isAnnounced(adapter)) announce(adapter, {});
        out_.clear();
        Vel::NboAttrLog::FlowOut& flow = flowIs(adapter, from);
        std::vector<Vel::AttributeId> stops;
        do {
            from = adapter.continueFlowOut(*this, flow, from);
            flow.resumeIdIs(from);
            stops.push_back(from);
            for (std::string const& message : take()) sent.push_back(message);
        } while (from != 0 && from != ~Vel::AttributeId(0));
        return stops;
    }
    Strings sent;

private:
    Vel::NboAttrLog::BufferSm out_;
};

// A source and a replica, and nothing between them.
class Pair {
public:
    explicit Pair(Vel::Ptr<Vel::Entity> root, Vel::AttrLogSource::Options options = {})
        : source(std::move(root), options) {}

    void connect() {
        reader = source.newReader();
        replica.connected();
    }
    // Carries everything both ways until nothing is left.
    void run() {
        while (replica.wantsOutput() || reader->wantsOutput()) {
            reader->input(takeOutput(replica));
            replica.input(takeOutput(*reader));
        }
    }
    void disconnect(std::string const& reason = {}) {
        reader->closed(reason);
        reader = nullptr;
        replica.closed(reason);
    }
    void expectEqual() {
        ASSERT_TRUE(replica.root());
        EXPECT_EQ(treeOf(*replica.root()), treeOf(source.root()));
    }

    Vel::AttrLogSource source;
    std::unique_ptr<Vel::StreamPeer> reader;
    Vel::Ptr<Vel::Dir> place = Vel::Dir::newEntity("");
    Vel::AttrLogReplica replica{place, source.root().name(), {}};
};

}  // namespace StreamTest
