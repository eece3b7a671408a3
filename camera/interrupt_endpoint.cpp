#include "camera/interrupt_endpoint.h"

#include <algorithm>

namespace ornixcam {
namespace {

constexpr int64_t k100nsPerMs = 10'000;

}  // namespace

InterruptEndpoint::InterruptEndpoint(const EventsProfile& profile)
    : profile_(profile),
      faults_(profile.faults.begin(), profile.faults.end()),
      nextPeriodic100ns_(int64_t{profile.periodMs} * k100nsPerMs) {}

bool InterruptEndpoint::Raise(uint32_t mask, uint32_t enabled) {
    pending_ |= mask & enabled;
    return pending_ != 0;
}

usbsim::TransferResult InterruptEndpoint::Transfer(std::span<uint8_t> data) {
    std::optional<EventFault> fault;
    if (!faults_.empty()) {
        fault = faults_.front();
    }
    // A stall or an empty packet answers the next poll; a long packet is the
    // next one that carries events.
    if (pending_ == 0 && (!fault || fault == EventFault::LongPacket)) {
        return usbsim::TransferResult::Nak();
    }
    if (fault) {
        faults_.pop_front();
    }
    if (fault == EventFault::Stall) {
        return usbsim::TransferResult::Stall();
    }
    if (fault == EventFault::ZeroLengthPacket) {
        return usbsim::TransferResult::Ack(0);
    }
    const uint8_t word[4] = {static_cast<uint8_t>(pending_), static_cast<uint8_t>(pending_ >> 8),
                             static_cast<uint8_t>(pending_ >> 16),
                             static_cast<uint8_t>(pending_ >> 24)};
    size_t length = std::min<size_t>(sizeof word, data.size());
    std::copy_n(word, length, data.begin());
    if (fault == EventFault::LongPacket) {
        // A packet never exceeds the host's buffer, whatever the profile asks.
        const size_t wanted =
            profile_.longPacketBytes != 0 ? profile_.longPacketBytes : data.size();
        const size_t longLength = std::min(wanted, data.size());
        if (longLength > length) {
            std::fill(data.begin() + static_cast<std::ptrdiff_t>(length),
                      data.begin() + static_cast<std::ptrdiff_t>(longLength), kFiller);
            length = longLength;
        }
    }
    pending_ = 0;
    return usbsim::TransferResult::Ack(static_cast<uint32_t>(length));
}

uint32_t InterruptEndpoint::TakeScheduled(int64_t now100ns) {
    uint32_t due = 0;
    if (profile_.periodMs != 0 && nextPeriodic100ns_ <= now100ns) {
        // Periods missed while nobody asked merge into one report.
        const int64_t period = int64_t{profile_.periodMs} * k100nsPerMs;
        due |= profile_.periodicMask;
        nextPeriodic100ns_ += ((now100ns - nextPeriodic100ns_) / period + 1) * period;
    }
    for (; nextListed_ < profile_.at.size() &&
           int64_t{profile_.at[nextListed_].atMs} * k100nsPerMs <= now100ns;
         ++nextListed_) {
        due |= profile_.at[nextListed_].mask;
    }
    return due;
}

std::optional<int64_t> InterruptEndpoint::NextScheduled() const {
    std::optional<int64_t> next;
    if (profile_.periodMs != 0 && profile_.periodicMask != 0) {
        next = nextPeriodic100ns_;
    }
    if (nextListed_ < profile_.at.size()) {
        const int64_t listed = int64_t{profile_.at[nextListed_].atMs} * k100nsPerMs;
        next = next ? std::min(*next, listed) : listed;
    }
    return next;
}

}  // namespace ornixcam
