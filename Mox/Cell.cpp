#include "Mox/Cell.h"

#include "Mox/internal/CellDir.h"

#include "Redundancy/RedundancyStatus.h"

#include "Vel/ActivityManager.h"
#include "Vel/Dir.h"
#include "Vel/Exception.h"
#include "Vel/Module.h"
#include "Vel/System.h"
#include "Vel/Trace.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>

#include <fcntl.h>

namespace Cell {

namespace {

constinit Vel::TraceHandle traceHandle("Cell");

// A record at level 0. The line numbers and texts are fixed, so that people and scripts can look for them.
template <class... Parts> void trace(unsigned line, char const* function, Parts const&... parts) {
    if (!traceHandle.enabled(0)) [[likely]]
        return;
    Vel::TraceHelper helper(traceHandle, 0, "/src/Mox/Cell", line, function);
    (helper.stream() << ... << parts);
}

// --- sources ---

constexpr std::size_t maxFileText = 32;  // bytes that are read of a file

class File {
public:
    explicit File(char const* path) : path_(path), file_(Vel::System::calls().open(path, O_RDONLY)), error_(errno) {}
    File(File const&) = delete;
    File& operator=(File const&) = delete;
    ~File() {
        if (isOpen()) Vel::System::calls().close(file_);
    }

    bool isOpen() const { return file_ >= 0; }
    int openError() const { return error_; }

