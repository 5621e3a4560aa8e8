#include "Mox/Cell.h"

#include "Mox/internal/ActiveCell.h"
#include "Mox/internal/CellDir.h"
#include "Mox/internal/CellFacts.h"
#include "Mox/internal/CellTrace.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/entity/ActivityManager.h"
#include "Vel/entity/Dir.h"

#include <atomic>
#include <typeinfo>

namespace Cell {

constinit Vel::TraceHandle traceHandle("Cell");

// --- the process's status ---

std::string_view systemName() {
    Vel::String const& name = Vel::activityManager().systemName();
    return name.empty() ? std::string_view("ql") : name.view();
}

namespace {

[[noreturn]] VEL_COLD void throwNoStatus() {
    Vel::String const system = "/" + Vel::String(systemName());
    bool const isDir = Vel::ptr_cast<Vel::Dir>(Vel::globalDir()->entity(system)) != nullptr;
    throw Vel::TypeException(system + (isDir ? "/cell is no Cell::Status" : " is no Vel::Dir"));
}

// Returns the process's status. Throws Vel::TypeException if an entity of another type is at its path.
Vel::Ptr<Status> neededStatus() {
    auto status = cellDir();
    if (!status) throwNoStatus();
    return status;
}

// The status that the last look-up found, and what that look-up has read: the system's name, the entries of the root,
// and those of the system's directory. Each of them counts its changes. While no count has changed, a look-up would find
// the same again, and the root and the directory hold the two entities. So the record holds no references, and nobody
// has to tell it that an entity is gone. (A count that changes 2^32 times between two calls would hide a change.)
//
// Threads may find the status at the same time. A thread that writes makes `turn_` odd meanwhile; a thread that has read
// while another wrote looks the status up itself.
class KnownStatus {
public:
    // Returns the status, or null if it has to be looked up.
    Status* status() const noexcept {
        Vel::U32 const turn = turn_.load(std::memory_order_acquire) & ~1u;  // never equal again if a thread writes
        auto const* const manager = manager_.load(std::memory_order_relaxed);
        auto const* const root = root_.load(std::memory_order_relaxed);
        auto const* const system = system_.load(std::memory_order_relaxed);
        Status* const status = status_.load(std::memory_order_relaxed);
        Vel::U64 const changes = changes_.load(std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_acquire);
        if (!status || turn != turn_.load(std::memory_order_relaxed)) return nullptr;
        // In this order: the root holds the directory only if its own entries are as they were.
        if (changesAbove(*manager, *root) != static_cast<Vel::U32>(changes)) return nullptr;
        return system->entryChangeCounter() == changes >> 32 ? status : nullptr;
    }

    void statusIs(Vel::Dir const& root, Vel::Dir const& system, Status& status) noexcept {
        Vel::U32 turn = turn_.load(std::memory_order_relaxed);
        if (turn % 2 == 1 || !turn_.compare_exchange_strong(turn, turn + 1, std::memory_order_acquire)) return;
        std::atomic_thread_fence(std::memory_order_release);
        Vel::ActivityManager const& manager = Vel::activityManager();
        manager_.store(&manager, std::memory_order_relaxed);
        root_.store(&root, std::memory_order_relaxed);
        system_.store(&system, std::memory_order_relaxed);
        status_.store(&status, std::memory_order_relaxed);
        Vel::U64 const changes = changesAbove(manager, root) | Vel::U64(system.entryChangeCounter()) << 32;
        changes_.store(changes, std::memory_order_relaxed);
        turn_.store(turn + 2, std::memory_order_release);
    }

private:
    // Counts only go up, so the sum stays the same only if both do.
    static Vel::U32 changesAbove(Vel::ActivityManager const& manager, Vel::Dir const& root) noexcept {
        return manager.changes() + root.entryChangeCounter();
    }

