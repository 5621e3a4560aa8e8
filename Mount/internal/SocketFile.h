#pragma once

#include "Mount/internal/Socket.h"

#include <utility>

namespace Mount {

// The file of a Unix socket that a server listens at.
//
// The process that holds the lock on PATH.lock may put a socket at PATH. The system releases the lock when that process
// ends, even if it is killed, so a lock's file that was left behind means nothing. The socket listens before it gets
// its name, so a socket at PATH either accepts connections or was left behind by a process that has ended.
class SocketFile {
public:
    // Takes the lock, and writes this process's id into its file. If another process holds the lock, throws
    // ErrnoException that names the address and that process. If the lock's file can't be opened, names that.
    explicit SocketFile(Address const& address);
    SocketFile(SocketFile const&) = delete;
    SocketFile& operator=(SocketFile const&) = delete;
    ~SocketFile();  // removes both files, unless somebody has replaced them since

    // Makes the socket listen, and puts it at PATH, where it replaces a socket that was left behind. Throws
    // ErrnoException that names the address.
    void listen(int socket, U32 mode);
    // Whether no file is at PATH any more. If another file is there, it belongs to somebody: that returns false.
    bool isGone() const;
    bool hasLock() const;  // whether the file at PATH.lock is still the one that is locked

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
