#include "tests/contract/contract_support.h"

#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <unistd.h>

namespace zuTest {

std::string uniqueName(const std::string& stem)
{
    static std::atomic<unsigned> next{0};
    return "zuTest-" + std::to_string(::getpid()) + '-' + std::to_string(next++) + '-' + stem;
}

std::set<int> openDescriptors()
{
    std::set<int> result;
    DIR* const folder = ::opendir("/proc/self/fd");
    while (const dirent* entry = folder ? ::readdir(folder) : nullptr)
        if (const int number = std::atoi(entry->d_name); entry->d_name[0] != '.' && number != ::dirfd(folder))
            result.insert(number);
    if (folder)
        ::closedir(folder);
    return result;
}

bool untilAsleep(const std::atomic<std::uint64_t>& thread)
{
    int inRow = 0;
    return eventually([&] {
        std::ifstream status("/proc/" + std::to_string(thread.load()) + "/status");
        bool asleep = false;
        for (std::string line; std::getline(status, line);)
            asleep = asleep || line.compare(0, 8, "State:\tS") == 0;
        // More than once, as a lock on the way there is a sleep too.
        inRow = asleep ? inRow + 1 : 0;
        return inRow >= 5;
    });
}

} // namespace zuTest
