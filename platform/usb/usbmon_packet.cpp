#include "usb/usbmon_packet.h"

#include <algorithm>

#include "usb/little_endian.h"

namespace usbsim {

namespace {

constexpr char kSetupPresent = '\0';
constexpr char kSetupAbsent = '-';
constexpr char kDataPresent = '\0';
constexpr char kDataInNotYet = '<';    // an IN submission: the data comes later
constexpr char kDataOutAlready = '>';  // an OUT completion: the data went with the submission

char DataFlag(const UsbmonEvent& event) {
    if (event.type == 'S' && event.In()) {
        return kDataInNotYet;
    }
    if (event.type == 'C' && !event.In()) {
        return kDataOutAlready;
    }
    return kDataPresent;
}

}  // namespace

std::vector<uint8_t> EncodeUsbmonPacket(const UsbmonEvent& event, std::span<const uint8_t> data,
                                        size_t maxData) {
    const size_t captured = std::min(data.size(), maxData);
    const bool withSetup = event.type == 'S' && event.setup.has_value();

    LittleEndianBuffer out;
    out.U64(event.id);
    out.U8(static_cast<uint8_t>(event.type));
    out.U8(static_cast<uint8_t>(event.transferType));
    out.U8(event.endpoint);
    out.U8(event.device);
    out.U16(event.bus);
    out.U8(static_cast<uint8_t>(withSetup ? kSetupPresent : kSetupAbsent));
    out.U8(static_cast<uint8_t>(DataFlag(event)));
    const int64_t microseconds = std::max<int64_t>(event.time100ns, 0) / 10;
    out.U64(static_cast<uint64_t>(microseconds / 1'000'000));
    out.U32(static_cast<uint32_t>(microseconds % 1'000'000));
    out.U32(static_cast<uint32_t>(event.status));
    out.U32(event.length);
    out.U32(static_cast<uint32_t>(captured));
    if (withSetup) {
        out.U8(event.setup->bmRequestType);
        out.U8(event.setup->bRequest);
        out.U16(event.setup->wValue);
        out.U16(event.setup->wIndex);
        out.U16(event.setup->wLength);
    } else {
        out.U64(0);
    }
    out.U32(static_cast<uint32_t>(event.interval));
    out.U32(0);  // start frame: isochronous only
    out.U32(event.In() ? kUsbmonDirectionInFlag : 0);
    out.U32(0);  // isochronous descriptors
    out.Append(data.first(captured));
    return out.Take();
}

}  // namespace usbsim
