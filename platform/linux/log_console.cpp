// The controlling terminal as the console for log lines, with ANSI colours. Callers serialise their writes; the state
// is atomic, so that a look from another thread is sound.
#include "platform/log_console.h"

#include "platform/text.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>

namespace zuPlatform {

namespace {

constexpr std::uint16_t plainAttributes = 0x07;
/// How long a write waits for a terminal that takes no text; after that, text is dropped until it takes some again.
constexpr int stallMs = 1000;
constexpr std::size_t maxWideChunk = 1024;

std::atomic<int> terminal{-1};
std::atomic<std::uint16_t> attributes{plainAttributes};
std::atomic<bool> stalled{false};

/// Standard handles keep their meaning even if they are closed at present: a terminal never becomes one of them.
int openTerminal()
{
    int fd = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (fd >= 0 && fd <= STDERR_FILENO) {
        const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        const int error = errno;
        ::close(fd);
        errno = error;
        fd = moved;
    }
    return fd;
}

bool windowSize(int fd, winsize& size) { return fd >= 0 && ::ioctl(fd, TIOCGWINSZ, &size) == 0; }

/// The descriptor behind a handle, or -1 with EBADF if the handle isn't the open console's.
int descriptorOf(LogConsole::Handle handle)
{
    const int fd = terminal.load();
    if (handle != 0 && handle == fd)
        return fd;
    errno = EBADF;
    return -1;
}

/// Keeps a terminal with the TOSTOP setting from stopping the process when it writes in the background.
class NoBackgroundStop {
public:
    NoBackgroundStop()
    {
        sigset_t stop;
        ::sigemptyset(&stop);
        ::sigaddset(&stop, SIGTTOU);
        ::pthread_sigmask(SIG_BLOCK, &stop, &previous_);
    }
    ~NoBackgroundStop() { ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
    NoBackgroundStop(const NoBackgroundStop&) = delete;
    NoBackgroundStop& operator=(const NoBackgroundStop&) = delete;

private:
    sigset_t previous_{};
};

std::size_t writeAll(int fd, const char* text, std::size_t size)
{
    const NoBackgroundStop guard;
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = ::write(fd, text + done, size - done);
        if (count > 0) {
            done += static_cast<std::size_t>(count);
            stalled = false;
            continue;
        }
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0 && errno != EAGAIN)
            break;
        pollfd output{fd, POLLOUT, 0};
        const int ready = ::poll(&output, 1, stalled ? 0 : stallMs);
        if (ready == 0) {
            stalled = true;
            errno = EAGAIN;
            break;
        }
        if (ready < 0 ? errno != EINTR : (output.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0)
            break;
    }
    return done;
}

/// Colour bits are blue 1, green 2, red 4, bright 8 here; the terminal's numbers have red and blue the other way round.
unsigned colourNumber(unsigned nibble) { return (nibble & 2) | (nibble & 1) << 2 | (nibble & 4) >> 2; }

std::string colourSequence(std::uint16_t value)
{
    const unsigned foreground = value & 0x0F;
    const unsigned background = (value >> 4) & 0x0F;
    std::string sequence = "\x1b[0";
    if ((value & 0xFF) != plainAttributes)
        sequence += ';' + std::to_string((foreground & 8 ? 90 : 30) + colourNumber(foreground));
    if (background != 0)
        sequence += ';' + std::to_string((background & 8 ? 100 : 40) + colourNumber(background));
    return sequence + 'm';
}

} // namespace

namespace LogConsole {

bool hasWindow() { return isWindow(); }

bool isWindow()
{
    // A terminal that was hung up fails here, and counts as none.
    winsize size{};
    return windowSize(terminal.load(), size);
}

Handle outputHandle()
{
    const int fd = terminal.load();
    return fd < 0 ? 0 : fd;
}

bool allocate()
{
    const int fd = openTerminal();
    if (fd < 0)
        return false;
    release();
    terminal = fd;
    attributes = plainAttributes;
    stalled = false;
    return true;
}

bool attachToParent()
{
    // The controlling terminal is the parent's already.
    return allocate();
}

void release()
{
    if (const int fd = terminal.exchange(-1); fd >= 0)
        ::close(fd);
}

bool getInfo(Handle handle, Info& info)
{
    winsize size{};
    if (!windowSize(descriptorOf(handle), size))
        return false;
    info = Info{};
    info.attributes = attributes;
    info.maxWidth = size.ws_col;
    info.maxHeight = size.ws_row;
    info.right = static_cast<std::int16_t>(size.ws_col - 1);
    info.bottom = static_cast<std::int16_t>(size.ws_row - 1);
    return true;
}

// A terminal's size is its user's affair.
bool setBufferSize(Handle, std::uint16_t, std::uint16_t)
{
    errno = ENOTSUP;
    return false;
}

bool setWindow(Handle, std::int16_t, std::int16_t, std::int16_t, std::int16_t)
{
    errno = ENOTSUP;
    return false;
}

void minimise() {}

bool setTitle(const std::string& title)
{
    const int fd = descriptorOf(outputHandle());
    if (fd < 0)
        return false;
    std::string sequence = "\x1b]0;" + title + '\a';
    // A control character would end the sequence, and the rest would be taken as text or as another one.
    std::replace_if(
        sequence.begin() + 4, sequence.end() - 1,
        [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }, ' ');
    return writeAll(fd, sequence.data(), sequence.size()) == sequence.size();
}

bool setAttribute(Handle handle, std::uint16_t value)
{
    const int fd = descriptorOf(handle);
    if (fd < 0)
        return false;
    const std::string sequence = colourSequence(value);
    if (writeAll(fd, sequence.data(), sequence.size()) != sequence.size())
        return false;
    attributes = value;
    return true;
}

std::size_t write(Handle handle, const char* text, std::size_t size)
{
    const int fd = descriptorOf(handle);
    return fd < 0 ? 0 : writeAll(fd, text, size);
}

std::size_t write(Handle handle, const wchar_t* text, std::size_t size)
{
    const int fd = descriptorOf(handle);
    if (fd < 0)
        return 0;
    std::size_t done = 0;
    while (done < size) {
        const std::size_t count = std::min(size - done, maxWideChunk);
        std::string narrow;
        std::size_t ends[maxWideChunk];
        for (std::size_t i = 0; i < count; ++i) {
            const wchar_t* const character = text + done + i;
            try {
                narrow += wideToUtf8(character, character + 1);
            } catch (const base2::character_conversion_error&) {
                narrow += '?';
            }
            ends[i] = narrow.size();
        }
        const std::size_t bytes = writeAll(fd, narrow.data(), narrow.size());
        // A character that went out in part counts as written: sent again, it would stand there twice.
        const auto partial = std::lower_bound(ends, ends + count, bytes) - ends;
        const auto written = bytes == 0 ? 0 : std::min(count, static_cast<std::size_t>(partial) + 1);
        done += written;
        if (bytes < narrow.size())
            break;
    }
    return done;
}

} // namespace LogConsole

} // namespace zuPlatform
