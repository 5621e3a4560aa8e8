#include "Mount/internal/SocketFile.h"

#include "Vel/base/Exception.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <string>

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

// Opens the lock's file, and creates it only if it is missing: in a sticky folder such as /tmp, Linux can forbid to
// open another user's file with O_CREAT.
Descriptor openedLock(String const& path) {
    for (;;) {
        Descriptor there(::open(path.charPtr(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        if (there.get() >= 0 || errno != ENOENT) return there;
        Descriptor made(::open(path.charPtr(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (made.get() >= 0) ::fchmod(made.get(), 0600);  // the umask may have taken bits away
        if (made.get() >= 0 || errno != EEXIST) return made;
    }
}

// Writes this process's id into the lock's file, so that another server's error can name the process that holds it.
void writeHolder(int lock) {
    std::string const id = std::to_string(::getpid()) + "\n";
    if (::ftruncate(lock, 0) != 0) return;
    [[maybe_unused]] ssize_t const written = ::pwrite(lock, id.data(), id.size(), 0);
}

// Returns who holds the lock, by the process id in its file. Returns "another process" if that id is missing or its
// process has ended: the holder may have locked by other means, or may have inherited the lock from the process.
String holderOf(int lock) {
    char text[16];
    ssize_t const size = ::pread(lock, text, sizeof text, 0);
    pid_t id = 0;
    std::from_chars(text, text + std::max<ssize_t>(size, 0), id);
    bool const isThere = id > 0 && (::kill(id, 0) == 0 || errno == EPERM);
    return isThere ? String("process " + std::to_string(id)) : String("another process");
}

// Returns whether the file is a socket at which nobody listens: its owner is gone without having removed it. A file
// that is no socket also refuses connections, but it belongs to somebody, so it is checked first.
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
            if (!hasLock()) continue;  // the previous holder has just removed the file
            writeHolder(lock_.get());
            return;
        }
        if (errno == EINTR) continue;
        int const error = errno;
        if (error == EWOULDBLOCK) failInUse();
        fail(error, lockPath_);
    }
}

// Releases the lock explicitly: a process that was forked meanwhile shares it, so closing would not release it. That
// matters where the lock's file could not be removed.
SocketFile::~SocketFile() {
    if (socketId_.second != 0 && fileAt(path_) == socketId_) ::unlink(path_.charPtr());
    if (hasLock()) ::unlink(lockPath_.charPtr());
    ::flock(lock_.get(), LOCK_UN);
}

void SocketFile::fail(int error, String const& path) const { throw Vel::ErrnoException(error, "unix:" + path); }

void SocketFile::failInUse() const {
    String const holder = holderOf(lock_.get());
    throw Vel::ErrnoException(EADDRINUSE, "unix:" + path_,
        isGone()
            ? holder + " holds " + lockPath_ + ", though the socket is gone; nobody else can serve there until it ends"
            : holder + " serves there");
}

bool SocketFile::isGone() const { return fileAt(path_).second == 0; }

bool SocketFile::hasLock() const { return fileOf(lock_.get()) == fileAt(lockPath_); }

bool SocketFile::isFree(String const& path) const { return fileAt(path).second == 0 || isLeftBehind(path); }

void SocketFile::listen(int socket, U32 mode) {
    // If the path has no room for another byte, binds to it directly. Then a client may be refused between bind() and
    // listen(); other servers stay away, since they do not have the lock.
    bool const hasRoom = path_.size() + 1 < sizeof(sockaddr_un::sun_path);
    String const first = hasRoom ? path_ + "~" : path_;
    for (String const& path : {path_, first})
        if (!isFree(path)) fail(EADDRINUSE, path);
    ::unlink(first.charPtr());
    SocketAddress const where = unixAddress(first);
    if (::bind(socket, where.get(), where.length) != 0) fail(errno, path_);
    socketId_ = fileAt(first);
    // Nobody can connect before listen(), so no client ever connects under another mode.
    bool const listens = ::chmod(first.charPtr(), mode) == 0 && ::listen(socket, SOMAXCONN) == 0;
    if (listens && (!hasRoom || ::rename(first.charPtr(), path_.charPtr()) == 0)) return;
    int const error = errno;
    ::unlink(first.charPtr());
    fail(error, path_);
}

}  // namespace Mount
