#pragma once

#include "Vel/describe/Value.h"
#include "Vel/entity/Entity.h"

// Who this process is: the supervisor cell it runs on, what that cell is, and which cell is active.
//
// Each fact comes from an environment variable if that is set, else from a small file, else from a default:
//
//     fact                        variable               file                       default
//     cell id                     CELLID                 /etc/cellid                42
//     cell type                   CELLTYPE               /etc/celltype              "generic"
//     product                     PRODUCT                /etc/product               "generic"
//     election manager supported  ELECTIONMGRSUPPORTED   /etc/electionMgrSupported  false
//     CPU/BMC mode                CPUBMCMODE             /etc/cpuBmcMode            false
//
// At most 32 bytes of a file are read, by one read. They are taken as they are: a trailing newline is part of the text.
// The facts are read on first use and cached in the process's Cell::Status; the active cell is resolved on every call.
// Threads: nothing is locked. Two threads that fill the cache at once read the same sources, so they store the same
// value.
namespace Cell {

using Vel::valueToStrep;
using Vel::operator<<;

// Number of a supervisor cell; 0 is invalid.
class VEL_API CellId {
public:
    constexpr CellId() = default;
    constexpr CellId(Vel::U16 value) : value_(value) {}
    CellId(Vel::String::IteratorConst& it, Vel::String::IteratorConst const& end) { Vel::parse(*this, it, end); }
    CellId(Vel::NboAttrLog::In* in, Vel::StreamBogon) { Vel::read(*this, *in); }

    static constexpr Vel::U16 max() { return 65535; }

    constexpr Vel::U16 value() const { return value_; }
    constexpr Vel::U32 hash() const { return value_; }
    constexpr Vel::U32 hash(unsigned) const { return value_; }  // ignores the seed

    friend constexpr bool operator==(CellId, CellId) = default;
    friend constexpr auto operator<=>(CellId, CellId) = default;

    static constexpr auto description() {
        constexpr Vel::U32 (CellId::*plainHash)() const = &CellId::hash;
        constexpr Vel::U32 (CellId::*seededHash)(unsigned) const = &CellId::hash;
        return Vel::number("Cell::CellId", Vel::readOnlyField<&CellId::value_>("value"),
            Vel::constant<&CellId::max>("max"), Vel::derived<&CellId::value>("id"), Vel::method<plainHash>("hash"))
            .with(Vel::ordered, Vel::hashBy<seededHash>);
    }

private:
    Vel::U16 value_ = 0;
};

struct Source;  // where an answer comes from, in CellSource.h
VEL_API Vel::U32 cellId();

// The process's cache of its identity, at /<system>/cell in its directory tree. An accessor reads a fact that is not
// cached yet, and throws as the free functions below do; such a read notifies no observer. A mutator overrides what was
// read, and notifies the observers of the attribute if the value changes.
class VEL_API Status : public Vel::EntityOf<Status> {
public:
    explicit Status(Vel::String const& name);
    ~Status() override;
    static Vel::Ptr<Status> StatusIs(Vel::String const& name);  // the same as statusFactory()

    CellId cellId() const;         // while the cached value is 0, read on every call
    CellId activeCellId() const;   // resolved on every call; the attribute records the answer
    Vel::String cellType() const;  // while the cached value is empty, read on every call
    Vel::String product() const;   // while the cached value is empty, read on every call
    bool electionMgrSupported() const;
    bool electionMgrSupportedInitialized() const { return electionMgrSupportedInitialized_; }
    bool cpuBmcMode() const;
    bool cpuBmcModeInitialized() const { return cpuBmcModeInitialized_; }

    void cellIdIs(CellId v) const { velSet<&Status::cellId_>(v); }
    void activeCellIdIs(CellId v) const { velSet<&Status::activeCellId_>(v); }
    void cellTypeIs(Vel::String const& v) const { velSet<&Status::cellType_>(v); }
    void productIs(Vel::String const& v) const { velSet<&Status::product_>(v); }
    void electionMgrSupportedIs(bool v) const { velSet<&Status::electionMgrSupported_>(v); }
    void electionMgrSupportedInitializedIs(bool v) const { velSet<&Status::electionMgrSupportedInitialized_>(v); }
    void cpuBmcModeIs(bool v) const { velSet<&Status::cpuBmcMode_>(v); }
    void cpuBmcModeInitializedIs(bool v) const { velSet<&Status::cpuBmcModeInitialized_>(v); }

    static constexpr auto description() {
        using Vel::attribute;
        return Vel::entity("Cell::Status",
            attribute<&Status::cellId_, &Status::cellId, &Status::cellIdIs>("cellId"),  // 258
            attribute<&Status::activeCellId_, &Status::activeCellId, &Status::activeCellIdIs>("activeCellId"),
            attribute<&Status::cellType_, &Status::cellType, &Status::cellTypeIs>("cellType"),
            attribute<&Status::product_, &Status::product, &Status::productIs>("product"),
            attribute<&Status::electionMgrSupported_, &Status::electionMgrSupported, &Status::electionMgrSupportedIs>(
                "electionMgrSupported"),
            attribute<&Status::electionMgrSupportedInitialized_, &Status::electionMgrSupportedInitialized,
                &Status::electionMgrSupportedInitializedIs>("electionMgrSupportedInitialized"),
            attribute<&Status::cpuBmcMode_, &Status::cpuBmcMode, &Status::cpuBmcModeIs>("cpuBmcMode"),
            attribute<&Status::cpuBmcModeInitialized_, &Status::cpuBmcModeInitialized,
                &Status::cpuBmcModeInitializedIs>("cpuBmcModeInitialized"));  // 265
    }

private:
    friend struct Explained;
    friend Vel::U32 cellId();

    // Do the work of the accessors. Set `from`, unless it is null, to where the answer comes from.
    CellId cellIdFrom(Source* from) const;
    CellId activeCellIdFrom(Source* from) const;
    Vel::String cellTypeFrom(Source* from) const;
    Vel::String productFrom(Source* from) const;
    bool electionMgrSupportedFrom(Source* from) const;
    bool cpuBmcModeFrom(Source* from) const;

    CellId cellId_;        // 0: not read yet
    CellId activeCellId_;  // the last answer
    Vel::String cellType_;
    Vel::String product_;
    bool electionMgrSupported_ = false;
    bool electionMgrSupportedInitialized_ = false;
    bool cpuBmcMode_ = false;
    bool cpuBmcModeInitialized_ = false;
};

VEL_API Vel::Ptr<Status> statusFactory(Vel::String const& name);

// Return the facts, through the process's Cell::Status. All throw Vel::ErrnoException if a file exists but can't be
// opened or read. Then nothing is cached, and the next call tries again.
VEL_API Vel::U32 cellId();  // [0, 65536). Vel::RangeException if the variable or file holds no such number
VEL_API Vel::String cellType();
VEL_API Vel::String product();
VEL_API bool electionMgrSupported();  // Vel::ErrnoException(EINVAL) unless the variable or file holds TRUE or FALSE
VEL_API bool cpuBmcMode();            // the same

// Returns the active cell, [0, 65536). Asks in this order: the variable ACTIVE_CELLID; the redundancy status of the own
// cell, if it knows; the election manager's two mode files. If nothing of that is there, returns the own cell.
VEL_API Vel::U32 activeCellId();

// Return the path of one cell's state below a database root such as "/ql/Zendb/": "cell/<cell id>/<name>". Cell id 0
// stands for the own cell. mountpath() returns the same as path().
VEL_API Vel::String path(char const* name, unsigned int cellId);
VEL_API Vel::String mountpath(char const* name, unsigned int cellId);

}  // namespace Cell
