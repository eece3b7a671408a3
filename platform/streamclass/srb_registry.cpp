#include "streamclass/srb_registry.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <utility>
#include <vector>

#include "kernel/kernel.h"
#include "kernel/untraced.h"
#include "streamclass/request_timer.h"

namespace winsim {
namespace {

std::string Describe(std::string_view what, const void* srb, std::string_view how) {
    char address[32];
    std::snprintf(address, sizeof address, "%p", srb);
    return std::string(what) + " (SRB " + address + ", " + std::string(how) + ")";
}

}  // namespace

SrbRegistry::Entry& SrbRegistry::Create(SRB_COMMAND command, PVOID deviceExtension,
                                        ULONG perRequestExtensionSize,
                                        PHW_STREAM_OBJECT streamObject,
                                        std::function<void()> onCompleted) {
    auto entry = std::make_unique<Entry>();
    entry->onCompleted = std::move(onCompleted);
    entry->srb.SizeOfThisPacket = sizeof(HW_STREAM_REQUEST_BLOCK);
    entry->srb.Command = command;
    entry->srb.StreamObject = streamObject;
    entry->srb.Status = STATUS_PENDING;
    entry->srb.HwDeviceExtension = deviceExtension;
    // The class's default time-out; data SRBs get it again at each send.
    entry->srb.TimeoutOriginal = kDefaultTimeoutSeconds;
    entry->srb.TimeoutCounter = kDefaultTimeoutSeconds;
    entry->streamRequest = streamObject != nullptr;
    if (perRequestExtensionSize != 0) {
        entry->extension = std::make_unique<uint8_t[]>(perRequestExtensionSize);
        entry->srb.SRBExtension = entry->extension.get();
    }
    entry->sentAt100ns = Now100ns();
    std::lock_guard lock(mutex_);
    Entry& ref = *entry;
    bySrb_[&ref.srb] = &ref;
    ++sent_;
    entries_.push_back(std::move(entry));
    return ref;
}

SrbRegistry::Entry* SrbRegistry::Find(PHW_STREAM_REQUEST_BLOCK srb) const {
    auto it = bySrb_.find(srb);
    return it == bySrb_.end() ? nullptr : it->second;
}

bool SrbRegistry::Owns(PHW_STREAM_REQUEST_BLOCK srb) const {
    std::lock_guard lock(mutex_);
    return Find(srb) != nullptr;
}

bool SrbRegistry::Complete(PHW_STREAM_REQUEST_BLOCK srb, std::string_view how,
                           PHW_STREAM_OBJECT notifiedStream) {
    std::unique_lock lock(mutex_);
    Entry* entry = Find(srb);
    if (entry == nullptr) {
        lock.unlock();
        ReportViolation("SRB_UNKNOWN",
                        Describe("a completion for an SRB the stream class never sent", srb, how));
        return false;
    }
    if (entry->completed) {
        const ULONG command = entry->srb.Command;
        lock.unlock();
        ReportViolation("SRB_COMPLETED_TWICE",
                        Describe(SrbCommandName(command) + " completed a second time", srb, how));
        return false;
    }
    // The checks of a completion that still counts: the SRB is done either way.
    const bool streamSrb = entry->streamRequest;
    const std::string name = SrbCommandName(entry->srb.Command);
    std::vector<std::pair<const char*, std::string>> findings;
    if (streamSrb != (how == kStreamRequestComplete)) {
        findings.emplace_back(
            "SRB_NOTIFICATION",
            Describe(std::string(streamSrb ? "stream " : "adapter ") + "request " + name +
                         " completed through " + std::string(how) + "; it takes " +
                         std::string(streamSrb ? kStreamRequestComplete : kDeviceRequestComplete),
                     srb, how));
    }
    if (streamSrb && how == kStreamRequestComplete && notifiedStream != entry->srb.StreamObject) {
        char streams[96];
        std::snprintf(streams, sizeof streams, "stream object %p; it was sent to %p",
                      static_cast<void*>(notifiedStream),
                      static_cast<void*>(entry->srb.StreamObject));
        findings.emplace_back("SRB_WRONG_STREAM",
                              Describe(name + " completed on " + streams, srb, how));
    }
    if (entry->srb.Status == STATUS_PENDING) {
        findings.emplace_back(
            "SRB_STATUS_PENDING",
            Describe(name + " completed with its Status still STATUS_PENDING", srb, how));
    }
    // Recorded before the sender can see the completion.
    for (auto& [check, message] : findings) {
        ReportViolation(check, std::move(message));
    }
    entry->completed = true;
    ++completed_;
    if (entry->onCompleted) {
        entry->onCompleted();
    }
    completedCv_.notify_all();
    return true;
}

SrbRegistry::Entry& SrbRegistry::CreateReusable(SRB_COMMAND command, PVOID deviceExtension,
                                                ULONG perRequestExtensionSize,
                                                PHW_STREAM_OBJECT streamObject,
                                                std::function<void()> onCompleted) {
    Entry& entry = Create(command, deviceExtension, perRequestExtensionSize, streamObject,
                          std::move(onCompleted));
    std::lock_guard lock(mutex_);
    entry.completed = true;
    --sent_;
    return entry;
}

void SrbRegistry::Rearm(PHW_STREAM_REQUEST_BLOCK srb) {
    std::lock_guard lock(mutex_);
    if (Entry* entry = Find(srb)) {
        ++sent_;
        entry->completed = false;
        entry->sentAt100ns = Now100ns();
        entry->srb.Status = STATUS_PENDING;
    }
}

bool SrbRegistry::Outstanding(PHW_STREAM_REQUEST_BLOCK srb) const {
    std::lock_guard lock(mutex_);
    const Entry* entry = Find(srb);
    return entry != nullptr && !entry->completed;
}

std::vector<PHW_STREAM_REQUEST_BLOCK> SrbRegistry::CountDownTimeouts(int64_t seconds,
                                                                     int64_t lastTick100ns) {
    std::vector<PHW_STREAM_REQUEST_BLOCK> expired;
    std::lock_guard lock(mutex_);
    // The minidriver may rewrite TimeoutCounter at any moment without a lock
    // of ours, as on Windows: the detector is not shown these accesses.
    kernel::UnwatchedAccessScope unwatched;
    for (auto& entry : entries_) {
        ULONG& counter = entry->srb.TimeoutCounter;
        if (entry->completed || counter == 0 || entry->sentAt100ns >= lastTick100ns) {
            continue;
        }
        // Ticks at lastTick, lastTick - 1 s, ...: those after the send count.
        const int64_t since = lastTick100ns - entry->sentAt100ns;
        const int64_t ticks = std::min(seconds, (since + kSecond100ns - 1) / kSecond100ns);
        counter = ticks >= counter ? 0 : counter - static_cast<ULONG>(ticks);
        if (counter == 0) {
            expired.push_back(&entry->srb);
        }
    }
    return expired;
}

bool SrbRegistry::WaitCompleted(const Entry& entry, int64_t simulatedTimeout100ns) {
    const double scale = TimeScale() > 0 ? TimeScale() : 1.0;
    const auto real = std::chrono::nanoseconds(
        static_cast<int64_t>(static_cast<double>(simulatedTimeout100ns) * 100.0 / scale));
    std::unique_lock lock(mutex_);
    return completedCv_.wait_for(lock, real, [&] { return entry.completed; });
}

size_t SrbRegistry::ReportOutstanding(std::string_view when) {
    std::vector<std::string> messages;
    {
        std::lock_guard lock(mutex_);
        for (auto& entry : entries_) {
            if (!entry->completed) {
                messages.push_back(
                    Describe(SrbCommandName(entry->srb.Command) + " was never completed",
                             &entry->srb, when));
                // Count it as done so that it is reported once only.
                entry->completed = true;
            }
        }
    }
    for (auto& message : messages) {
        ReportViolation("SRB_NEVER_COMPLETED", message);
    }
    return messages.size();
}

uint64_t SrbRegistry::Sent() const {
    std::lock_guard lock(mutex_);
    return sent_;
}

uint64_t SrbRegistry::Completed() const {
    std::lock_guard lock(mutex_);
    return completed_;
}

std::string SrbCommandName(ULONG command) {
    static constexpr const char* kStreamNames[] = {"SRB_READ_DATA",
                                                   "SRB_WRITE_DATA",
                                                   "SRB_GET_STREAM_STATE",
                                                   "SRB_SET_STREAM_STATE",
                                                   "SRB_SET_STREAM_PROPERTY",
                                                   "SRB_GET_STREAM_PROPERTY",
                                                   "SRB_OPEN_MASTER_CLOCK",
                                                   "SRB_INDICATE_MASTER_CLOCK",
                                                   "SRB_UNKNOWN_STREAM_COMMAND",
                                                   "SRB_SET_STREAM_RATE",
                                                   "SRB_PROPOSE_DATA_FORMAT",
                                                   "SRB_CLOSE_MASTER_CLOCK",
                                                   "SRB_PROPOSE_STREAM_RATE",
                                                   "SRB_SET_DATA_FORMAT",
                                                   "SRB_GET_DATA_FORMAT",
                                                   "SRB_BEGIN_FLUSH",
                                                   "SRB_END_FLUSH"};
    static constexpr const char* kAdapterNames[] = {
        "SRB_GET_STREAM_INFO",        "SRB_OPEN_STREAM",
        "SRB_CLOSE_STREAM",           "SRB_OPEN_DEVICE_INSTANCE",
        "SRB_CLOSE_DEVICE_INSTANCE",  "SRB_GET_DEVICE_PROPERTY",
        "SRB_SET_DEVICE_PROPERTY",    "SRB_INITIALIZE_DEVICE",
        "SRB_CHANGE_POWER_STATE",     "SRB_UNINITIALIZE_DEVICE",
        "SRB_UNKNOWN_DEVICE_COMMAND", "SRB_PAGING_OUT_DRIVER",
        "SRB_GET_DATA_INTERSECTION",  "SRB_INITIALIZATION_COMPLETE",
        "SRB_SURPRISE_REMOVAL"};
    if (command < std::size(kStreamNames)) {
        return kStreamNames[command];
    }
    if (command >= SRB_GET_STREAM_INFO &&
        command - SRB_GET_STREAM_INFO < std::size(kAdapterNames)) {
        return kAdapterNames[command - SRB_GET_STREAM_INFO];
    }
    char name[32];
    std::snprintf(name, sizeof name, "SRB 0x%x", command);
    return name;
}

}  // namespace winsim
