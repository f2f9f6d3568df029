// Namespaces of a measurement's own, so that other makers' software reaches nothing but this program's processes.
#pragma once

namespace zuBench {

/// Moves this process, which has one thread, and those it starts from now on into a network that has the loopback
/// interface only, and gives them a /dev/shm of their own: a daemon that runs on the machine doesn't see theirs.
/// Throws std::runtime_error where the system doesn't permit it.
void enterOwnNetwork();

} // namespace zuBench
