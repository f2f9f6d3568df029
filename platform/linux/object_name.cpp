// Names of shared objects and mutexes. The prefix is for tests; a leaf lock guards it.
#include "platform/linux/object_name.h"

#include "platform/shared_memory.h"

#include <algorithm>
#include <mutex>

namespace zuPlatform {

namespace {

struct Prefix {
    std::mutex mutex;
    std::string text;
};

Prefix& prefix()
{
    static Prefix& instance = *new Prefix; // never destroyed: objects may be opened while the process ends
    return instance;
}

} // namespace

std::string objectPath(const std::string& name)
{
    std::string path = "/";
    {
        const std::lock_guard<std::mutex> lock(prefix().mutex);
        path += prefix().text;
    }
    path += name;
    std::replace(path.begin(), path.end(), '\\', '.');
    return path;
}

void setObjectNamePrefixForTesting(const std::string& text)
{
    const std::lock_guard<std::mutex> lock(prefix().mutex);
    prefix().text = text;
}

} // namespace zuPlatform
