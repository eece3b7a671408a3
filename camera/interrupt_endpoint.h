// The camera's interrupt-IN endpoint: one little-endian 32-bit event word per
// packet, carrying the device events that occurred since the last packet.
//
// Like the camera's event logic, it latches only events that are enabled
// (ORNIX_EVENT_ENABLE / ORNIX_EVENT_DISABLE): an event that occurs while
// disabled is lost, and disabling an event drops it if it is still pending.
// With nothing pending the endpoint NAKs. Not thread-safe: the camera locks.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <span>

#include "camera/profile.h"
#include "platform/usb/usb_device.h"

namespace ornixcam {

class InterruptEndpoint {
  public:
    explicit InterruptEndpoint(const EventsProfile& profile);

    // Latches the events of `mask` that are in `enabled`; true when a packet
    // is now waiting for the host.
    bool Raise(uint32_t mask, uint32_t enabled);
    // Pending events outside `enabled` are dropped.
    void Restrict(uint32_t enabled) { pending_ &= enabled; }
    uint32_t Pending() const { return pending_; }

    // The next poll misbehaves; faults queue up in order.
    void InjectFault(EventFault fault) { faults_.push_back(fault); }
    size_t FaultsArmed() const { return faults_.size(); }

    // One IN transaction; `data` is the host's buffer.
    usbsim::TransferResult Transfer(std::span<uint8_t> data);

    // The events of the profile's schedule due by `now100ns` (simulated time
    // since power-up), each reported once; the schedule moves past them.
    uint32_t TakeScheduled(int64_t now100ns);
    // When the schedule next raises something; nullopt when it never will.
    std::optional<int64_t> NextScheduled() const;

  private:
    static constexpr uint8_t kFiller = 0xA5;

    const EventsProfile& profile_;
    uint32_t pending_ = 0;
    std::deque<EventFault> faults_;
    int64_t nextPeriodic100ns_;
    size_t nextListed_ = 0;
};

}  // namespace ornixcam
