// The stream-class services a minidriver calls: registration from DriverEntry
// and the notifications that complete its requests.
#include <cstdio>
#include <optional>
#include <string>

#include "kernel/kernel.h"
#include "kernel/win_var_args.h"
#include "streamclass/adapter_directory.h"
#include "streamclass/device_events.h"
#include "streamclass/master_clock.h"
#include "streamclass/srb_registry.h"

namespace {

std::string Hex(const void* p) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", p);
    return text;
}

}  // namespace

extern "C" NTSTATUS STREAMAPI StreamClassRegisterAdapter(
    PVOID Argument1, PVOID Argument2, PHW_INITIALIZATION_DATA HwInitializationData) {
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

extern "C" void WINAPIV StreamClassDeviceNotification(
    STREAM_MINIDRIVER_DEVICE_NOTIFICATION_TYPE NotificationType, PVOID HwDeviceExtension, ...) {
    // The arguments after the extension are read by notification type, as the
    // real stream class reads them.
    WINSIM_WIN_VA_BEGIN(args, HwDeviceExtension);
    PHW_STREAM_REQUEST_BLOCK srb = nullptr;
    const GUID* eventSet = nullptr;
    ULONG eventId = 0;
    switch (NotificationType) {
        case DeviceRequestComplete:
            srb = args.Next<PHW_STREAM_REQUEST_BLOCK>();
            break;
        case SignalMultipleDeviceEvents:
            eventSet = args.Next<const GUID*>();
            eventId = args.Next<ULONG>();
            break;
        case SignalDeviceEvent:
        case DeleteDeviceEvent:
            (void)args.Next<PKSEVENT_ENTRY>();
            break;
        default:
            break;
    }
    WINSIM_WIN_VA_END(args);

    winsim::SrbRegistry* srbs = winsim::FindAdapter(HwDeviceExtension);
    if (srbs == nullptr) {
        winsim::ReportViolation(
            "SRB_UNKNOWN",
            "device notification for an unknown device extension " + Hex(HwDeviceExtension));
        return;
    }
    switch (NotificationType) {
        case DeviceRequestComplete:
            if (srb != nullptr && srb->HwDeviceExtension != HwDeviceExtension && srbs->Owns(srb)) {
                winsim::ReportViolation("SRB_UNKNOWN",
                                        "DeviceRequestComplete names another adapter's extension");
            }
            srbs->Complete(srb, winsim::kDeviceRequestComplete);
            break;
        case SignalMultipleDeviceEvents:
            winsim::ReportDeviceEvent(HwDeviceExtension, eventSet, eventId);
            break;
        case ReadyForNextDeviceRequest:
        case SignalDeviceEvent:
        case DeleteDeviceEvent:
        case SignalMultipleDeviceInstanceEvents:
            break;
        default:
            winsim::ReportViolation("SRB_UNKNOWN", "unknown device notification type " +
                                                       std::to_string(NotificationType));
            break;
    }
}

extern "C" void WINAPIV
StreamClassStreamNotification(STREAM_MINIDRIVER_STREAM_NOTIFICATION_TYPE NotificationType,
                              PHW_STREAM_OBJECT StreamObject, ...) {
    WINSIM_WIN_VA_BEGIN(args, StreamObject);
    PHW_STREAM_REQUEST_BLOCK srb = nullptr;
    if (NotificationType == StreamRequestComplete) {
        srb = args.Next<PHW_STREAM_REQUEST_BLOCK>();
    }
    WINSIM_WIN_VA_END(args);

    if (NotificationType != StreamRequestComplete) {
        return;
    }
    winsim::SrbRegistry* srbs =
        StreamObject != nullptr ? winsim::FindAdapter(StreamObject->HwDeviceExtension) : nullptr;
    if (srbs == nullptr) {
        winsim::ReportViolation(
            "SRB_UNKNOWN", "stream notification for an unknown stream object " + Hex(StreamObject));
        return;
    }
    srbs->Complete(srb, winsim::kStreamRequestComplete, StreamObject);
}

extern "C" void STREAMAPI StreamClassQueryMasterClockSync(HANDLE MasterClockHandle,
                                                          PHW_TIME_CONTEXT TimeContext) {
    if (TimeContext == nullptr) {
        winsim::ReportViolation("MASTER_CLOCK", "master clock queried without a time context");
        return;
    }
    const std::optional<int64_t> time = winsim::MasterClocks::StreamTime(MasterClockHandle);
    if (!time) {
        winsim::ReportViolation(
            "MASTER_CLOCK", "master clock query with the unknown handle " + Hex(MasterClockHandle));
        return;
    }
    TimeContext->Time = static_cast<ULONGLONG>(*time);
    TimeContext->SystemTime = static_cast<ULONGLONG>(winsim::Now100ns());
}
