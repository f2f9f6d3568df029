// A bar that shows a person how far a transfer is. One thread.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

namespace gevctl {

/// The line for this state, without an end of line: "label [#####.....]  50 % 512 KiB 1.2 MiB/s".
std::string progressLine(const std::string& label, std::uint64_t done, std::uint64_t total, double seconds);

/// Draws at most ten times a second, and takes its line away at the end. Draws nothing if `visible` is false.
class Progress {
public:
    Progress(std::ostream& out, std::string label, std::uint64_t total, bool visible);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void update(std::uint64_t done);

private:
    std::ostream& out_;
    std::string label_;
    std::uint64_t total_;
    bool visible_;
    std::uint64_t start_;
    std::uint64_t lastDrawn_ = 0;
    std::size_t width_ = 0;
};

} // namespace gevctl
