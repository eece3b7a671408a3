#include "usb/request_kind.h"

namespace usbsim {

const char* RequestKindName(RequestKind kind) {
    switch (kind) {
        case RequestKind::SelectConfiguration:
            return "select configuration";
        case RequestKind::SelectInterface:
            return "select interface";
        case RequestKind::GetDescriptor:
            return "get descriptor";
        case RequestKind::VendorDevice:
            return "vendor device request";
        case RequestKind::ClearEndpointFeature:
            return "clear endpoint feature";
        case RequestKind::ResetPipe:
            return "reset pipe";
        case RequestKind::AbortPipe:
            return "abort pipe";
        case RequestKind::BulkOrInterrupt:
            return "bulk or interrupt transfer";
        case RequestKind::Other:
            return "other request";
        case RequestKind::Any:
            return "any request";
    }
    return "unknown request";
}

RequestKind RequestKindOf(USHORT urbFunction) {
    switch (urbFunction) {
        case URB_FUNCTION_SELECT_CONFIGURATION:
            return RequestKind::SelectConfiguration;
        case URB_FUNCTION_SELECT_INTERFACE:
            return RequestKind::SelectInterface;
        case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE:
            return RequestKind::GetDescriptor;
        case URB_FUNCTION_VENDOR_DEVICE:
            return RequestKind::VendorDevice;
        case URB_FUNCTION_CLEAR_FEATURE_TO_ENDPOINT:
            return RequestKind::ClearEndpointFeature;
        case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL:
            return RequestKind::ResetPipe;
        case URB_FUNCTION_ABORT_PIPE:
            return RequestKind::AbortPipe;
        case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
            return RequestKind::BulkOrInterrupt;
        default:
            return RequestKind::Other;
    }
}

bool MustBeSubmittedAtPassiveLevel(RequestKind kind) {
    switch (kind) {
        case RequestKind::SelectConfiguration:
        case RequestKind::SelectInterface:
        case RequestKind::GetDescriptor:
        case RequestKind::VendorDevice:
        case RequestKind::ClearEndpointFeature:
        case RequestKind::ResetPipe:
            return true;
        default:
            return false;
    }
}

}  // namespace usbsim
