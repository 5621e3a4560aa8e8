#include "Mox/internal/ActiveCell.h"

#include "Mox/internal/CellDir.h"
#include "Mox/internal/CellFacts.h"
#include "Mox/internal/CellTrace.h"

#include "Redundancy/RedundancyStatus.h"

#include "Vel/base/System.h"
#include "Vel/entity/Dir.h"

#include <cstdlib>

namespace Cell {

namespace {

constexpr char resolver[] = "Cell_activeCellId";

std::optional<Vel::U32> activeCellFromRedundancyStatus(Source* from) {
    std::string const root = "/" + std::string(systemName()) + "/Zendb/";
    Vel::U32 const own = from ? Explained::cellId(*from) : cellId();
    Vel::String const path = Vel::String(root) + Vel::format("cell/%u/%s", own, "redundancy/status");
    auto const status = Vel::ptr_cast<Redundancy::RedundancyStatus>(Vel::globalDir()->entity(path));
    trace(126, resolver, "Cell_activeCellId", " RedundancyStatus is: ", status);
    if (!status || status->activeCellId() == Redundancy::RedundancyStatus::unknownCell) return std::nullopt;
    trace(129, resolver, "Cell_activeCellId", "Found active cellId from RedundancyStatus");
    if (from) *from = {.kind = Source::Kind::redundancyStatus, .path = path.stdString()};
    return status->activeCellId();
}

// The election manager's files give the mode of this cell and of its peer. If both say active, the answer is the peer.
CellId activeCellFromModeFiles(Source* from) {
    char const* local = Vel::System::calls().getenv("REDSUPDUT_LOCAL_REDMODE");
    char const* peer = Vel::System::calls().getenv("REDSUPDUT_PEER_REDMODE");
    if (!local || !peer) {
        local = "/sys/quelto/election_manager/local_redundancy_mode";
        peer = "/sys/quelto/election_manager/peer_redundancy_mode";
    }
    trace(146, resolver, "Cell_activeCellId", " Reading active cellId from ", local);
    CellId const own(static_cast<Vel::U16>(Cell_cellId(from)));
    CellId const other(static_cast<Vel::U16>(3 - own.value()));  // the cells of a pair are 1 and 2
    if (from) *from = {.kind = Source::Kind::ownCell};
    File const localFile(local, from);
    if (localFile.isOpen()) {
        File const peerFile(peer, from);
        if (peerFile.isOpen()) {
            if (from) from->kind = Source::Kind::modeFiles;
            auto const localText = localFile.read();
            if (localText.untilNul() != "active") {
                trace(166, resolver, "Cell_activeCellId", " Read ", localText.bytes, " in ", local);
                return other;
            }
            auto const peerText = peerFile.read();
            if (peerText.untilNul() != "active") return own;
            trace(183, resolver, "Cell_activeCellId", " Read ", peerText.bytes, " in ", peer);
            return other;
        }
    }
    trace(189, resolver, "Cell_activeCellId", "Did not find active cellId, returning own cellId");
    return own;
}

}  // namespace

CellId Cell_activeCellId(Source* from) {
    trace(110, resolver, "Cell::CellId Cell_activeCellId()");
    if (char const* const text = variable("ACTIVE_CELLID", from)) {
        // Not validated: the variable overrides everything, whatever it holds.
        auto const value = std::strtol(text, nullptr, 10);
        trace(114, resolver, "Found active cellId from ACTIVE_CELLID env var");
        return CellId(static_cast<Vel::U16>(value));
    }
    if (auto const id = activeCellFromRedundancyStatus(from)) return CellId(static_cast<Vel::U16>(*id));
    return activeCellFromModeFiles(from);
}

}  // namespace Cell
