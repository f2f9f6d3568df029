// The settings that the terminal on standard input is to get back, kept where a signal handler can reach them.
#pragma once

namespace zuPlatform {

/// Switches the terminal `fd` to unbuffered input without echo and remembers what it was. False if it is no terminal of
/// ours to change, at present.
bool switchTerminal(int fd);

/// Puts back what `switchTerminal` changed, once. Safe in a signal handler.
void restoreTerminal();

/// Whether this process may read from and change the terminal `fd` without being stopped by job control.
bool inForeground(int fd);

} // namespace zuPlatform
