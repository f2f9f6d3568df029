#include "tests/support/fake_socket_library.h"

#include "platform/socket_library.h"

#include <mutex>
#include <optional>

namespace {

struct Library {
    int error = 0;
    std::optional<std::uint16_t> obtained;
    std::size_t starts = 0;
    std::size_t tries = 0;
    std::size_t stops = 0;
    std::uint16_t requested = 0;
};

// Never destroyed: a library held by a static object is stopped at the very end.
std::mutex& mutex()
{
    static std::mutex& instance = *new std::mutex;
    return instance;
}

Library library;

template <typename Function>
auto locked(Function function)
{
    const std::lock_guard<std::mutex> lock(mutex());
    return function();
}

} // namespace

namespace zuTest::FakeSocketLibrary {

void reset()
{
    locked([] { library = Library{}; });
}
void setError(int error)
{
    locked([=] { library.error = error; });
}
void setObtained(std::uint16_t version)
{
    locked([=] { library.obtained = version; });
}
std::size_t starts()
{
    return locked([] { return library.starts; });
}
std::size_t tries()
{
    return locked([] { return library.tries; });
}
std::size_t stops()
{
    return locked([] { return library.stops; });
}
std::uint16_t requested()
{
    return locked([] { return library.requested; });
}

} // namespace zuTest::FakeSocketLibrary

namespace zuPlatform {

int startSocketLibrary(std::uint16_t version, std::uint16_t& obtained)
{
    return locked([&] {
        ++library.tries;
        library.requested = version;
        if (library.error)
            return library.error;
        ++library.starts;
        obtained = library.obtained.value_or(version);
        return 0;
    });
}

void stopSocketLibrary()
{
    locked([] { ++library.stops; });
}

} // namespace zuPlatform
