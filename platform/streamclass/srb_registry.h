// Every SRB the stream class has handed to a minidriver, so that completions
// can be matched to their senders and the verifier can catch an SRB that is
// completed twice or never, through the wrong notification or on the wrong
// stream, or with its Status still STATUS_PENDING.
#pragma once

#include <strmini.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace winsim {

// How a minidriver completes SRBs: adapter SRBs with the device
// notification, stream SRBs with the stream notification.
inline constexpr std::string_view kDeviceRequestComplete = "DeviceRequestComplete";
inline constexpr std::string_view kStreamRequestComplete = "StreamRequestComplete";

// Seconds an SRB may stay with the minidriver before the class calls its
// time-out handler, as the class sets it at each send.
inline constexpr ULONG kDefaultTimeoutSeconds = 15;

class SrbRegistry {
  public:
    struct Entry {
        HW_STREAM_REQUEST_BLOCK srb{};
        // The per-request extension, if the minidriver asked for one.
        std::unique_ptr<uint8_t[]> extension;
        bool completed = false;
        // Simulated time of the last send: the timer's ticks before it do
        // not count for this use.
        int64_t sentAt100ns = 0;
        // Completed by StreamRequestComplete. SRB_OPEN_STREAM and
        // SRB_CLOSE_STREAM carry a stream object and are adapter requests.
        bool streamRequest = false;
        // Runs inside the first completion, on the completing thread, before
        // the sender learns of it.
        std::function<void()> onCompleted;
    };

    // A new, zeroed SRB that stays valid until the registry is destroyed, so a
    // late or repeated completion never touches freed memory. With a stream
    // object it is a stream SRB, else an adapter SRB.
    Entry& Create(SRB_COMMAND command, PVOID deviceExtension, ULONG perRequestExtensionSize,
                  PHW_STREAM_OBJECT streamObject = nullptr,
                  std::function<void()> onCompleted = nullptr);
    // An SRB to be sent later, perhaps many times (reads): it starts out
    // complete, and each Rearm is one send.
    Entry& CreateReusable(SRB_COMMAND command, PVOID deviceExtension, ULONG perRequestExtensionSize,
                          PHW_STREAM_OBJECT streamObject, std::function<void()> onCompleted);

    // Marks the SRB complete; `how` names the notification (kDeviceRequestComplete
    // or kStreamRequestComplete). Reports SRB_COMPLETED_TWICE or SRB_UNKNOWN,
    // and SRB_NOTIFICATION or SRB_STATUS_PENDING for a completion that still
    // counts. Returns true when this was the first completion of a known SRB.
    bool Complete(PHW_STREAM_REQUEST_BLOCK srb, std::string_view how,
                  PHW_STREAM_OBJECT notifiedStream = nullptr);

    // Makes a completed SRB outstanding again (Status STATUS_PENDING) so that
    // it can be sent once more: reads are reused frame after frame. A second
    // completion of the previous use is then taken as this use's.
    void Rearm(PHW_STREAM_REQUEST_BLOCK srb);

    // True for an SRB sent and not yet completed.
    bool Outstanding(PHW_STREAM_REQUEST_BLOCK srb) const;

    // The timer ticked `seconds` times, the last tick at simulated time
    // `lastTick100ns`, one second apart: counts TimeoutCounter of every
    // outstanding SRB down by the ticks after its send (not below 0, a
    // counter of 0 is left alone) and returns the SRBs whose counter reached
    // 0 now, oldest first.
    std::vector<PHW_STREAM_REQUEST_BLOCK> CountDownTimeouts(int64_t seconds, int64_t lastTick100ns);

    // Waits until the SRB is complete or `simulatedTimeout100ns` passes.
    bool WaitCompleted(const Entry& entry, int64_t simulatedTimeout100ns);

    // Reports SRB_NEVER_COMPLETED for every SRB still outstanding and marks
    // them so that the report is made once. Returns how many there were.
    size_t ReportOutstanding(std::string_view when);

    uint64_t Sent() const;
    uint64_t Completed() const;

    bool Owns(PHW_STREAM_REQUEST_BLOCK srb) const;

  private:
    Entry* Find(PHW_STREAM_REQUEST_BLOCK srb) const;

    mutable std::mutex mutex_;
    std::condition_variable completedCv_;
    std::deque<std::unique_ptr<Entry>> entries_;
    std::unordered_map<PHW_STREAM_REQUEST_BLOCK, Entry*> bySrb_;
    uint64_t completed_ = 0;
    uint64_t sent_ = 0;
};

std::string SrbCommandName(ULONG command);

}  // namespace winsim
