#pragma once

#include "Vel/entity/Entity.h"
#include "Vel/stream/StreamWrite.h"

#include <functional>
#include <memory>
#include <optional>
#include <span>

namespace Vel {

struct StreamAttribute;

// Which changes a history has.
enum class HistoryList : U32 {
    asked,  // those that readers have asked for, also those that were not made: the newest ones
    own,    // those that this process has made itself: the newest ones
    last,   // of each attribute the last one, whoever made it
};

// Who has changed what at a source. Values are kept as bytes, and become texts when they are read, so that noting a
// change takes less than 100 ns, and twice that if its attribute is looked up for HistoryList::last.
//
// What the process changes itself is noted when observers of the entity are notified: each notification is a change, of
// a value, a pointer or a key that is sent to readers, of an entity that was announced to one. The value before is not
// known then. A change that is made while a reader's request is handled, by a method or an observer, is also one of the
// process, and its text names the reader.
// Threads: one at a time, the one that uses the entities.
class VEL_API WriteHistory {
public:
    static constexpr std::size_t longestValue = 1024;  // bytes of an encoded value that is kept; of others the size is
    static constexpr std::size_t longestText = 256;    // bytes of each text of a change
    static constexpr char thisProcess[] = "this process";  // the author of what the process changes itself

    // Numbers of changes that are kept. 0: none are. What is not kept costs nothing.
    struct Sizes {
        std::size_t asked = 0;  // REQUIRES: not 0
        std::size_t own = 0;
        // Attributes of which the last change is kept; of a collection one change for all keys. If there are more, the
        // attribute that has changed least recently is dropped.
        std::size_t attributes = 0;
    };

    // The texts are safe to print, see PeerText.h.
    struct Change {
        double time = 0;  // seconds since 1970-01-01 00:00 UTC
        String author{};  // who has asked for it, or made it
        String path{};    // of the entity, as it was then
        String attribute{};
        String key{};     // of a collection
        String before{};  // the value before; empty if there was none, or if it is not known
        // The value that was asked for or set, or a call's arguments; empty if the key was to go. Of a pointer or a
        // collection of entities the path of the entity, empty if there is none.
        String wanted{};
        WriteResult result = WriteResult::unknown;
        String text{};  // what the answer said
    };

    explicit WriteHistory(std::size_t size) : WriteHistory(Sizes{size, 0, 0}) {}
    explicit WriteHistory(Sizes const& sizes);
    WriteHistory(WriteHistory const&) = delete;
    WriteHistory& operator=(WriteHistory const&) = delete;
    ~WriteHistory();

    // The changes of a list have numbers: those in [begin(), end()) are kept, and known as soon as they have been
    // answered. In `last` the number is that of the attribute's place, so it says nothing about the order.
    U64 begin(HistoryList list = HistoryList::asked) const;
    U64 end(HistoryList list = HistoryList::asked) const;
    bool has(U64 number, HistoryList list = HistoryList::asked) const;
    Change change(U64 number, HistoryList list = HistoryList::asked) const;  // REQUIRES: has(number, list)
    // The path of the changed entity that rights are about; nothing if it had none. REQUIRES: has(number)
    std::optional<String> const& place(U64 number) const;
    std::size_t size(HistoryList list = HistoryList::asked) const;  // the most that it keeps
    // `told` is called for each number whose change is another one now, after that was answered. If `list` is not
    // `last`, the change `number - size(list)` is not there any more. What `told` throws is dropped. What it changes
    // itself is not noted, or there would be no end. Each observer has one function; null withdraws it. An observer
    // that is being called may withdraw itself, and no other one.
    using Told = std::function<void(HistoryList list, U64 number)>;
    void onChangeIs(void const* observer, Told told);
    void onChangeIs(Told told) { onChangeIs(nullptr, std::move(told)); }

    // --- for this library ---

    // Notes that a change is asked for, and returns its number.
    U64 asked(Entity const& entity, AttributeId attribute, String const& author);
    // These set the encodings of that change's values. They do nothing if its place was taken by another one.
    void keyIs(U64 number, std::span<U8 const> bytes);
    void beforeIs(U64 number, StreamAttribute const& attribute, Entity const& entity);
    void beforeIs(U64 number, StreamAttribute const& attribute, Entity const& entity, std::span<U8 const> key);
    void wantedIs(U64 number, std::span<U8 const> bytes);
    void answered(U64 number, WriteAnswer const& answer);
    void placeIs(U64 number, std::optional<String> path);  // the path that says who may read of the change

    bool wantsNotifications() const;  // whether it wants to know of all changes, by these
    // An attribute has changed; if it is a collection, at the key, of which this is the encoding. `reader` is the one
    // whose request is being handled; null: none is.
    void notified(
        Entity const& entity, StreamAttribute const& attribute, std::span<U8 const> key, String const* reader) noexcept;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Vel
