#include "streamclass/request_timer.h"

#include <algorithm>
#include <chrono>

#include "kernel/kernel.h"
#include "kernel/sim_clock.h"

namespace winsim {
namespace {

// Real rest between two ticks at large time scales, so that the timer
// never spins; the seconds passed meanwhile are handed over together.
constexpr std::chrono::milliseconds kShortestRest{10};

}  // namespace

RequestTimer::RequestTimer(std::function<void(int64_t, int64_t)> tick) : tick_(std::move(tick)) {}

RequestTimer::~RequestTimer() {
    Stop();
}

void RequestTimer::Start() {
    std::lock_guard lock(mutex_);
    if (thread_.joinable()) {
        return;
    }
    stopping_ = false;
    thread_ = std::thread([this] { Run(); });
}

void RequestTimer::Stop() {
    std::thread thread;
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        thread.swap(thread_);
    }
    wakeup_.notify_all();
    if (thread.joinable()) {
        thread.join();
    }
}

void RequestTimer::Run() {
    NameCurrentThread("stream class timer");
    const kernel::TimeScaleListener paceChanged([this] {
        std::lock_guard lock(mutex_);
        wakeup_.notify_all();
    });
    int64_t counted = Now100ns();  // simulated time handed to `tick` so far
    auto restUntil = std::chrono::steady_clock::now();
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        const int64_t seconds = (Now100ns() - counted) / kSecond100ns;
        if (seconds == 0 || std::chrono::steady_clock::now() < restUntil) {
            const auto due = std::max(kernel::RealTimeAt(counted + kSecond100ns), restUntil);
            wakeup_.wait_until(lock, due);
            continue;
        }
        counted += seconds * kSecond100ns;
        lock.unlock();
        tick_(seconds, counted);
        restUntil = std::chrono::steady_clock::now() + kShortestRest;
        lock.lock();
    }
}

}  // namespace winsim
