#include "Mox/Cell.h"

#include "Mox/internal/ActiveCell.h"
#include "Mox/internal/CellDir.h"
#include "Mox/internal/CellFacts.h"
#include "Mox/internal/CellTrace.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/entity/ActivityManager.h"
#include "Vel/entity/Dir.h"

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

}  // namespace

Vel::Ptr<Status> cellDir() {
    auto const system = Vel::ptr_cast<Vel::Dir>(Vel::globalDir()->createEntity("Vel::Dir", systemName()));
    return system ? Vel::ptr_cast<Status>(system->createEntity("Cell::Status", "cell")) : nullptr;
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

Vel::U32 cellId() { return neededStatus()->cellId().value(); }
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
