// The cameras of one run of the program, and the execution of lines on them. Any thread.
#pragma once

#include "tools/gevsim/camera.h"
#include "tools/gevsim/options.h"

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace gevsim {

class Session {
public:
    /// Makes the cameras and executes the commands of the command line. Throws ScriptError before anything is done if
    /// one of them is not understood, and std::runtime_error if a camera can't listen.
    explicit Session(const Options& options);

    /// What a line answers, in whole lines. Throws ScriptError.
    std::string execute(const std::string& line);
    /// Whether a line asked to end.
    bool ended() const { return ended_; }

    const std::vector<std::unique_ptr<Camera>>& cameras() const { return cameras_; }

private:
    void setTrace(bool on);

    std::vector<std::unique_ptr<Camera>> cameras_;
    std::atomic<bool> ended_{false};
};

/// Prints a line at once, whole, from any thread. Lines that nobody reads any more are dropped.
void printLine(const std::string& text);

} // namespace gevsim
