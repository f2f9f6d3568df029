// The console for coloured log lines: the controlling terminal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zuPlatform {

/// Operations on the process's console. A handle is whatever the system gives; 0 stands for none.
namespace LogConsole {

using Handle = std::intptr_t;

struct Info {
    std::uint16_t attributes = 0x07; ///< background colour in bits 7..4, foreground in bits 3..0
    std::uint16_t maxWidth = 0;      ///< the largest window, in characters and lines
    std::uint16_t maxHeight = 0;
    std::int16_t left = 0, top = 0, right = 0, bottom = 0; ///< the present window
};

bool hasWindow();      ///< the process has a console with a window
bool isWindow();       ///< and the window still is one
Handle outputHandle(); ///< where the console's text goes
bool allocate();       ///< gives the process a console of its own
bool attachToParent(); ///< shares the console of the parent process
void release();        ///< gives up what `allocate` or `attachToParent` gave
bool getInfo(Handle handle, Info& info);
bool setBufferSize(Handle handle, std::uint16_t width, std::uint16_t height);
bool setWindow(Handle handle, std::int16_t left, std::int16_t top, std::int16_t right, std::int16_t bottom);
void minimise();
bool setTitle(const std::string& title);

/// `attributes` as in `Info`.
bool setAttribute(Handle handle, std::uint16_t attributes);

/// Number of characters written; 0 if the console takes none.
std::size_t write(Handle handle, const char* text, std::size_t size);
std::size_t write(Handle handle, const wchar_t* text, std::size_t size);

} // namespace LogConsole

} // namespace zuPlatform
