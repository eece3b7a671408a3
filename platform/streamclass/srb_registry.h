// Every SRB the stream class has handed to a minidriver, so that completions
// can be matched to their senders and the verifier can catch an SRB that is
// completed twice or never.
#pragma once

#include <strmini.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace winsim {

class SrbRegistry {
public:
    struct Entry {
        HW_STREAM_REQUEST_BLOCK srb{};
        std::unique_ptr<uint8_t[]> extension;  // per-request extension, if the minidriver asked for one
        bool completed = false;
    };

    // A new, zeroed SRB that stays valid until the registry is destroyed, so a
    // late or repeated completion never touches freed memory.
    Entry& Create(SRB_COMMAND command, PVOID deviceExtension, ULONG perRequestExtensionSize);

    // Marks the SRB complete; reports SRB_COMPLETED_TWICE or SRB_UNKNOWN to the
    // verifier. Returns true when this was the first, valid completion.
    bool Complete(PHW_STREAM_REQUEST_BLOCK srb, std::string_view how);

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
};

std::string SrbCommandName(ULONG command);

}  // namespace winsim
