#include "support/CallerFiles.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/fsuid.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

namespace Kestrel::Private {

namespace {

constexpr auto CopyBound = std::chrono::seconds(30);

// The calling thread's file-system identity switched to the caller's until
// the end of the scope. fsuid, fsgid and the raw setgroups system call are
// per thread (glibc's setgroups would change every thread of the process).
// With an fsuid other than 0 the kernel drops the file capabilities too.
class CallerIdentity {
public:
    explicit CallerIdentity(const CallerCredentials& caller)
    {
        if (caller.uid == ::geteuid())
            return;
        savedGroups.resize(::getgroups(0, nullptr));
        savedGroups.resize(::getgroups(savedGroups.size(), savedGroups.data()));
        switched = true;
        if (::syscall(SYS_setgroups, caller.groups.size(), caller.groups.data()) != 0) {
            const int error = errno;
            restore();
            throw std::system_error(error, std::generic_category(), "cannot take on the caller's groups");
        }
        ::setfsgid(caller.gid);
        ::setfsuid(caller.uid);
        // Both calls answer with the previous value; asking again tells whether they took.
        if (::setfsgid(-1) != static_cast<int>(caller.gid) || ::setfsuid(-1) != static_cast<int>(caller.uid)) {
            restore();
            throw std::runtime_error("cannot take on the caller's identity");
        }
    }
    ~CallerIdentity() { restore(); }
    CallerIdentity(const CallerIdentity&) = delete;
    CallerIdentity& operator=(const CallerIdentity&) = delete;

private:
    void restore()
    {
        if (!switched)
            return;
        ::setfsuid(::geteuid());
        ::setfsgid(::getegid());
        ::syscall(SYS_setgroups, savedGroups.size(), savedGroups.data());
        switched = false;
    }

