// A scripted console in the place of the system's: link this object into a test. One thread at a time.
#pragma once

#include "platform/log_console.h"

#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace zuTest::FakeConsole {

struct State {
    bool window = false;     ///< there is a console now
    bool canAllocate = true; ///< `allocate` succeeds
    bool canAttach = true;   ///< `attachToParent` succeeds
    bool windowIsOne = true; ///< `isWindow`
    bool hasInfo = true;     ///< `getInfo` succeeds
    bool takesTitle = true;
    std::uint32_t error = 0; ///< `lastError`
    std::string errorWords;  ///< `errorText` of any code
    zuPlatform::LogConsole::Info info;
    std::optional<zuPlatform::LogConsole::Info> infoWhenSized; ///< what `setBufferSize` makes of it
    zuPlatform::LogConsole::Handle elsewhere = 0;              ///< `outputHandle` without a console
    std::deque<std::size_t> takes; ///< how many characters the next writes take; all once it is empty

    std::vector<std::string> calls; ///< "allocate", "setAttribute 15", "write text", ...
};

State& state();
void reset();

} // namespace zuTest::FakeConsole
