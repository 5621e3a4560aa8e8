#include "Mount/History.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"

namespace Mount {

Change::Change(Vel::WriteHistory::Change const& change)
    : time_(change.time),
      author_(change.author),
      path_(change.path),
      attribute_(change.attribute),
      key_(change.key),
      before_(change.before),
      wanted_(change.wanted),
      result_(Vel::writeResultName(change.result)),
      text_(change.text) {}

History::History(String const& name) : EntityOf(name) {}

History::~History() {
    if (kept_) kept_->onChangeIs(this, nullptr);
}

Vel::Ptr<History> History::of(std::shared_ptr<Vel::WriteHistory> kept, String const& name) {
    return of(std::move(kept), name, nullptr);
}

Vel::Ptr<History> History::of(std::shared_ptr<Vel::WriteHistory> kept, String const& name, Filter mayRead) {
    auto const made = newEntity(name);
    made->kept_ = std::move(kept);
    made->mayRead_ = std::move(mayRead);
    made->kept_->onChangeIs(made.get(), [history = made.get()](List list, U64 number) { history->told(list, number); });
    Vel::WriteHistory const& all = *made->kept_;
    for (U64 number = all.begin(); made->mayRead_ && number < all.end(); ++number)
        if (all.has(number) && made->mayRead_(all.place(number))) made->shown_.push_back(number);
    return made;
}

void History::notify(List list, U64 number) const {
    switch (list) {
    case List::asked:
        return velNotify<"change">(number);
    case List::own:
        return velNotify<"own">(number);
    case List::last:
        return velNotify<"last">(number);
    }
}

// Tells of the new change, and of the one whose place it has taken.
void History::told(List list, U64 number) {
    if (mayRead_) return list == List::asked ? toldFiltered(number) : void();
    std::size_t const size = kept_->size(list);
    if (list != List::last && number >= size) notify(list, number - size);
    notify(list, number);
}

void History::toldFiltered(U64 number) {
    while (!shown_.empty() && shown_.front() < kept_->begin()) {
        shown_.pop_front();
        notify(List::asked, firstShown_++);
    }
    if (!mayRead_(kept_->place(number))) return;
    shown_.push_back(number);
    notify(List::asked, firstShown_ + shown_.size() - 1);
}

std::optional<U64> History::keptNumber(List list, U64 number) const {
    if (!mayRead_) return kept_->has(number, list) ? std::optional(number) : std::nullopt;
    if (list != List::asked || number < firstShown_ || number - firstShown_ >= shown_.size()) return std::nullopt;
    U64 const kept = shown_[static_cast<std::size_t>(number - firstShown_)];
    return kept_->has(kept) ? std::optional(kept) : std::nullopt;
}

Change History::change(List list, U64 number) const {
    if (kept_) {
        std::optional<U64> const kept = keptNumber(list, number);
        return kept ? Change(kept_->change(*kept, list)) : Change();
    }
    auto const& changes = changes_[static_cast<std::size_t>(list)];
    auto const found = changes.find(number);
    return found == changes.end() ? Change() : found->second;
}

bool History::changeExists(List list, U64 number) const {
    return kept_ ? keptNumber(list, number).has_value() : changes_[static_cast<std::size_t>(list)].contains(number);
}

void History::visitChanges(List list, std::function<void(U64)> const& visit) const {
    for (auto const& [number, change] : changes_[static_cast<std::size_t>(list)]) visit(number);
    if (!kept_) return;
    U64 const begin = mayRead_ ? firstShown_ : kept_->begin(list);
    U64 const end = mayRead_ ? firstShown_ + shown_.size() : kept_->end(list);
    for (U64 number = begin; number < end; ++number)
        if (keptNumber(list, number)) visit(number);
}

void History::needCopy() const {
    if (kept_) throw Vel::ReadOnlyException("nobody can change what has happened");
}

void History::changeIs(List list, U64 number, Change const& change) {
    needCopy();
    changes_[static_cast<std::size_t>(list)][number] = change;
    notify(list, number);
}

void History::changeDel(List list, U64 number) {
    needCopy();
    if (changes_[static_cast<std::size_t>(list)].erase(number) != 0) notify(list, number);
}

}  // namespace Mount

VEL_MODULE(MountHistory, 5b175c3f50aa7255, Mount::Change, Mount::History);
