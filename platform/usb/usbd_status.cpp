#include "usb/usbd_status.h"

namespace usbsim {

namespace {

// Requests the stack refused before they reached the bus.
bool IsParameterError(USBD_STATUS status) {
    switch (status) {
        case USBD_STATUS_INVALID_URB_FUNCTION:
        case USBD_STATUS_INVALID_PARAMETER:
        case USBD_STATUS_INVALID_PIPE_HANDLE:
        case USBD_STATUS_INTERFACE_NOT_FOUND:
        case USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR:
            return true;
        default:
            return false;
    }
}

// Linux errno values, spelled out: this code also builds where <cerrno> differs.
enum Errno : int32_t {
    kENOENT = 2,
    kEIO = 5,
    kEINVAL = 22,
    kEPIPE = 32,
    kETIME = 62,
    kEPROTO = 71,
    kEOVERFLOW = 75,
    kEILSEQ = 84,
    kESHUTDOWN = 108,
    kETIMEDOUT = 110,
    kEREMOTEIO = 121,
};

}  // namespace

NTSTATUS NtStatusFromUsbd(USBD_STATUS status) {
    if (USBD_SUCCESS(status)) {
        return STATUS_SUCCESS;
    }
    if (IsParameterError(status)) {
        return STATUS_INVALID_PARAMETER;
    }
    switch (status) {
        case USBD_STATUS_CANCELED:
            return STATUS_CANCELLED;
        case USBD_STATUS_DEVICE_GONE:
            return STATUS_DEVICE_REMOVED;
        default:
            return STATUS_UNSUCCESSFUL;
    }
}

int32_t UsbmonStatusFromUsbd(USBD_STATUS status) {
    if (USBD_SUCCESS(status)) {
        return 0;
    }
    if (IsParameterError(status)) {
        return -kEINVAL;
    }
    switch (status) {
        case USBD_STATUS_STALL_PID:
        case USBD_STATUS_ENDPOINT_HALTED:
            return -kEPIPE;
        case USBD_STATUS_CANCELED:
            return -kENOENT;  // what an unlinked URB reports
        case USBD_STATUS_DEVICE_GONE:
            return -kESHUTDOWN;
        case USBD_STATUS_DEV_NOT_RESPONDING:
            return -kETIME;
        case USBD_STATUS_XACT_ERROR:
            return -kEPROTO;
        case USBD_STATUS_CRC:
            return -kEILSEQ;
        case USBD_STATUS_BABBLE_DETECTED:
        case USBD_STATUS_DATA_OVERRUN:
            return -kEOVERFLOW;
        case USBD_STATUS_DATA_UNDERRUN:
        case USBD_STATUS_ERROR_SHORT_TRANSFER:  // a short read the client did not allow
            return -kEREMOTEIO;
        case USBD_STATUS_TIMEOUT:
            return -kETIMEDOUT;
        default:
            return -kEIO;
    }
}

}  // namespace usbsim
