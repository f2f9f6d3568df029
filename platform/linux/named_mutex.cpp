// Named mutexes as locked files beside the shared objects. The lock (flock) goes with its owner's descriptor, so a dead
// owner frees it; the file's content tells whether the last owner let go himself. Each handle is used by one thread.
#include "platform/named_mutex.h"

#include "platform/clock.h"
#include "platform/linux/object_name.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

namespace zuPlatform {

namespace {

constexpr std::uint32_t pollMs = 10;
constexpr std::uint32_t waitForever = std::numeric_limits<std::uint32_t>::max();
constexpr char heldMark = 'H';
constexpr char freeMark = '-';

/// Opens the lock file. Never with O_CREAT on an existing one: where fs.protected_regular is set, that is refused to
/// all but its owner in a directory such as this.
int openLockFile(const std::string& path, int& error)
{
    for (;;) {
        int fd = ::shm_open(path.c_str(), O_RDWR, 0);
        if (fd >= 0 || errno != ENOENT) {
            error = fd >= 0 ? 0 : errno;
            return fd;
        }
        fd = ::shm_open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0666);
        if (fd < 0 && errno == EEXIST)
            continue;
        error = fd >= 0 ? 0 : errno;
        if (fd >= 0 && ::fchmod(fd, 0666) != 0) {
            error = errno;
            ::shm_unlink(path.c_str());
            ::close(fd);
            return -1;
        }
        return fd;
    }
}

} // namespace

struct NamedMutex::State {
    explicit State(int descriptor) : fd(descriptor) {}
    ~State() { ::close(fd); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    /// 0, EWOULDBLOCK while another holds the lock, or another error.
    int tryLock()
    {
        while (::flock(fd, LOCK_EX | LOCK_NB) != 0)
            if (errno != EINTR)
                return errno;
        return 0;
    }

    /// Puts down that the mutex is held, and returns whether it said so before.
    bool markHeld()
    {
        char mark = freeMark;
        const bool wasHeld = ::pread(fd, &mark, 1, 0) == 1 && mark == heldMark;
        writeMark(heldMark);
        depth = 1;
        return wasHeld;
    }

    void writeMark(char mark)
    {
        // Should it fail, only the word "abandoned" is at stake, not the lock.
        [[maybe_unused]] const ssize_t written = ::pwrite(fd, &mark, 1, 0);
    }

    const int fd;
    std::uint32_t depth = 0; ///< how often this handle has taken the mutex
};

NamedMutex::NamedMutex(std::unique_ptr<State> state) : state_(std::move(state)) {}
NamedMutex::~NamedMutex() = default;

std::unique_ptr<NamedMutex> NamedMutex::create(const std::string& name, int& error)
{
    const int fd = openLockFile(objectPath(name), error);
    if (fd < 0)
        return nullptr;
    return std::unique_ptr<NamedMutex>(new NamedMutex(std::make_unique<State>(fd)));
}

NamedMutex::WaitResult NamedMutex::wait(std::uint32_t timeoutMs)
{
    State& state = *state_;
    if (state.depth > 0) {
        ++state.depth;
        return WaitResult::signalled;
    }
    const std::uint64_t start = steadyNanoseconds();
    const std::uint64_t limit = std::uint64_t{timeoutMs} * 1000000;
    for (bool waited = false;; waited = true) {
        const int error = state.tryLock();
        if (error == 0)
            return state.markHeld() && waited ? WaitResult::abandoned : WaitResult::signalled;
        if (error != EWOULDBLOCK)
            return WaitResult::failed;
        const std::uint64_t elapsed = steadyNanoseconds() - start;
        if (elapsed >= limit && timeoutMs != waitForever)
            return WaitResult::timeout;
        const std::uint64_t restMs = timeoutMs == waitForever ? pollMs : (limit - elapsed + 999999) / 1000000;
        sleepMs(std::min<std::uint32_t>(pollMs, static_cast<std::uint32_t>(restMs)));
    }
}

void NamedMutex::release()
{
    State& state = *state_;
    if (state.depth == 0 || --state.depth > 0)
        return;
    state.writeMark(freeMark);
    ::flock(state.fd, LOCK_UN);
}

} // namespace zuPlatform
