// The stream-class services a minidriver calls: registration from DriverEntry
// and the notifications that complete its requests.
#include <cstdarg>
#include <cstdio>
#include <string>

#include "kernel/kernel.h"
#include "streamclass/adapter_directory.h"
#include "streamclass/device_events.h"
#include "streamclass/srb_registry.h"

namespace {

std::string Hex(const void* p) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", p);
    return text;
}

}  // namespace

extern "C" NTSTATUS STREAMAPI StreamClassRegisterAdapter(PVOID Argument1, PVOID Argument2,
                                                         PHW_INITIALIZATION_DATA HwInitializationData) {
    (void)Argument2;
    auto* driver = static_cast<PDRIVER_OBJECT>(Argument1);
    if (driver == nullptr || HwInitializationData == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const HW_INITIALIZATION_DATA& data = *HwInitializationData;
    // The class checks the record's size first: a minidriver built against
    // another layout must not be trusted with any other field.
    if (data.HwInitializationDataSize != sizeof(HW_INITIALIZATION_DATA)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (data.HwReceivePacket == nullptr || data.HwCancelPacket == nullptr ||
        data.HwRequestTimeoutHandler == nullptr || data.DeviceExtensionSize == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    winsim::RememberRegistration(driver, data);
    return STATUS_SUCCESS;
}

extern "C" void StreamClassDeviceNotification(STREAM_MINIDRIVER_DEVICE_NOTIFICATION_TYPE NotificationType,
                                              PVOID HwDeviceExtension, ...) {
    va_list args;
    va_start(args, HwDeviceExtension);
    auto* srb = va_arg(args, PHW_STREAM_REQUEST_BLOCK);
    if (NotificationType == SignalMultipleDeviceEvents) {
        winsim::ReportDeviceEvent(HwDeviceExtension, args);  // reads the remaining arguments
    }
    va_end(args);

    winsim::SrbRegistry* srbs = winsim::FindAdapter(HwDeviceExtension);
    if (srbs == nullptr) {
        winsim::ReportViolation("SRB_UNKNOWN", "device notification for an unknown device extension " +
                                                   Hex(HwDeviceExtension));
        return;
    }
    switch (NotificationType) {
        case DeviceRequestComplete:
            if (srb != nullptr && srb->HwDeviceExtension != HwDeviceExtension && srbs->Owns(srb)) {
                winsim::ReportViolation("SRB_UNKNOWN",
                                        "DeviceRequestComplete names another adapter's extension");
            }
            srbs->Complete(srb, "DeviceRequestComplete");
            break;
        case ReadyForNextDeviceRequest:
        case SignalMultipleDeviceEvents:
        case SignalDeviceEvent:
        case DeleteDeviceEvent:
        case SignalMultipleDeviceInstanceEvents:
            // Device events arrive with the event sets; nothing to do yet.
            break;
        default:
            winsim::ReportViolation("SRB_UNKNOWN", "unknown device notification type " +
                                                       std::to_string(NotificationType));
            break;
    }
}

extern "C" void StreamClassStreamNotification(STREAM_MINIDRIVER_STREAM_NOTIFICATION_TYPE NotificationType,
                                              PHW_STREAM_OBJECT StreamObject, ...) {
    va_list args;
    va_start(args, StreamObject);
    auto* srb = va_arg(args, PHW_STREAM_REQUEST_BLOCK);
    va_end(args);

    if (NotificationType != StreamRequestComplete) {
        return;
    }
    winsim::SrbRegistry* srbs =
        StreamObject != nullptr ? winsim::FindAdapter(StreamObject->HwDeviceExtension) : nullptr;
    if (srbs == nullptr) {
        winsim::ReportViolation("SRB_UNKNOWN", "stream notification for an unknown stream object " +
                                                   Hex(StreamObject));
        return;
    }
    srbs->Complete(srb, "StreamRequestComplete");
}

extern "C" void STREAMAPI StreamClassQueryMasterClockSync(HANDLE MasterClockHandle,
                                                          PHW_TIME_CONTEXT TimeContext) {
    // The master clock is the simulated system clock until streams arrive.
    (void)MasterClockHandle;
    if (TimeContext != nullptr) {
        TimeContext->Time = static_cast<ULONGLONG>(winsim::Now100ns());
        TimeContext->SystemTime = TimeContext->Time;
    }
}