    alignas(64) std::atomic<Vel::U32> turn_ = 0;  // odd while a thread writes
    std::atomic<Vel::U64> changes_ = 0;  // lower half: the sum above; upper half: those of the system's directory
    std::atomic<Vel::ActivityManager const*> manager_ = nullptr;
    std::atomic<Vel::Dir const*> root_ = nullptr;
    std::atomic<Vel::Dir const*> system_ = nullptr;
    std::atomic<Status*> status_ = nullptr;  // null until the first look-up
};

constinit KnownStatus knownStatus;

}  // namespace

Vel::Ptr<Status> cellDir() {
    if (Status* const known = knownStatus.status()) return known;
    auto const root = Vel::globalDir();
    auto const system = Vel::ptr_cast<Vel::Dir>(root->createEntity("Vel::Dir", systemName()));
    auto const status = system ? Vel::ptr_cast<Status>(system->createEntity("Cell::Status", "cell")) : nullptr;
    // A class derived from the directory may find children where it counts no changes.
    auto const* const plain = system.get();
    if (status && typeid(*plain) == typeid(Vel::Dir)) knownStatus.statusIs(*root, *system, *status);
    return status;
}

// --- Cell::Status ---

Status::Status(Vel::String const& name) : EntityOf(name) {}
Status::~Status() = default;

Vel::Ptr<Status> Status::StatusIs(Vel::String const& name) { return statusFactory(name); }
Vel::Ptr<Status> statusFactory(Vel::String const& name) { return Status::newEntity(name); }

CellId Status::cellId() const { return cellIdFrom(nullptr); }
CellId Status::activeCellId() const { return activeCellIdFrom(nullptr); }
Vel::String Status::cellType() const { return cellTypeFrom(nullptr); }
Vel::String Status::product() const { return productFrom(nullptr); }
bool Status::electionMgrSupported() const { return electionMgrSupportedFrom(nullptr); }
bool Status::cpuBmcMode() const { return cpuBmcModeFrom(nullptr); }

CellId Status::cellIdFrom(Source* from) const {
    if (cellId_.value() == 0) velCache<&Status::cellId_>(CellId(static_cast<Vel::U16>(Cell_cellId(from))));
    return cellId_;
}

CellId Status::activeCellIdFrom(Source* from) const {
    velCache<&Status::activeCellId_>(Cell_activeCellId(from));
    trace(402, "activeCellId", "Cell::CellId Cell::Status::activeCellId() const", " returning ",
        Vel::U32(activeCellId_.value()));
    return activeCellId_;
}

Vel::String Status::cellTypeFrom(Source* from) const {
    if (cellType_.empty()) velCache<&Status::cellType_>(Cell_cellType(from));
    return cellType_;
}

Vel::String Status::productFrom(Source* from) const {
    if (product_.empty()) velCache<&Status::product_>(Cell_product(from));
    return product_;
}

bool Status::electionMgrSupportedFrom(Source* from) const {
    if (!electionMgrSupportedInitialized_) {
        velCache<&Status::electionMgrSupported_>(Cell_electionMgrSupported(from));
        velCache<&Status::electionMgrSupportedInitialized_>(true);
    }
    return electionMgrSupported_;
}

bool Status::cpuBmcModeFrom(Source* from) const {
    if (!cpuBmcModeInitialized_) {
        velCache<&Status::cpuBmcMode_>(Cell_cpuBmcMode(from));
        velCache<&Status::cpuBmcModeInitialized_>(true);
    }
    return cpuBmcMode_;
}

// --- the process's facts ---

namespace {

Vel::U32 tracedActiveCell(CellId active) {
    Vel::U32 const id = active.value();
    trace(365, "activeCellId", "U32 Cell::activeCellId()", " returning ", id);
    return id;
}

}  // namespace

Vel::U32 cellId() {
    if (Status const* const known = knownStatus.status(); known && known->cellId_.value() != 0) [[likely]]
        return known->cellId_.value();
    return neededStatus()->cellId().value();
}

Vel::U32 activeCellId() { return tracedActiveCell(neededStatus()->activeCellId()); }
Vel::String cellType() { return neededStatus()->cellType(); }
Vel::String product() { return neededStatus()->product(); }
bool electionMgrSupported() { return neededStatus()->electionMgrSupported(); }
bool cpuBmcMode() { return neededStatus()->cpuBmcMode(); }

namespace {

// Resets `from` to Kind::status, which stays if the status has the answer cached.
Source* anew(Source& from) {
    from = Source();
    return &from;
}

}  // namespace

Vel::U32 Explained::cellId(Source& from) { return neededStatus()->cellIdFrom(anew(from)).value(); }
Vel::U32 Explained::activeCellId(Source& from) {
    return tracedActiveCell(neededStatus()->activeCellIdFrom(anew(from)));
}
Vel::String Explained::cellType(Source& from) { return neededStatus()->cellTypeFrom(anew(from)); }
Vel::String Explained::product(Source& from) { return neededStatus()->productFrom(anew(from)); }
bool Explained::electionMgrSupported(Source& from) { return neededStatus()->electionMgrSupportedFrom(anew(from)); }
bool Explained::cpuBmcMode(Source& from) { return neededStatus()->cpuBmcModeFrom(anew(from)); }

Vel::String path(char const* name, unsigned int cellId) {
    return Vel::format("cell/%u/%s", cellId == 0 ? Cell::cellId() : cellId, name);
}

Vel::String mountpath(char const* name, unsigned int cellId) { return path(name, cellId); }

}  // namespace Cell

VEL_MODULE(Cell, 19cb44e4cf43408a, Cell::CellId, Cell::Status);