    struct Text {
        char bytes[maxFileText + 1];  // ends with a NUL
        std::size_t size;             // without it
        std::string_view untilNul() const { return bytes; }
    };
    // What one read gives. Throws Vel::ErrnoException.
    Text read() const {
        Text text;
        ssize_t size = 0;
        do size = Vel::System::calls().read(file_, text.bytes, maxFileText);
        while (size < 0 && errno == EINTR);
        if (size < 0) throw Vel::ErrnoException(errno, path_);
        text.size = static_cast<std::size_t>(size);
        text.bytes[text.size] = '\0';
        return text;
    }

private:
    char const* path_;
    int file_;
    int error_;
};

// The text of a file; nothing when it does not exist.
std::optional<File::Text> fileText(char const* path) {
    File const file(path);
    if (file.isOpen()) return file.read();
    if (file.openError() == ENOENT) return std::nullopt;
    throw Vel::ErrnoException(file.openError(), path);
}

// A whole number from 0 to 65535 as the C library reads it in base 0, with nothing behind it.
std::optional<unsigned> cellIdFrom(char const* text, std::size_t size) {
    char* end = nullptr;
    auto const value = static_cast<unsigned long>(std::strtol(text, &end, 0));
    if (end == text || end != text + size || value > CellId::max()) return std::nullopt;
    return static_cast<unsigned>(value);
}

constexpr unsigned defaultCellId = 42;  // says that nothing was configured; no real slot has this number

unsigned Cell_cellId() {
    if (char const* const text = Vel::System::calls().getenv("CELLID")) {
        if (auto const id = cellIdFrom(text, std::strlen(text))) return *id;
        Vel::throwRangeException("CELLID did not contain a valid cell id");
    }
    auto const text = fileText("/etc/cellid");
    if (!text) return defaultCellId;
    if (auto const id = cellIdFrom(text->bytes, text->size)) return *id;
    Vel::throwRangeException("/etc/cellid did not contain a valid cell id");
}

Vel::String textFact(char const* variable, char const* path) {
    if (char const* const value = Vel::System::calls().getenv(variable)) return value;
    auto const text = fileText(path);
    return text ? Vel::String(text->untilNul()) : Vel::String("generic");
}

bool flagFrom(std::string_view text, char const* source) {
    if (text != "TRUE" && text != "FALSE") throw Vel::ErrnoException(EINVAL, source);
    return text != "FALSE";
}

bool flagFact(char const* variable, char const* path) {
    if (char const* const value = Vel::System::calls().getenv(variable)) return flagFrom(value, variable);
    auto const text = fileText(path);
    return text && flagFrom(text->untilNul(), path);
}

bool Cell_electionMgrSupported() { return flagFact("ELECTIONMGRSUPPORTED", "/etc/electionMgrSupported"); }
bool Cell_cpuBmcMode() { return flagFact("CPUBMCMODE", "/etc/cpuBmcMode"); }

// --- the active cell ---

std::string_view systemName() {
    Vel::String const& name = Vel::activityManager().systemName();
    return name.empty() ? std::string_view("ql") : name.view();
}

constexpr char resolver[] = "Cell_activeCellId";

std::optional<Vel::U32> activeCellFromRedundancyStatus() {
    std::string const root = "/" + std::string(systemName()) + "/Zendb/";
    Vel::String const relative = Vel::format("cell/%u/%s", cellId(), "redundancy/status");
    auto const status =
        Vel::ptr_cast<Redundancy::RedundancyStatus>(Vel::globalDir()->entity(Vel::String(root) + relative));
    trace(126, resolver, "Cell_activeCellId", " RedundancyStatus is: ", status);
    if (!status || status->activeCellId() == Redundancy::RedundancyStatus::unknownCell) return std::nullopt;
    trace(129, resolver, "Cell_activeCellId", "Found active cellId from RedundancyStatus");
    return status->activeCellId();
}

// The election manager's files say the mode of this cell and of its peer. When both say active, the peer counts.
CellId activeCellFromModeFiles() {
    char const* local = Vel::System::calls().getenv("REDSUPDUT_LOCAL_REDMODE");
    char const* peer = Vel::System::calls().getenv("REDSUPDUT_PEER_REDMODE");
    if (!local || !peer) {
        local = "/sys/quelto/election_manager/local_redundancy_mode";
        peer = "/sys/quelto/election_manager/peer_redundancy_mode";
    }
    trace(146, resolver, "Cell_activeCellId", " Reading active cellId from ", local);
    CellId const own(static_cast<Vel::U16>(Cell_cellId()));
    CellId const other(static_cast<Vel::U16>(3 - own.value()));  // the cells of a pair are 1 and 2
    File const localFile(local);
    if (localFile.isOpen()) {
        File const peerFile(peer);
        if (peerFile.isOpen()) {
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

CellId Cell_activeCellId() {
    trace(110, resolver, "Cell::CellId Cell_activeCellId()");
    if (char const* const text = Vel::System::calls().getenv("ACTIVE_CELLID")) {
        // Not validated: whoever sets this variable decides.
        auto const value = std::strtol(text, nullptr, 10);
        trace(114, resolver, "Found active cellId from ACTIVE_CELLID env var");
        return CellId(static_cast<Vel::U16>(value));
    }
    if (auto const id = activeCellFromRedundancyStatus()) return CellId(static_cast<Vel::U16>(*id));
    return activeCellFromModeFiles();
}

// --- the process's status ---

[[noreturn]] VEL_COLD void throwNoStatus() {
    Vel::String const system = "/" + Vel::String(systemName());
    bool const isDir = Vel::ptr_cast<Vel::Dir>(Vel::globalDir()->entity(system)) != nullptr;
    throw Vel::TypeException(system + (isDir ? "/cell is no Cell::Status" : " is no Vel::Dir"));
}

// For those that cannot do without. Throws Vel::TypeException.
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

CellId Status::cellId() const {
    if (cellId_.value() == 0) velCache<&Status::cellId_>(CellId(static_cast<Vel::U16>(Cell_cellId())));
    return cellId_;
}

CellId Status::activeCellId() const {
    velCache<&Status::activeCellId_>(Cell_activeCellId());
    trace(402, "activeCellId", "Cell::CellId Cell::Status::activeCellId() const", " returning ",
        Vel::U32(activeCellId_.value()));
    return activeCellId_;
}

Vel::String Status::cellType() const {
    if (cellType_.empty()) velCache<&Status::cellType_>(textFact("CELLTYPE", "/etc/celltype"));
    return cellType_;
}

Vel::String Status::product() const {
    if (product_.empty()) velCache<&Status::product_>(textFact("PRODUCT", "/etc/product"));
    return product_;
}

bool Status::electionMgrSupported() const {
    if (!electionMgrSupportedInitialized_) {
        velCache<&Status::electionMgrSupported_>(Cell_electionMgrSupported());
        velCache<&Status::electionMgrSupportedInitialized_>(true);
    }
    return electionMgrSupported_;
}

bool Status::cpuBmcMode() const {
    if (!cpuBmcModeInitialized_) {
        velCache<&Status::cpuBmcMode_>(Cell_cpuBmcMode());
        velCache<&Status::cpuBmcModeInitialized_>(true);
    }
    return cpuBmcMode_;
}

// --- the process's facts ---

Vel::U32 cellId() { return neededStatus()->cellId().value(); }
Vel::String cellType() { return neededStatus()->cellType(); }
Vel::String product() { return neededStatus()->product(); }
bool electionMgrSupported() { return neededStatus()->electionMgrSupported(); }
bool cpuBmcMode() { return neededStatus()->cpuBmcMode(); }

Vel::U32 activeCellId() {
    Vel::U32 const id = neededStatus()->activeCellId().value();
    trace(365, "activeCellId", "U32 Cell::activeCellId()", " returning ", id);
    return id;
}

Vel::String path(char const* name, unsigned int cellId) {
    return Vel::format("cell/%u/%s", cellId == 0 ? Cell::cellId() : cellId, name);
}

Vel::String mountpath(char const* name, unsigned int cellId) { return path(name, cellId); }

}  // namespace Cell

VEL_MODULE(Cell, 19cb44e4cf43408a, Cell::CellId, Cell::Status);
