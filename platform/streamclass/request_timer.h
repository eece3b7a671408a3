// The stream class's once-a-second timer, as the real class drives request
// time-outs from an I/O timer: while the adapter is started, a thread of
// its own calls `tick` with the whole simulated seconds passed since the
// last call and the simulated time of the last of those ticks. It follows the simulated clock and
// its changes of pace; at large time scales it rests at least 10 ms of real time between calls and
// hands over the seconds that passed meanwhile at once.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace winsim {

// The timer's period in simulated time.
inline constexpr int64_t kSecond100ns = 10'000'000;

class RequestTimer {
  public:
    explicit RequestTimer(std::function<void(int64_t seconds, int64_t lastTick100ns)> tick);
    ~RequestTimer();  // stops
    RequestTimer(const RequestTimer&) = delete;
    RequestTimer& operator=(const RequestTimer&) = delete;

    // Starts counting from now; a running timer is left as it is.
    void Start();
    // Returns once the thread has ended; a tick under way finishes first.
    // Must not be called from inside `tick`.
    void Stop();

  private:
    void Run();

    std::function<void(int64_t, int64_t)> tick_;
    std::mutex mutex_;
    std::condition_variable wakeup_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace winsim
