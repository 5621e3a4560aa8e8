#pragma once

#include "Vel/entity/Entity.h"

namespace Mount {

using Vel::String;
using Vel::U32;
using Vel::U64;

// What a server has done so far. The server updates it about once a second. It may be served like any other entity.
class VEL_API ServerStatus : public Vel::EntityOf<ServerStatus> {
public:
    explicit ServerStatus(String const& name);
    ~ServerStatus() override;

    String address() const { return address_; }  // the addresses at which it listens, separated by blanks
    void addressIs(String const& v) { velSet<&ServerStatus::address_>(v); }
    U32 connections() const { return connections_; }  // now
    void connectionsIs(U32 v) { velSet<&ServerStatus::connections_>(v); }
    U64 accepted() const { return accepted_; }  // all connections so far
    void acceptedIs(U64 v) { velSet<&ServerStatus::accepted_>(v); }
    // Connections that the server ended: for who they were, for what they asked, or to make room for others.
    U64 refused() const { return refused_; }
    void refusedIs(U64 v) { velSet<&ServerStatus::refused_>(v); }
    U64 failed() const { return failed_; }  // connections that ended by any other error
    void failedIs(U64 v) { velSet<&ServerStatus::failed_>(v); }
    U64 bytesIn() const { return bytesIn_; }
    void bytesInIs(U64 v) { velSet<&ServerStatus::bytesIn_>(v); }
    U64 bytesOut() const { return bytesOut_; }
    void bytesOutIs(U64 v) { velSet<&ServerStatus::bytesOut_>(v); }
    U64 coalesced() const { return coalesced_; }  // changes that slow readers skipped, since newer ones replaced them
    void coalescedIs(U64 v) { velSet<&ServerStatus::coalesced_>(v); }
    String error() const { return error_; }  // the last error of a connection or of a socket's file
    void errorIs(String const& v) { velSet<&ServerStatus::error_>(v); }

    static constexpr auto description();

private:
    String address_;
    U32 connections_ = 0;
    U64 accepted_ = 0;
    U64 refused_ = 0;
    U64 failed_ = 0;
    U64 bytesIn_ = 0;
    U64 bytesOut_ = 0;
    U64 coalesced_ = 0;
    String error_;
};

// What a client has done so far. The client updates it about once a second, and when its state changes.
class VEL_API ClientStatus : public Vel::EntityOf<ClientStatus> {
public:
    explicit ClientStatus(String const& name);
    ~ClientStatus() override;

    String address() const { return address_; }
    void addressIs(String const& v) { velSet<&ClientStatus::address_>(v); }
    String path() const { return path_; }
    void pathIs(String const& v) { velSet<&ClientStatus::path_>(v); }
    String state() const { return state_; }  // "empty", "syncing", "synced", "stale"
    void stateIs(String const& v) { velSet<&ClientStatus::state_>(v); }
    U64 attempts() const { return attempts_; }  // to connect
    void attemptsIs(U64 v) { velSet<&ClientStatus::attempts_>(v); }
    U64 connects() const { return connects_; }  // that led to a connection
    void connectsIs(U64 v) { velSet<&ClientStatus::connects_>(v); }
    U64 bytesIn() const { return bytesIn_; }
    void bytesInIs(U64 v) { velSet<&ClientStatus::bytesIn_>(v); }
    U64 bytesOut() const { return bytesOut_; }
    void bytesOutIs(U64 v) { velSet<&ClientStatus::bytesOut_>(v); }
    U64 messages() const { return messages_; }  // that were received and applied
    void messagesIs(U64 v) { velSet<&ClientStatus::messages_>(v); }
    U64 entities() const { return entities_; }  // of the copy, now
    void entitiesIs(U64 v) { velSet<&ClientStatus::entities_>(v); }
    String error() const { return error_; }  // why the last attempt failed; empty once synced
    void errorIs(String const& v) { velSet<&ClientStatus::error_>(v); }

    static constexpr auto description();

private:
    String address_;
    String path_;
    String state_;
    U64 attempts_ = 0;
    U64 connects_ = 0;
    U64 bytesIn_ = 0;
    U64 bytesOut_ = 0;
    U64 messages_ = 0;
    U64 entities_ = 0;
    String error_;
};

constexpr auto ServerStatus::description() {
    using S = ServerStatus;
    return Vel::entity("Mount::ServerStatus", Vel::attribute<&S::address_, &S::address, &S::addressIs>("address"),
        Vel::attribute<&S::connections_, &S::connections, &S::connectionsIs>("connections"),
        Vel::attribute<&S::accepted_, &S::accepted, &S::acceptedIs>("accepted"),
        Vel::attribute<&S::refused_, &S::refused, &S::refusedIs>("refused"),
        Vel::attribute<&S::failed_, &S::failed, &S::failedIs>("failed"),
        Vel::attribute<&S::bytesIn_, &S::bytesIn, &S::bytesInIs>("bytesIn"),
        Vel::attribute<&S::bytesOut_, &S::bytesOut, &S::bytesOutIs>("bytesOut"),
        Vel::attribute<&S::coalesced_, &S::coalesced, &S::coalescedIs>("coalesced"),
        Vel::attribute<&S::error_, &S::error, &S::errorIs>("error"));
}

constexpr auto ClientStatus::description() {
    using S = ClientStatus;
    return Vel::entity("Mount::ClientStatus", Vel::attribute<&S::address_, &S::address, &S::addressIs>("address"),
        Vel::attribute<&S::path_, &S::path, &S::pathIs>("path"),
        Vel::attribute<&S::state_, &S::state, &S::stateIs>("state"),
        Vel::attribute<&S::attempts_, &S::attempts, &S::attemptsIs>("attempts"),
        Vel::attribute<&S::connects_, &S::connects, &S::connectsIs>("connects"),
        Vel::attribute<&S::bytesIn_, &S::bytesIn, &S::bytesInIs>("bytesIn"),
        Vel::attribute<&S::bytesOut_, &S::bytesOut, &S::bytesOutIs>("bytesOut"),
        Vel::attribute<&S::messages_, &S::messages, &S::messagesIs>("messages"),
        Vel::attribute<&S::entities_, &S::entities, &S::entitiesIs>("entities"),
        Vel::attribute<&S::error_, &S::error, &S::errorIs>("error"));
}

}  // namespace Mount
