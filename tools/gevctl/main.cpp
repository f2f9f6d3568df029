// Entry of gevctl. A request to end is only noted, so that a camera that is held is given back on the way out.
#include "tools/gevctl/commands.h"

#include "platform/console_keys.h"
#include "platform/process.h"

#include <atomic>
#include <iostream>

namespace {

std::atomic<bool> stopRequested{false};

} // namespace

int main(int argc, char** argv)
{
    const gevctl::Parsed parsed = gevctl::parseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    std::cout << parsed.out << std::flush;
    std::cerr << parsed.err << std::flush;
    if (!parsed.options)
        return parsed.exitCode;
    zuPlatform::ignoreBrokenPipe();
    zuPlatform::setStopHandler([] { stopRequested = true; });
    return gevctl::run(*parsed.options, {std::cin, std::cout, std::cerr, zuPlatform::isTerminal(1),
                                         zuPlatform::isTerminal(2), stopRequested});
}
