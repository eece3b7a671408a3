// The simulated clock: real monotonic time stretched by the time scale.
#pragma once

#include <chrono>
#include <cstdint>

namespace winsim::kernel {

// KeQuerySystemTime at the machine's start: 2024-01-01 00:00 UTC in 100 ns
// units since 1601.
constexpr int64_t kSystemTimeAtStart = 133485408000000000;

// The real moment at which the simulated clock reaches `simulated100ns`
// (at the present scale; waiters recompute when the scale changes).
std::chrono::steady_clock::time_point RealTimeAt(int64_t simulated100ns);

}  // namespace winsim::kernel
