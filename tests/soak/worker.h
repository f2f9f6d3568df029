// One client process of the soak: random commands to one camera over one connection.
#pragma once

#include <cstdint>
#include <string>

namespace zuSoak {

struct Task {
    unsigned seed = 0;
    std::uint32_t camera = 0; ///< host byte order
    unsigned area = 0;        ///< of the camera's memory, this worker's own
    bool verify = false;      ///< what was written must be read; for cameras that lose and repeat, but keep their word
};

/// What went wrong, empty for nothing. That the camera refuses or falls silent is right; that the daemon does, or that
/// anything false is read, is not. Some seconds, more with a camera that is silent.
std::string work(const Task& task);

} // namespace zuSoak
