// The nice levels that stand for the priority class and the thread priorities. Nice levels are per thread here; a
// policy of real time would let a thread that spins starve the one that it waits for.
#pragma once

#include <atomic>

namespace zuPlatform {

constexpr int realtimeClassNice = -10;
constexpr int timeCriticalNice = -15;
/// How far below normal stands under the class.
constexpr int belowNormalStep = 1;

/// The level of the process's class: 0, or `realtimeClassNice` once that was granted.
inline std::atomic<int> classNice{0};

} // namespace zuPlatform
