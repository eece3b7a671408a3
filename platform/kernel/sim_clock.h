// The simulated clock: real monotonic time stretched by the time scale.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

namespace winsim::kernel {

// KeQuerySystemTime at the machine's start: 2024-01-01 00:00 UTC in 100 ns
// units since 1601.
constexpr int64_t kSystemTimeAtStart = 133485408000000000;

// The real moment at which the simulated clock reaches `simulated100ns`
// (at the present scale; waiters recompute when the scale changes).
std::chrono::steady_clock::time_point RealTimeAt(int64_t simulated100ns);

// A platform thread that sleeps on a condition variable of its own until a
// simulated moment keeps one of these: SetTimeScale calls `onChange` (which
// should wake the sleeper so that it recomputes its real deadline) for as
// long as the listener lives. `onChange` must not create or destroy
// listeners.
class TimeScaleListener {
  public:
    explicit TimeScaleListener(std::function<void()> onChange);
    ~TimeScaleListener();
    TimeScaleListener(const TimeScaleListener&) = delete;
    TimeScaleListener& operator=(const TimeScaleListener&) = delete;

  private:
    std::function<void()> onChange_;
};

}  // namespace winsim::kernel
