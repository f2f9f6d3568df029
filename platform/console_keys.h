// Single keys from standard input.
#pragma once

#include <memory>

namespace zuPlatform {

/// Reads single keys without waiting. A terminal is switched to unbuffered input without echo for the object's life,
/// and put back at its end, also when a fault ends the process. A pipe or file works as well. One object at a time.
class ConsoleKeys {
public:
    ConsoleKeys();
    ~ConsoleKeys();
    ConsoleKeys(const ConsoleKeys&) = delete;
    ConsoleKeys& operator=(const ConsoleKeys&) = delete;

    /// True when `read` will give a key at once. After the end of the input there are no more keys.
    bool available();

    /// The next key, or -1 if there is none.
    int read();

private:
    struct State;
    std::unique_ptr<State> state_;
};

/// Whether a person reads standard output (1) or standard error (2).
bool isTerminal(int descriptor);

} // namespace zuPlatform
