// Device events as applications use them: each enable on a filter becomes a
// listener with its own KSEVENT_ENTRY, offered to the minidriver's device
// event routine; SignalMultipleDeviceEvents reaches only the listeners of
// that adapter that enabled that event set and id.
#pragma once

#include <strmini.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace winsim {

// How long a listener waits for an event by default: generous, in
// simulated time, so that only a lost event makes the wait fail.
inline constexpr int64_t kDeviceEventPatience100ns = 60LL * 10'000'000;
// The same for WaitForNext, in real time: a fast clock does not shorten it.
inline constexpr std::chrono::milliseconds kDeviceEventRealPatience{30'000};

class DeviceEventListener {
  public:
    DeviceEventListener(PVOID extension, const GUID& set, ULONG id, ULONG setIndex,
                        const KSEVENT_SET* publishedSet);
    DeviceEventListener(const DeviceEventListener&) = delete;
    DeviceEventListener& operator=(const DeviceEventListener&) = delete;

    const GUID& Set() const { return set_; }
    ULONG Id() const { return id_; }
    ULONG SetIndex() const { return setIndex_; }
    bool Enabled() const;
    // Events signalled for this listener while it was enabled.
    uint64_t Count() const;
    // Blocks until Count() reaches `count` or `timeout100ns` of simulated time
    // has passed; true when the count was reached.
    bool WaitForCount(uint64_t count, int64_t timeout100ns = kDeviceEventPatience100ns) const;
    // Takes the oldest event not yet taken by an earlier call, waiting for
    // one for up to `realTimeout` of real time: true when one was taken.
    // False at once for a disabled listener with none left to take.
    bool WaitForNext(std::chrono::milliseconds realTimeout = kDeviceEventRealPatience);

    // Calls `observer` after each event signalled for this listener, on the
    // signalling thread (inside the minidriver's notification, possibly at
    // DISPATCH_LEVEL): it must only note the event and return.
    void OnSignal(std::function<void()> observer);

    // The class's record and the application's data, as the minidriver sees them.
    PKSEVENT_ENTRY Entry() { return &entry_; }
    PKSEVENTDATA Data() { return &data_; }

  private:
    friend class DeviceEventListeners;
    void Signal();
    void Disable();

    PVOID extension_;
    GUID set_;
    ULONG id_;
    ULONG setIndex_;
    KSEVENT_ENTRY entry_{};
    KSEVENTDATA data_{};
    mutable std::mutex mutex_;
    mutable std::condition_variable signalled_;
    uint64_t count_ = 0;
    uint64_t taken_ = 0;  // by WaitForNext
    bool enabled_ = true;
    std::function<void()> observer_;
};

// The enabled events of every adapter, by device extension.
class DeviceEventListeners {
  public:
    static void Add(const std::shared_ptr<DeviceEventListener>& listener);
    // False when the listener was not enabled (any more).
    static bool Remove(const std::shared_ptr<DeviceEventListener>& listener);
    // The listeners of one adapter, taken out of the list.
    static std::vector<std::shared_ptr<DeviceEventListener>> TakeAll(PVOID extension);
    // One SignalMultipleDeviceEvents notification.
    static void Deliver(PVOID extension, const GUID& set, ULONG id);
};

}  // namespace winsim
