// A mutex that processes of one machine share by name; its owner's death frees it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace zuPlatform {

/// A handle to a named mutex. Used by one thread at a time.
class NamedMutex {
public:
    enum class WaitResult { signalled, abandoned, timeout, failed };

    /// Creates or opens the mutex, without taking it. Null with `error` set if the system refuses.
    static std::unique_ptr<NamedMutex> create(const std::string& name, int& error);

    /// Closes the handle; a mutex still held counts as abandoned by its owner.
    ~NamedMutex();
    NamedMutex(const NamedMutex&) = delete;
    NamedMutex& operator=(const NamedMutex&) = delete;

    /// Waits up to `timeoutMs` milliseconds. `abandoned` also gives the mutex to the caller, and says that its owner
    /// died while this call was waiting; a mutex that is found free is `signalled`, however it became so.
    WaitResult wait(std::uint32_t timeoutMs);
    void release();

private:
    struct State;
    explicit NamedMutex(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

} // namespace zuPlatform
