#include "Vel/stream/WriteHistory.h"

#include "Vel/describe/StreamTable.h"
#include "Vel/stream/internal/ChangeLists.h"
#include "Vel/stream/internal/OneValue.h"
#include "Vel/text/PeerText.h"

#include <algorithm>
#include <map>
#include <utility>

namespace Vel {

using NboAttrLog::In;

class WriteHistory::Impl {
public:
    explicit Impl(Sizes const& sizes) : asked(sizes.asked), own(sizes.own), last(sizes.attributes) {}

    void open(U64 number, Entity const& entity);
    void answered(U64 number, WriteAnswer const& answer);
    void notified(
        Entity const& entity, StreamAttribute const& attribute, std::span<U8 const> key, String const* reader);
    void tell(HistoryList list, U64 number) noexcept;
    bool wantsNotifications() const { return own.size() != 0 || last.size() != 0; }

    ChangeRing asked, own;
    LastChanges last;
    OneValue value;                    // kept, since it keeps its memory
    std::map<void const*, Told> told;  // by observer

private:
    // A request that is not answered yet. Its first notification is of the change that it has asked for.
    struct Open {
        U64 number;
        Entity const* entity;  // only compared, since it may have gone
        bool isNotified = false;
        std::optional<LastChanges::Place> place{};
    };
    static constexpr U64 noNumber = ~U64(0);  // of a change that is kept nowhere but in `last`

    Open* openFor(Entity const& entity, StreamAttribute const& attribute, std::span<U8 const> key);
    KeptChange& made(Entity const& entity, StreamAttribute const& attribute);
    void store(KeptChange& to, Entity const& entity, StreamAttribute const& attribute, std::span<U8 const> key);

