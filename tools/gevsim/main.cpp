// The program gevsim. The main thread waits for a reason to stop; a second one reads standard input; the cameras have
// their own threads.
#include "tools/gevsim/options.h"
#include "tools/gevsim/script.h"
#include "tools/gevsim/session.h"

#include "platform/clock.h"
#include "platform/process.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <thread>

namespace {

constexpr int exitFailure = 1;
constexpr int exitUsage = 2;
constexpr std::uint32_t pollMs = 50;

std::atomic<bool> stopRequested{false};

/// Shared by the main thread and the reader, which may be stuck in a read when the program ends.
struct Input {
    std::mutex mutex; ///< held while a line is executed
    gevsim::Session* session = nullptr;
    bool ended = false; ///< standard input is at its end
};

void readInput(const std::shared_ptr<Input>& input)
{
    for (std::string line; std::getline(std::cin, line);) {
        const std::lock_guard<std::mutex> lock(input->mutex);
        if (!input->session)
            return;
        try {
            const std::string answer = input->session->execute(line);
            if (!answer.empty())
                gevsim::printLine(answer);
        } catch (const gevsim::ScriptError& error) {
            std::cerr << "gevsim: " << error.what() << std::endl;
        }
    }
    const std::lock_guard<std::mutex> lock(input->mutex);
    input->ended = true;
}

/// True if the reader has come to its end.
bool serve(gevsim::Session& session, const gevsim::Options& options)
{
    const auto input = std::make_shared<Input>();
    input->session = &session;
    input->ended = !options.input;
    std::thread reader;
    if (options.input)
        reader = std::thread(readInput, input);
    bool ended = false;
    while (!stopRequested && !session.ended()) {
        zuPlatform::sleepMs(pollMs);
        const std::lock_guard<std::mutex> lock(input->mutex);
        ended = input->ended;
        if (ended && options.endWithInput)
            break;
    }
    {
        const std::lock_guard<std::mutex> lock(input->mutex);
        input->session = nullptr;
        ended = input->ended;
    }
    if (reader.joinable())
        ended ? reader.join() : reader.detach();
    return ended;
}

std::string versionText()
{
    std::uint64_t quad = 0;
    if (!zuPlatform::executableVersion(quad))
        return "gevsim";
    std::string text = "gevsim ";
    for (int shift = 48; shift >= 0; shift -= 16)
        text += std::to_string((quad >> shift) & 0xFFFF) + (shift ? "." : "");
    return text;
}

int run(const gevsim::Options& options)
{
    bool inputEnded = false;
    {
        gevsim::Session session(options);
        for (const auto& camera : session.cameras())
            gevsim::printLine("gevsim: camera listens on " + camera->endpoint().text());
        inputEnded = serve(session, options);
    }
    gevsim::printLine("gevsim: stopped");
    // A reader that is stuck in its read can't be joined, so nothing may be taken down around it.
    if (!inputEnded)
        std::_Exit(EXIT_SUCCESS);
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char** argv)
{
    zuPlatform::setStopHandler([] { stopRequested = true; });
    zuPlatform::ignoreBrokenPipe();
    zuPlatform::raiseDescriptorLimit();
    try {
        const gevsim::Options options = gevsim::parseOptions(argc, argv);
        if (options.help || options.version) {
            std::cout << (options.help ? gevsim::helpText() : versionText() + "\n");
            return EXIT_SUCCESS;
        }
        return run(options);
    } catch (const gevsim::UsageError& error) {
        std::cerr << "gevsim: " << error.what() << "\nTry 'gevsim --help'.\n";
        return exitUsage;
    } catch (const gevsim::ScriptError& error) {
        std::cerr << "gevsim: " << error.what() << "\n";
        return exitUsage;
    } catch (const std::exception& error) {
        std::cerr << "gevsim: " << error.what() << "\n";
        return exitFailure;
    }
}
