#include "camera/ready_timer.h"

#include <algorithm>

namespace ornixcam {

ReadyTimer::~ReadyTimer() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void ReadyTimer::Arm(uint8_t endpoint, Clock::time_point when) {
    {
        std::lock_guard lock(mutex_);
        auto [it, added] = armed_.emplace(endpoint, when);
        if (!added) {
            it->second = std::min(it->second, when);
        }
        if (!thread_.joinable()) {
            // Started on first use, so cameras that never pace cost no thread.
            thread_ = std::thread([this] { Run(); });
        }
    }
    changed_.notify_all();
}

void ReadyTimer::Run() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        if (armed_.empty()) {
            changed_.wait(lock);
            continue;
        }
        auto next = std::min_element(armed_.begin(), armed_.end(),
                                     [](auto& a, auto& b) { return a.second < b.second; });
        if (Clock::now() < next->second) {
            changed_.wait_until(lock, next->second);
            continue;
        }
        const uint8_t endpoint = next->first;
        armed_.erase(next);
        lock.unlock();
        fire_(endpoint);  // outside the lock: the host may arm again from here
        lock.lock();
    }
}

}  // namespace ornixcam
