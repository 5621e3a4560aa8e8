#include "Mount/internal/SocketFile.h"

#include "Vel/base/Exception.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace Mount {

namespace {

std::pair<dev_t, ino_t> idOf(struct stat const& found) { return {found.st_dev, found.st_ino}; }

std::pair<dev_t, ino_t> fileAt(String const& path) {
    struct stat found {};
    return ::lstat(path.charPtr(), &found) == 0 ? idOf(found) : std::pair<dev_t, ino_t>();
}

std::pair<dev_t, ino_t> fileOf(int descriptor) {
    struct stat found {};
    return ::fstat(descriptor, &found) == 0 ? idOf(found) : std::pair<dev_t, ino_t>();
}

// Not created where it is there, since folders that belong to all forbid to open another user's file like that.
Descriptor openedLock(String const& path) {
    for (;;) {
        Descriptor there(::open(path.charPtr(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        if (there.get() >= 0 || errno != ENOENT) return there;
        Descriptor made(::open(path.charPtr(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (made.get() >= 0) ::fchmod(made.get(), 0600);  // whatever the mask
        if (made.get() >= 0 || errno != EEXIST) return made;
    }
}

// Nobody listens at a socket's file that refuses connections: its owner is gone without having removed it. So does any
// other file, which is somebody's.
bool isLeftBehind(String const& path) {
    struct stat found {};
    if (::lstat(path.charPtr(), &found) != 0 || !S_ISSOCK(found.st_mode)) return false;
    SocketAddress const where = unixAddress(path);
    Descriptor const probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    return probe.get() >= 0 && ::connect(probe.get(), where.get(), where.length) != 0 && errno == ECONNREFUSED;
}

}  // namespace

SocketFile::SocketFile(Address const& address) : path_(address.path()), lockPath_(address.path() + ".lock") {
    for (;;) {
        lock_ = openedLock(lockPath_);
        if (int const error = errno; lock_.get() < 0) fail(error, fileAt(lockPath_).second != 0 ? lockPath_ : path_);
        if (::flock(lock_.get(), LOCK_EX | LOCK_NB) == 0) {
            if (fileOf(lock_.get()) == fileAt(lockPath_)) return;
            continue;  // whoever held it has just taken the file away
        }
        if (errno == EINTR) continue;
        int const error = errno;
        lock_ = Descriptor();
        if (error == EWOULDBLOCK) fail(EADDRINUSE, path_);
        fail(error, lockPath_);
    }
}

// The lock is released, and not only closed: a process that was forked meanwhile has it, too, and the file may have to stay.
SocketFile::~SocketFile() {
    if (socketId_.second != 0 && fileAt(path_) == socketId_) ::unlink(path_.charPtr());
    if (fileOf(lock_.get()) == fileAt(lockPath_)) ::unlink(lockPath_.charPtr());
    ::flock(lock_.get(), LOCK_UN);
}

void SocketFile::fail(int error, String const& path) const { throw Vel::ErrnoException(error, "unix:" + path); }

bool SocketFile::isFree(String const& path) const { return fileAt(path).second == 0 || isLeftBehind(path); }

void SocketFile::listen(int socket, U32 mode) {
    // A path that has no room for another byte is bound to at once, which its clients may notice, but no other server.
    bool const hasRoom = path_.size() + 1 < sizeof(sockaddr_un::sun_path);
    String const first = hasRoom ? path_ + "~" : path_;
    for (String const& path : {path_, first})
        if (!isFree(path)) fail(EADDRINUSE, path);
    ::unlink(first.charPtr());
    SocketAddress const where = unixAddress(first);
    if (::bind(socket, where.get(), where.length) != 0) fail(errno, path_);
    socketId_ = fileAt(first);
    // Nobody can connect before it listens, so there is no moment with another mode.
    bool const listens = ::chmod(first.charPtr(), mode) == 0 && ::listen(socket, SOMAXCONN) == 0;
    if (listens && (!hasRoom || ::rename(first.charPtr(), path_.charPtr()) == 0)) return;
    int const error = errno;
    ::unlink(first.charPtr());
    fail(error, path_);
}

}  // namespace Mount
