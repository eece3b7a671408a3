// Packets in the Linux usbmon binary format (pcap link type 220,
// LINKTYPE_USB_LINUX_MMAPPED): a 64-byte header followed by the data bytes,
// one packet when a transfer is submitted ('S') and one when it completes ('C').
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "usb/usb_device.h"

namespace usbsim {

inline constexpr uint32_t kLinkTypeUsbLinuxMmapped = 220;
inline constexpr size_t kUsbmonHeaderSize = 64;

// usbmon's numbering of transfer types.
enum class UsbmonTransferType : uint8_t { Isochronous = 0, Interrupt = 1, Control = 2, Bulk = 3 };

// The Linux URB flag that marks a device-to-host transfer.
inline constexpr uint32_t kUsbmonDirectionInFlag = 0x0200;

// Completion statuses in usbmon are negative errno values.
inline constexpr int32_t kUsbmonInProgress = -115;  // -EINPROGRESS, on every submission

struct UsbmonEvent {
    uint64_t id = 0;  // pairs a submission with its completion
    char type = 'S';  // 'S' submission, 'C' completion
    UsbmonTransferType transferType = UsbmonTransferType::Control;
    uint8_t endpoint = 0;  // with 0x80 for IN
    uint8_t device = 0;
    uint16_t bus = 0;
    std::optional<SetupPacket> setup;  // control submissions only
    int64_t time100ns = 0;
    int32_t status = kUsbmonInProgress;
    uint32_t length = 0;  // requested (submission) or moved (completion)
    int32_t interval = 0;

    bool In() const { return (endpoint & 0x80) != 0; }
};

// Header plus at most `maxData` bytes of `data`. `data` is what the packet
// carries: OUT data on a submission, IN data on a completion, nothing otherwise.
std::vector<uint8_t> EncodeUsbmonPacket(const UsbmonEvent& event, std::span<const uint8_t> data,
                                        size_t maxData);

}  // namespace usbsim
