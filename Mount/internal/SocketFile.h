#pragma once

#include "Mount/internal/Socket.h"

#include <utility>

namespace Mount {

// The file of a Unix socket that a server listens at.
//
// Whoever holds the lock on PATH.lock may put a socket at PATH. The system releases the lock when its holder ends,
// however that ends, so a lock's file that was left behind means nothing. The socket listens before it gets its name:
// what is at PATH can be connected to at any time, or is left behind.
class SocketFile {
public:
    // Takes the lock, and writes into its file whose it is. Throws ErrnoException that names the address, and the
    // process that holds the lock, or the lock's file if that is at fault.
    explicit SocketFile(Address const& address);
    SocketFile(SocketFile const&) = delete;
    SocketFile& operator=(SocketFile const&) = delete;
    ~SocketFile();  // takes both files away, unless somebody else has made others since

    // Gives the socket the name, instead of one that was left behind, or taken away. Throws ErrnoException that names
    // the address.
    void listen(int socket, U32 mode);
    // Whether somebody has taken the socket's file away; whatever else stands there is not ours to replace.
    bool isGone() const;
    bool hasLock() const;  // the lock's file is still there, too

private:
    using FileId = std::pair<dev_t, ino_t>;

    [[noreturn]] void fail(int error, String const& path) const;
    [[noreturn]] void failInUse() const;
    bool isFree(String const& path) const;

    String path_;
    String lockPath_;
    Descriptor lock_;
    FileId socketId_{};
};

}  // namespace Mount
