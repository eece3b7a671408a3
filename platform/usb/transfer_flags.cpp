#include "usb/transfer_flags.h"

#include <cstdio>

namespace usbsim {

namespace {

constexpr ULONG kDefinedForTransfers =
    USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK | USBD_START_ISO_TRANSFER_ASAP;
constexpr ULONG kDefinedOnTheDefaultPipe = kDefinedForTransfers | USBD_DEFAULT_PIPE_TRANSFER;

std::string Hex(ULONG value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(value));
    return text;
}

}  // namespace

std::optional<std::string> TransferFlagsProblem(const URB& urb, RequestKind kind) {
    ULONG flags = 0;
    ULONG defined = 0;
    const char* what = nullptr;
    switch (kind) {
        case RequestKind::BulkOrInterrupt:
            if (urb.UrbHeader.Length < sizeof urb.UrbBulkOrInterruptTransfer) {
                return std::nullopt;  // refused as malformed
            }
            flags = urb.UrbBulkOrInterruptTransfer.TransferFlags;
            defined = kDefinedForTransfers;
            what = "bulk or interrupt transfer";
            break;
        case RequestKind::VendorDevice:
            if (urb.UrbHeader.Length < sizeof urb.UrbControlVendorClassRequest) {
                return std::nullopt;
            }
            flags = urb.UrbControlVendorClassRequest.TransferFlags;
            defined = kDefinedOnTheDefaultPipe;
            what = "vendor request";
            break;
        default:
            return std::nullopt;
    }
    if ((flags & ~defined) == 0) {
        return std::nullopt;
    }
    return std::string(what) + " with TransferFlags " + Hex(flags) + ": bits " +
           Hex(flags & ~defined) + " are not defined for it (allowed: " + Hex(defined) + ")";
}

bool ShortInTransferFails(ULONG flags, ShortInTransfer behaviour) {
    return behaviour == ShortInTransfer::Fails &&
           (flags & USBD_TRANSFER_DIRECTION) == USBD_TRANSFER_DIRECTION_IN &&
           (flags & USBD_SHORT_TRANSFER_OK) == 0;
}

}  // namespace usbsim
