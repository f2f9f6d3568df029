#include "tests/unit/logging/fake_console.h"

#include "platform/error.h"

#include <algorithm>

namespace zuTest::FakeConsole {

State& state()
{
    static State instance;
    return instance;
}

void reset() { state() = State(); }

} // namespace zuTest::FakeConsole

namespace zuPlatform {

using zuTest::FakeConsole::state;

namespace {

constexpr LogConsole::Handle theHandle = 77;

void note(const std::string& call) { state().calls.push_back(call); }

template <typename Char>
std::size_t take(LogConsole::Handle handle, const char* what, const Char* text, std::size_t size)
{
    auto& takes = state().takes;
    std::size_t count = handle == theHandle ? size : 0;
    if (!takes.empty()) {
        count = std::min(count, takes.front());
        takes.pop_front();
    }
    std::string narrow;
    for (std::size_t i = 0; i < count; ++i)
        narrow += static_cast<char>(text[i]);
    note(what + narrow);
    return count;
}

} // namespace

namespace LogConsole {

bool hasWindow() { return state().window; }
bool isWindow() { return state().windowIsOne; }
Handle outputHandle() { return state().window ? theHandle : state().elsewhere; }

bool allocate()
{
    note("allocate");
    return state().canAllocate && (state().window = true);
}

bool attachToParent()
{
    note("attachToParent");
    return state().canAttach && (state().window = true);
}

void release()
{
    note("release");
    state().window = false;
}

bool getInfo(Handle handle, Info& info)
{
    if (handle != theHandle || !state().hasInfo)
        return false;
    info = state().info;
    return true;
}

bool setBufferSize(Handle, std::uint16_t width, std::uint16_t height)
{
    note("setBufferSize " + std::to_string(width) + ' ' + std::to_string(height));
    state().info = state().infoWhenSized.value_or(state().info);
    return true;
}

bool setWindow(Handle, std::int16_t left, std::int16_t top, std::int16_t right, std::int16_t bottom)
{
    note("setWindow " + std::to_string(left) + ' ' + std::to_string(top) + ' ' + std::to_string(right) + ' ' +
         std::to_string(bottom));
    return true;
}

void minimise() { note("minimise"); }

bool setTitle(const std::string& title)
{
    note("setTitle " + title);
    return state().takesTitle;
}

bool setAttribute(Handle handle, std::uint16_t attributes)
{
    if (handle != theHandle)
        return false;
    note("setAttribute " + std::to_string(attributes));
    state().info.attributes = attributes;
    return true;
}

std::size_t write(Handle handle, const char* text, std::size_t size) { return take(handle, "write ", text, size); }

std::size_t write(Handle handle, const wchar_t* text, std::size_t size) { return take(handle, "wide ", text, size); }

} // namespace LogConsole

std::uint32_t lastError() { return state().error; }
std::string errorText(std::uint32_t) { return state().errorWords; }

} // namespace zuPlatform
