// Wakes the host for endpoints that NAKed until a frame is due: a thread that
// sleeps until the real moment a simulated time arrives and then calls back.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace ornixcam {

class ReadyTimer {
  public:
    using Clock = std::chrono::steady_clock;

    explicit ReadyTimer(std::function<void(uint8_t)> fire) : fire_(std::move(fire)) {}
    ~ReadyTimer();
    ReadyTimer(const ReadyTimer&) = delete;
    ReadyTimer& operator=(const ReadyTimer&) = delete;

    // Calls back for `endpoint` at `when` (an earlier wake for it wins).
    void Arm(uint8_t endpoint, Clock::time_point when);

  private:
    void Run();

    std::function<void(uint8_t)> fire_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<uint8_t, Clock::time_point> armed_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace ornixcam
