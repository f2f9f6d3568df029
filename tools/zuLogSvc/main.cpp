// Entry of the log service and its viewer. The main thread watches for signals while other threads work.
#include "platform/clock.h"
#include "platform/process.h"
#include "platform/service_notify.h"
#include "platform/shared_memory.h"
#include "tools/zuLogSvc/connection_block.h"
#include "tools/zuLogSvc/follow_client.h"
#include "tools/zuLogSvc/options.h"
#include "tools/zuLogSvc/service.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <thread>

namespace {

using namespace zuLogSvc;

constexpr std::uint32_t pollMs = 50;
constexpr std::uint32_t stopMs = 5000;
constexpr std::uint32_t levelErr = 0x02;

std::atomic<bool> stopRequested{false};
std::atomic<bool> reloadRequested{false};

void requestStop() { stopRequested = true; }
void requestReload() { reloadRequested = true; }

/// Not by std::cerr, which first flushes standard output, and that may be stuck.
void tell(const std::string& text) { std::fputs(("zuLogSvc: " + text + "\n").c_str(), stderr); }

/// False, with all errors told, if the file is not good.
bool readSettings(const Options& options, Settings& settings, const std::function<void(const std::string&)>& say)
{
    if (!options.config.empty()) {
        std::vector<TextError> errors;
        Settings fresh = loadSettings(options.config, errors);
        for (const TextError& error : errors)
            say(describe(options.config, error));
        if (!errors.empty())
            return false;
        settings = std::move(fresh);
    }
    applyOptions(options, settings);
    return true;
}

int checkConfig(const Options& options)
{
    Settings settings;
    if (!readSettings(options, settings, [](const std::string& text) { std::cerr << text << "\n"; }))
        return exitSettings;
    std::cout << options.config << ": good, " << settings.rules.size() << " rules, " << settings.outputs.size()
              << " outputs\n";
    return exitGood;
}

void reload(const Options& options, Service& service)
{
    const auto say = [&](const std::string& text) {
        tell(text);
        service.note(levelErr, text);
    };
    Settings settings;
    if (!readSettings(options, settings, say))
        return say("the settings stay as they were");
    try {
        service.reload(std::move(settings));
    } catch (const std::exception& error) {
        say(std::string(error.what()) + "; the settings stay as they were");
    }
}

int serve(const Options& options)
{
    Settings settings;
    if (!readSettings(options, settings, tell))
        return exitSettings;
    const auto guard = InstanceGuard::take();
    if (!guard) {
        tell("a log service is running already; zuLogSvc --follow shows its messages");
        return exitAlreadyRunning;
    }
    // Without a file there is nothing to read again, and a terminal that closes ends what runs in it.
    zuPlatform::setReloadHandler(options.config.empty() ? requestStop : requestReload);

    auto service = std::make_unique<Service>(std::move(settings), systemClock(), tell);
    // What is asked from now on waits in the sockets, so whoever reads that the service has started can find it.
    ConnectionBlock block(service->endpoints());
    service->start();
    zuPlatform::notifyServiceReady("Taking messages");
    while (!stopRequested) {
        if (reloadRequested.exchange(false))
            reload(options, *service);
        zuPlatform::sleepMs(pollMs);
    }
    zuPlatform::notifyServiceStopping("Writing what has arrived");
    block.withdraw();
    if (service->stop(stopMs))
        return service->counts().givenUp == 0 ? exitGood : exitFailure;
    // Standard error may be just as stuck.
    static std::atomic<bool> told{false};
    std::thread([] {
        tell("an output takes no more; what waited for it is lost");
        told = true;
    }).detach();
    for (std::uint32_t waited = 0; !told && waited < 2000; waited += pollMs)
        zuPlatform::sleepMs(pollMs);
    std::_Exit(exitFailure);
}

int followService(const Options& options)
{
    zuPlatform::setReloadHandler(requestStop);
    const auto output = std::make_shared<StreamOutput>(stdout, standardOutputLines(options, {}));
    auto end = FollowEnd::failed;
    std::atomic<bool> done{false};
    const FollowOptions followOptions{options.filter, options.wait};
    std::thread viewer([&] {
        try {
            end = follow(followOptions, stopRequested, *output, systemClock(), tell);
        } catch (const std::exception& error) {
            tell(error.what());
        }
        done = true;
    });
    while (!stopRequested && !done)
        zuPlatform::sleepMs(pollMs);
    // A terminal or pager that takes no more must not keep the viewer.
    for (std::uint32_t waited = 0; !done && waited < 2000; waited += pollMs)
        zuPlatform::sleepMs(pollMs);
    if (!done)
        std::_Exit(exitGood);
    viewer.join();
    switch (end) {
    case FollowEnd::stopped:
    case FollowEnd::readerGone:
        return exitGood;
    case FollowEnd::notRunning:
        tell("no log service is running; start one with zuLogSvc, or wait for one with --follow --wait");
        return exitNotRunning;
    case FollowEnd::refused:
    case FollowEnd::failed:
        break;
    }
    return exitFailure;
}

} // namespace

int main(int argc, char** argv)
{
    const auto parsed = parseOptions(argc, argv);
    if (const int* status = std::get_if<int>(&parsed))
        return *status;
    const Options& options = std::get<Options>(parsed);
    if (!options.namePrefix.empty())
        zuPlatform::setObjectNamePrefixForTesting(options.namePrefix);
    zuPlatform::ignoreBrokenPipe();
    zuPlatform::setStopHandler(requestStop);
    try {
        if (options.checkConfig)
            return checkConfig(options);
        return options.follow ? followService(options) : serve(options);
    } catch (const std::exception& error) {
        tell(error.what());
        return exitFailure;
    }
}
