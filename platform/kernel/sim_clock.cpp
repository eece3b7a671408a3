// Simulated time stays continuous when the scale changes: each change
// rebases the clock at the present moment.
#include "kernel/sim_clock.h"

#include "kernel/dispatcher.h"
#include "kernel/kernel.h"
#include "kernel/untraced.h"

#include <algorithm>
#include <mutex>
#include <stdexcept>
#include <vector>

namespace winsim::kernel {
namespace {

using Clock = std::chrono::steady_clock;

// Untraced: reading the clock orders nothing on Windows.
struct ClockState {
    UntracedMutex mutex;
    Clock::time_point realBase = Clock::now();
    int64_t simulatedBase = 0;
    double scale = 1.0;

    int64_t SimulatedAt(Clock::time_point real) const {
        double elapsedNs = std::chrono::duration<double, std::nano>(real - realBase).count();
        return simulatedBase + static_cast<int64_t>(elapsedNs * scale / 100.0);
    }
};

ClockState& State() {
    static auto* state = new ClockState;
    return *state;
}

// Untraced like the clock: a change of pace orders no driver threads.
struct Listeners {
    UntracedMutex mutex;
    std::vector<const std::function<void()>*> callbacks;
};

Listeners& ScaleListeners() {
    static auto* listeners = new Listeners;
    return *listeners;
}

void NotifyScaleListeners() {
    Listeners& listeners = ScaleListeners();
    std::lock_guard lock(listeners.mutex);
    for (const std::function<void()>* callback : listeners.callbacks) {
        (*callback)();
    }
}

}  // namespace

TimeScaleListener::TimeScaleListener(std::function<void()> onChange)
    : onChange_(std::move(onChange)) {
    Listeners& listeners = ScaleListeners();
    std::lock_guard lock(listeners.mutex);
    listeners.callbacks.push_back(&onChange_);
}

TimeScaleListener::~TimeScaleListener() {
    Listeners& listeners = ScaleListeners();
    std::lock_guard lock(listeners.mutex);
    std::erase(listeners.callbacks, &onChange_);
}

Clock::time_point RealTimeAt(int64_t simulated100ns) {
    ClockState& state = State();
    std::lock_guard lock(state.mutex);
    // Far deadlines are capped: the waiter wakes up and asks again.
    constexpr double kMaxRealNs = 3600e9;
    double realNs = double(simulated100ns - state.simulatedBase) * 100.0 / state.scale;
    realNs = std::clamp(realNs, -kMaxRealNs, kMaxRealNs);
    return state.realBase + std::chrono::duration_cast<Clock::duration>(
                                std::chrono::duration<double, std::nano>(realNs));
}

}  // namespace winsim::kernel

namespace winsim {

void SetTimeScale(double simulatedPerReal) {
    if (!(simulatedPerReal > 0))
        throw std::invalid_argument("time scale must be positive");
    kernel::ClockState& state = kernel::State();
    {
        std::lock_guard lock(state.mutex);
        auto now = std::chrono::steady_clock::now();
        state.simulatedBase = state.SimulatedAt(now);
        state.realBase = now;
        state.scale = simulatedPerReal;
    }
    // Timed waiters recompute their real deadlines.
    kernel::WakeAllWaiters();
    kernel::NotifyScaleListeners();
}

double TimeScale() {
    kernel::ClockState& state = kernel::State();
    std::lock_guard lock(state.mutex);
    return state.scale;
}

int64_t Now100ns() {
    kernel::ClockState& state = kernel::State();
    std::lock_guard lock(state.mutex);
    return state.SimulatedAt(std::chrono::steady_clock::now());
}

}  // namespace winsim

void NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime) {
    CurrentTime->QuadPart = winsim::kernel::kSystemTimeAtStart + winsim::Now100ns();
}

ULONGLONG NTAPI KeQueryInterruptTime(void) {
    return winsim::Now100ns();
}

LARGE_INTEGER NTAPI KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency) {
    if (PerformanceFrequency != nullptr)
        PerformanceFrequency->QuadPart = 10'000'000;
    LARGE_INTEGER counter;
    counter.QuadPart = winsim::Now100ns();
    return counter;
}
