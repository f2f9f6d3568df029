// Waiting on a word, by futex. Any thread may call.
#include "platform/wake.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace zuPlatform {

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t));

namespace {

constexpr std::uint64_t nsPerSecond = 1000000000;

long futex(std::atomic<std::uint32_t>& word, int operation, std::uint32_t value, const timespec* deadline)
{
    return ::syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), operation | FUTEX_PRIVATE_FLAG, value,
                     deadline, nullptr, FUTEX_BITSET_MATCH_ANY);
}

} // namespace

bool WakeWord::waitUntil(std::uint32_t seen, std::uint64_t deadlineNs)
{
    // Absolute, and by the monotonic clock, as the bitset form has it.
    const timespec deadline{static_cast<time_t>(deadlineNs / nsPerSecond), static_cast<long>(deadlineNs % nsPerSecond)};
    bool changed = true;
    waiters_.fetch_add(1, std::memory_order_seq_cst);
    while (word_.load(std::memory_order_seq_cst) == seen) {
        if (futex(word_, FUTEX_WAIT_BITSET, seen, &deadline) != 0 && errno == ETIMEDOUT) {
            changed = word_.load(std::memory_order_acquire) != seen;
            break;
        }
    }
    waiters_.fetch_sub(1, std::memory_order_relaxed);
    return changed;
}

void WakeWord::wake()
{
    if (waiters_.load(std::memory_order_seq_cst) != 0)
        futex(word_, FUTEX_WAKE, INT_MAX, nullptr);
}

} // namespace zuPlatform
