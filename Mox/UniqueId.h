#pragma once

#include "Mox/Types.h"

namespace Mox {

// An identifier that a process mints without asking anybody: the time in whole seconds, the process id, and a number
// within that second. The ids that one process mints ascend. At most 65536 of them have the same time stamp; after
// that, or if the clock goes back, the time stamps run ahead of the clock, so that no id repeats. The time stamp
// overflows when 2^32 seconds have passed since 1970. The clock is the one of Vel::SystemCalls::currentSeconds(): quick,
// but late by up to one tick of the kernel, so an id that is minted right after a second began may have the one before.
//
// An id of all ones means "not yet minted". A constructor replaces it by a fresh id, except the one that reads from an
// attribute log.
//
// Threads: minting uses two process-wide variables without a lock; callers on several threads must take turns.
class VEL_API UniqueId {
public:
    UniqueId() { doInit(); }  // a fresh id
    UniqueId(U32 timestamp, U16 pid, U16 count) : timestamp_(timestamp), pid_(pid), count_(count) { doInit(); }
    UniqueId(StrepIterator& it, StrepIterator const& end) {
        Vel::parse(*this, it, end);
        doInit();
    }
    UniqueId(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    static UniqueId generateUniqueId() { return UniqueId(); }
    // The inverse of val(). Returns a fresh id if `val` is all ones.
    static UniqueId uniqueIdIs(U64 val) {
        return UniqueId(static_cast<U32>(val >> 32), static_cast<U16>(val >> 16), static_cast<U16>(val));
    }

    U32 timestamp() const { return timestamp_; }  // seconds since 1970-01-01 00:00 UTC, modulo 2^32
    U16 pid() const { return pid_; }              // low 16 bits of the minting process's id
    U16 count() const { return count_; }
    U64 val() const { return U64(timestamp_) << 32 | U64(pid_) << 16 | count_; }
    String toStrep() const;  // "timestamp 1700000000, pid 4242, count 0"

    void doInit() & {
        if (val() == ~U64(0)) mint();
    }
    U32 hash(unsigned seed) const;

    friend bool operator==(UniqueId const&, UniqueId const&) = default;
    friend auto operator<=>(UniqueId const&, UniqueId const&) = default;

    static constexpr auto description();

private:
    void mint();
    bool differsFromFresh() const { return !(*this == UniqueId()); }

    U32 timestamp_ = 0xFFFFFFFFu;
    U16 pid_ = 0xFFFFu;
    U16 count_ = 0xFFFFu;
};

constexpr auto UniqueId::description() {
    return Vel::record("Mox::UniqueId", Vel::readOnlyField<&UniqueId::timestamp_>("timestamp"),
        Vel::readOnlyField<&UniqueId::pid_>("pid"), Vel::readOnlyField<&UniqueId::count_>("count"),
        Vel::derived<&UniqueId::val>("val"), Vel::method<&UniqueId::doInit>("doInit"),
        Vel::method<&UniqueId::toStrep>("toStrep"), Vel::method<&UniqueId::generateUniqueId>("generateUniqueId"),
        Vel::method<&UniqueId::uniqueIdIs>("uniqueIdIs", "val"))
        // The truth test mints a fresh id and compares with it, so in practice it is true for every id.
        .with(Vel::truth<&UniqueId::differsFromFresh>, Vel::ordered, Vel::hashBy<&UniqueId::hash>,
            Vel::constructor<U32, U16, U16>);
}

inline U32 UniqueId::hash(unsigned seed) const { return Vel::hashFields(*this, seed); }

}  // namespace Mox