    String const author_ = thisProcess;
    std::vector<Open> open_;
    KeptChange scratch_;  // in place of one in `own`, if that keeps none
    bool isTelling_ = false;
};

// --- what readers ask for ---

void WriteHistory::Impl::open(U64 number, Entity const& entity) {
    if (wantsNotifications()) open_.push_back({number, &entity});
}

void WriteHistory::Impl::answered(U64 number, WriteAnswer const& answer) {
    auto const finish = [&](KeptChange& change) {
        change.result = answer.result;
        change.text = answer.text.empty() ? String() : peerText(answer.text.view(), longestText);
        change.isAnswered = true;
    };
    auto const open = std::find_if(open_.begin(), open_.end(), [&](Open const& each) { return each.number == number; });
    std::optional<LastChanges::Place> place;
    if (open != open_.end()) {
        place = open->place;
        open_.erase(open);
    }
    if (KeptChange* const change = asked.find(number)) {
        finish(*change);
        tell(HistoryList::asked, number);
    }
    if (!place || last.at(*place).isOwn || last.at(*place).number != number) return;
    finish(last.at(*place));
    tell(HistoryList::last, *place);
}

void WriteHistory::Impl::tell(HistoryList list, U64 number) noexcept {
    bool const before = std::exchange(isTelling_, true);
    for (auto at = told.begin(); at != told.end();) try {
            Told const next = (at++)->second;  // a copy, since the observer may withdraw itself
            next(list, number);
        } catch (...) {}  // the change was made, and readers are to hear of it
    isTelling_ = before;
}

// --- what is notified ---

WriteHistory::Impl::Open* WriteHistory::Impl::openFor(
    Entity const& entity, StreamAttribute const& attribute, std::span<U8 const> key) {
    for (Open& open : open_) {
        KeptChange const* const change = asked.find(open.number);
        if (open.isNotified || open.entity != &entity || !change || change->attribute != attribute.id) continue;
        bool const isAny = change->key.size != change->key.bytes.size();  // too long to be kept
        if (!change->key.isThere || isAny || std::ranges::equal(change->key.bytes, key)) return &open;
    }
    return nullptr;
}

KeptChange& WriteHistory::Impl::made(Entity const& entity, StreamAttribute const& attribute) {
    KeptChange* change = &scratch_;
    if (own.size() != 0)
        change = &own.begun(entity, attribute.id, author_);
    else
        scratch_.begin(noNumber, entity, attribute.id, author_);
    change->isOwn = true;
    change->result = WriteResult::done;
    change->text = String();
    return *change;
}

void WriteHistory::Impl::store(
    KeptChange& to, Entity const& entity, StreamAttribute const& attribute, std::span<U8 const> key) {
    if (attribute.isCollection()) to.key.set(key);
    In in(key);
    if (attribute.kind == StreamKind::value)
        KeptChange::store(to.wanted, attribute, entity, value);
    else if (attribute.kind == StreamKind::values)
        KeptChange::store(to.wanted, attribute, entity, key, value);
    else
        to.targetIs(attribute.kind == StreamKind::pointer ? attribute.target(entity) : attribute.member(entity, in));
}

void WriteHistory::Impl::notified(
    Entity const& entity, StreamAttribute const& attribute, std::span<U8 const> key, String const* reader) {
    if (isTelling_) return;
    if (!reader) open_.clear();  // of requests whose handling has ended by an exception
    if (Open* const open = openFor(entity, attribute, key)) {
        open->isNotified = true;
        if (last.size() != 0) open->place = last.keep(*asked.find(open->number));
        return;
    }
    KeptChange& change = made(entity, attribute);
    if (reader) change.cause = *reader;
    store(change, entity, attribute, key);
    change.isAnswered = true;
    std::optional<LastChanges::Place> place;
    if (last.size() != 0) place = last.keep(change);
    U64 const number = change.number;
    if (own.size() != 0) tell(HistoryList::own, number);
    if (place) tell(HistoryList::last, *place);
}

// --- the interface ---

WriteHistory::WriteHistory(Sizes const& sizes) : impl_(std::make_unique<Impl>(sizes)) {}
WriteHistory::~WriteHistory() = default;

void WriteHistory::onChangeIs(void const* observer, Told told) {
    if (told)
        impl_->told[observer] = std::move(told);
    else
        impl_->told.erase(observer);
}

U64 WriteHistory::asked(Entity const& entity, AttributeId attribute, String const& author) {
    U64 const number = impl_->asked.begun(entity, attribute, author).number;
    impl_->open(number, entity);
    return number;
}

void WriteHistory::keyIs(U64 number, std::span<U8 const> bytes) {
    if (KeptChange* const change = impl_->asked.find(number)) change->key.set(bytes);
}

void WriteHistory::beforeIs(U64 number, StreamAttribute const& attribute, Entity const& entity) {
    if (KeptChange* const change = impl_->asked.find(number))
        KeptChange::store(change->before, attribute, entity, impl_->value);
}

void WriteHistory::beforeIs(
    U64 number, StreamAttribute const& attribute, Entity const& entity, std::span<U8 const> key) {
    if (KeptChange* const change = impl_->asked.find(number))
        KeptChange::store(change->before, attribute, entity, key, impl_->value);
}

void WriteHistory::wantedIs(U64 number, std::span<U8 const> bytes) {
    if (KeptChange* const change = impl_->asked.find(number)) change->wanted.set(bytes);
}

void WriteHistory::answered(U64 number, WriteAnswer const& answer) { impl_->answered(number, answer); }

void WriteHistory::placeIs(U64 number, std::optional<String> path) {
    if (KeptChange* const change = impl_->asked.find(number)) change->place = std::move(path);
}

bool WriteHistory::wantsNotifications() const { return impl_->wantsNotifications(); }

// An accessor that throws must not keep readers from hearing of the change.
void WriteHistory::notified(
    Entity const& entity, StreamAttribute const& attribute, std::span<U8 const> key, String const* reader) noexcept {
    try {
        impl_->notified(entity, attribute, key, reader);
    } catch (...) {}
}

U64 WriteHistory::begin(HistoryList list) const {
    if (list == HistoryList::last) return 0;
    return list == HistoryList::own ? impl_->own.begin() : impl_->asked.begin();
}

U64 WriteHistory::end(HistoryList list) const {
    if (list == HistoryList::last) return impl_->last.used();
    return list == HistoryList::own ? impl_->own.end() : impl_->asked.end();
}

bool WriteHistory::has(U64 number, HistoryList list) const {
    if (list == HistoryList::last)
        return number < impl_->last.used() && impl_->last.at(static_cast<U32>(number)).isAnswered;
    return list == HistoryList::own ? impl_->own.has(number) : impl_->asked.has(number);
}

WriteHistory::Change WriteHistory::change(U64 number, HistoryList list) const {
    if (list == HistoryList::last) return impl_->last.at(static_cast<U32>(number)).change();
    return (list == HistoryList::own ? impl_->own : impl_->asked).change(number).change();
}

std::optional<String> const& WriteHistory::place(U64 number) const { return impl_->asked.change(number).place; }

std::size_t WriteHistory::size(HistoryList list) const {
    if (list == HistoryList::last) return impl_->last.size();
    return (list == HistoryList::own ? impl_->own : impl_->asked).size();
}

}  // namespace Vel
