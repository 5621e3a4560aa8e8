#pragma once

#include "Vel/entity/Entity.h"
#include "Vel/stream/WriteHistory.h"

#include <array>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>

namespace Mount {

using Vel::String;
using Vel::U64;

// Who has asked a server for a change of which value, and what has become of it; or what the server's process has
// changed itself. All texts are safe to print.
class VEL_API Change {
public:
    Change() = default;
    explicit Change(Vel::WriteHistory::Change const& change);

    Vel::Seconds time() const { return time_; }  // since 1970-01-01 00:00 UTC
    // At a Unix socket the user and the process; in TLS the name in the certificate; else the address. Of a change that
    // the server's process made: Vel::WriteHistory::thisProcess.
    String author() const { return author_; }
    String path() const { return path_; }            // of the entity, as it was then
    String attribute() const { return attribute_; }  // or the method that was called
    String key() const { return key_; }              // of a collection; else empty
    // The value; empty if the collection did not have the key, and for what the server's process has changed.
    String before() const { return before_; }
    // The value that was asked for or set, or the path of an entity; empty to delete a key; or the arguments.
    String wanted() const { return wanted_; }
    String result() const { return result_; }  // the name of the answer, such as "done": see Vel::WriteResult
    String text() const { return text_; }      // what was said about it; empty for most
    friend bool operator==(Change const&, Change const&) = default;

    static constexpr auto description() {
        using C = Change;
        return Vel::record("Mount::Change", Vel::field<&C::time_>("time"), Vel::field<&C::author_>("author"),
            Vel::field<&C::path_>("path"), Vel::field<&C::attribute_>("attribute"), Vel::field<&C::key_>("key"),
            Vel::field<&C::before_>("before"), Vel::field<&C::wanted_>("wanted"), Vel::field<&C::result_>("result"),
            Vel::field<&C::text_>("text"));
    }

private:
    Vel::Seconds time_;
    String author_, path_, attribute_, key_, before_, wanted_, result_, text_;
};

namespace Detail {

template <class H, Vel::HistoryList list> constexpr auto historyList(char const* name) {
    return Vel::values<&H::template visitIn<list>>(
        Vel::collection<U64, Change, &H::template changeIn<list>, &H::template changeInIs<list>,
            &H::template changeInDel<list>, Vel::none, Vel::none, &H::template changeExistsIn<list>>(name));
}

}  // namespace Detail

// Who has changed what at a server. Nobody can change that but the server. The newest changes that peers have asked
// for, and the newest ones that the server's process has made, have numbers that ascend. The last changes of attributes
// have numbers that say nothing about their order.
class VEL_API History : public Vel::EntityOf<History> {
public:
    using List = Vel::HistoryList;

    explicit History(String const& name);  // of a copy
    ~History() override;
    static Vel::Ptr<History> of(std::shared_ptr<Vel::WriteHistory> kept, String const& name);
    // Has only what was asked for of entities at places that `mayRead` takes; the place is nothing for an entity that
    // was in none. The numbers have no gaps, so that nobody can count the others.
    using Filter = std::function<bool(std::optional<String> const& place)>;
    static Vel::Ptr<History> of(std::shared_ptr<Vel::WriteHistory> kept, String const& name, Filter mayRead);

    Change change(List list, U64 number) const;  // an empty one if there is none
    bool changeExists(List list, U64 number) const;
    // In the order of the numbers.
    void visitChanges(List list, std::function<void(U64)> const& visit) const;
    // For a copy only: these throw ReadOnlyException at the server.
    void changeIs(List list, U64 number, Change const& change);
    void changeDel(List list, U64 number);

    // The same for one list, for the description.
    template <List list> Change changeIn(U64 number) const { return change(list, number); }
    template <List list> bool changeExistsIn(U64 number) const { return changeExists(list, number); }
    template <List list> void visitIn(std::function<void(U64)> const& visit) const { visitChanges(list, visit); }
    template <List list> void changeInIs(U64 number, Change const& change) { changeIs(list, number, change); }
    template <List list> void changeInDel(U64 number) { changeDel(list, number); }

    static constexpr auto description() {
        return Vel::entity("Mount::History", Detail::historyList<History, List::asked>("change"),
            Detail::historyList<History, List::own>("own"), Detail::historyList<History, List::last>("last"));
    }

private:
    static constexpr std::size_t lists = 3;

    void needCopy() const;
    void told(List list, U64 number);
    void toldFiltered(U64 number);
    std::optional<U64> keptNumber(List list, U64 number) const;  // of a change; nothing if there is none
    void notify(List list, U64 number) const;

    std::shared_ptr<Vel::WriteHistory> kept_;             // null in a copy
    Filter mayRead_{};                                    // null: everything
    std::deque<U64> shown_{};                             // numbers in kept_ of the changes; with a filter only
    U64 firstShown_ = 0;                                  // the number that the first of these has here
    std::array<std::map<U64, Change>, lists> changes_{};  // of a copy
};

}  // namespace Mount
