// Ends a run that stopped making progress: each party (a pin's thread, the
// controller) reports progress and what it is doing; when one of them has
// not moved for the allowed real time, the watchdog prints every thread's
// state and aborts, so that a deadlock fails at once with an explanation
// instead of hanging until the test command's time-out.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ornixstress {

class Watchdog {
  public:
    // One party watched; reports are cheap and may come from its own thread only.
    class Party {
      public:
        void Progress(const char* doing);
        void Doing(const char* doing);  // a new activity, not yet progress

      private:
        friend class Watchdog;
        explicit Party(std::string name);
        std::string name_;
        std::atomic<int64_t> lastProgressNs_;
        std::atomic<const char*> doing_{"starting"};
    };

    Watchdog(double limitSeconds, std::string context);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    // Watched until Release (or the watchdog's end).
    Party& Watch(std::string name);
    void Release(Party& party);

    // What the watchdog prints before it aborts, also for tests of it.
    std::string Describe(const Party& stalled) const;

  private:
    void Run();

    const std::chrono::nanoseconds limit_;
    const std::string context_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::vector<std::unique_ptr<Party>> parties_;
    std::thread thread_;
};

}  // namespace ornixstress