    bool switched = false;
    std::vector<gid_t> savedGroups;
};

template <typename Operation>
auto asCaller(const CallerCredentials& caller, Operation&& operation)
{
    CallerIdentity identity(caller);
    return operation();
}

// Closes a descriptor that has not been handed on.
class Descriptor {
public:
    explicit Descriptor(int fd)
        : fd(fd)
    {
    }
    ~Descriptor()
    {
        if (fd >= 0)
            ::close(fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd; }
    int release() { return std::exchange(fd, -1); }

private:
    int fd;
};

// Resolves a caller's path without /proc magic links: /proc/PID/cwd, /root
// and /fd/N lead wherever that process is, which the caller's own rights
// would not reach (and /proc/self is the daemon). Ordinary symlinks stay.
int openWithoutMagicLinks(int directory, const char* path, int flags)
{
    open_how how{};
    how.flags = static_cast<__u64>(flags);
    how.resolve = RESOLVE_NO_MAGICLINKS;
    return static_cast<int>(::syscall(SYS_openat2, directory, path, &how, sizeof how));
}

std::runtime_error openFailure(const std::string& path, int error)
{
    if (error == ELOOP)
        return std::runtime_error("file " + path + " is reached through a /proc link or a symlink loop");
    if (error == ENOENT)
        return std::runtime_error("file " + path + " doesn't exist.");
    if (error == EACCES || error == EPERM)
        return std::runtime_error("permission denied: " + path);
    // Another program holds a lease on it; waiting for its break would hold the worker.
    if (error == EWOULDBLOCK)
        return std::runtime_error("file " + path + " is in use by another program");
    return std::runtime_error("file " + path + " cannot be opened: " + std::strerror(error));
}

// The kernel's own test for the directory (write and search, read-only
// mounts included), then the sticky rule, which no system call can be asked.
// The daemon holds no CAP_FOWNER, so ownership decides for root as well.
bool mayRemove(const CallerCredentials& caller, const Document& document)
{
    if (::faccessat(document.directory(), "", W_OK | X_OK, AT_EACCESS | AT_EMPTY_PATH) != 0)
        return false;
    struct stat directory {};
    struct stat entry {};
    if (::fstat(document.directory(), &directory) != 0
        || ::fstatat(document.directory(), document.name().c_str(), &entry, AT_SYMLINK_NOFOLLOW) != 0)
        return false;
    return !(directory.st_mode & S_ISVTX) || entry.st_uid == caller.uid || directory.st_uid == caller.uid;
}

} // namespace

CallerFiles::CallerFiles(CallerCredentials caller)
    : caller(std::move(caller))
{
}

Document CallerFiles::open(const std::string& path) const
{
    if (path.empty())
        throw openFailure(path, ENOENT);
    return asCaller(caller, [&] {
        const std::filesystem::path location(path);
        const auto parent = location.has_parent_path() ? location.parent_path().string() : ".";
        // A path ending in "/" names the directory itself.
        const auto name = location.has_filename() ? location.filename().string() : ".";
        Descriptor directory(openWithoutMagicLinks(AT_FDCWD, parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (directory.get() < 0)
            throw openFailure(path, errno);
        // O_PATH opens without reading: a FIFO or a device is never opened for real.
        const Descriptor found(openWithoutMagicLinks(directory.get(), name.c_str(), O_PATH | O_CLOEXEC));
        if (found.get() < 0)
            throw openFailure(path, errno);
        struct stat status {};
        if (::fstat(found.get(), &status) != 0)
            throw openFailure(path, errno);
        if (!S_ISREG(status.st_mode))
            throw std::runtime_error("file " + path + " is not a regular file");
        // Reopening the very file found, not the path, for reading: the
        // kernel checks the caller's read permission on it, and refuses
        // rather than waits when another program holds a lease on it.
        Descriptor file(::open(("/proc/self/fd/" + std::to_string(found.get())).c_str(),
                               O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
        if (file.get() < 0)
            throw openFailure(path, errno);
        if (status.st_size == 0)
            throw std::runtime_error("file " + path + " is empty");
        char signature[5] = {};
        if (::pread(file.get(), signature, sizeof signature, 0) != sizeof signature
            || std::memcmp(signature, "%PDF-", sizeof signature) != 0)
            throw std::runtime_error("file " + path + " is not a PDF document");
        return Document(path, directory.release(), name, file.release());
    });
}

Document CallerFiles::openRemovable(const std::string& path) const
{
    auto document = open(path);
    if (!asCaller(caller, [&] { return mayRemove(caller, document); }))
        throw std::runtime_error("file " + path + " cannot be removed by the caller after printing");
    return document;
}

Document CallerFiles::copy(const Document& document, const std::string& name) const
{
    const auto path = (std::filesystem::path(document.path()).parent_path() / name).string();
    return asCaller(caller, [&] {
        Descriptor directory(::fcntl(document.directory(), F_DUPFD_CLOEXEC, 0));
        if (directory.get() < 0)
            throw std::system_error(errno, std::generic_category(), "cannot copy " + document.path());
        // Private to the caller, and only where the caller may create files.
        Descriptor file(::openat(directory.get(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                 S_IRUSR | S_IWUSR));
        if (file.get() < 0)
            throw std::runtime_error("cannot copy " + document.path() + " to " + path + ": " + std::strerror(errno));
        // Bounded, so a document on a stalled file system cannot hold a worker for good.
        const auto deadline = std::chrono::steady_clock::now() + CopyBound;
        off_t offset = 0;
        ssize_t copied = 0;
        while ((copied = ::sendfile(file.get(), document.file(), &offset, 1 << 20)) > 0
               && std::chrono::steady_clock::now() < deadline) {
        }
        if (copied != 0) {
            const std::string reason = copied < 0 ? std::strerror(errno) : "it takes too long";
            ::unlinkat(directory.get(), name.c_str(), 0);
            throw std::runtime_error("cannot copy " + document.path() + " to " + path + ": " + reason);
        }
        return Document(path, directory.release(), name, file.release());
    });
}

bool CallerFiles::exists(const Document& document) const
{
    return asCaller(caller, [&] {
        struct stat status {};
        return ::fstatat(document.directory(), document.name().c_str(), &status, 0) == 0;
    });
}

void CallerFiles::remove(const Document& document) const
{
    asCaller(caller, [&] {
        if (::unlinkat(document.directory(), document.name().c_str(), 0) != 0 && errno != ENOENT)
            throw std::runtime_error("cannot remove " + document.path() + ": " + std::strerror(errno));
    });
}

} // namespace Kestrel::Private
