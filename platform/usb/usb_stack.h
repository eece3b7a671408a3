// The simulated USB stack: the physical device object to which a client
// driver sends IRP_MJ_INTERNAL_DEVICE_CONTROL / IOCTL_INTERNAL_USB_SUBMIT_URB.
//
// Every URB is validated, answered with STATUS_PENDING and completed later on
// one of the host-controller threads at DISPATCH_LEVEL, after the device model
// has answered on the wire. Faults can be injected per request kind.
#pragma once

#include <usbioctl.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include "usb/host_controller_behaviour.h"
#include "usb/usb_device.h"

namespace usbsim {

// What the client asked for, as the fault rules and statistics see it.
enum class RequestKind {
    SelectConfiguration,
    SelectInterface,
    GetDescriptor,
    VendorDevice,
    ClearEndpointFeature,
    ResetPipe,
    AbortPipe,
    BulkOrInterrupt,
    Other,
    Any,  // in a fault rule: any kind
};
const char* RequestKindName(RequestKind kind);

enum class FaultAction {
    FailWithStatus,         // complete with `usbdStatus` (NT status derived as the stack does)
    ShortData,              // data stage cut to `shortLength` bytes (see ShortInTransfer)
    Stall,                  // the endpoint stalls (USBD_STATUS_STALL_PID)
    NeverComplete,          // stays pending until cancelled or aborted
    CompleteSynchronously,  // completed inside IoCallDriver, which returns the status
    CompleteOutOfOrder,     // completion held back until the pipe's next request completed
};
// FailWithStatus and Stall keep the request from the device. ShortData lets
// the device answer in full and reports fewer bytes. CompleteSynchronously
// serves the request at once, ahead of anything queued on its pipe; if the
// device NAKs it, it pends like any other request. CompleteOutOfOrder serves
// the request as usual but completes it only after the next request of the
// same pipe has completed (or the pipe is aborted), so the client sees the
// two complete in reverse order. Bus-level transfer faults are FailWithStatus
// with USBD_STATUS_BABBLE_DETECTED or USBD_STATUS_XACT_ERROR.

// Only requests that pass validation are counted against a rule; when several
// rules fire for one request, the oldest one acts.
struct FaultRule {
    RequestKind kind = RequestKind::Any;
    uint32_t occurrence = 1;  // the n-th matching request from now; 0 = every one
    FaultAction action = FaultAction::FailWithStatus;
    USBD_STATUS usbdStatus = USBD_STATUS_DEV_NOT_RESPONDING;
    uint32_t shortLength = 0;
    uint32_t count = 1;    // it and the count - 1 matching requests after it
    uint8_t endpoint = 0;  // only requests on this endpoint address; 0 = any
};

struct UsbStackOptions {
    int hostControllerThreads = 2;  // at least 2: completions of one pipe may run in parallel
    CCHAR pdoStackSize = 2;
    ShortInTransfer shortInTransfer = ShortInTransfer::Succeeds;
};

// submitted = completed + cancelled + failed + still pending.
struct RequestCounts {
    uint64_t submitted = 0;  // every URB received, refused ones included
    uint64_t completed = 0;  // completed with success
    uint64_t cancelled = 0;  // completed with USBD_STATUS_CANCELED
    uint64_t failed = 0;     // completed with any other error, refusals included
};

// A pipe of the selected interface settings, as the host side sees it.
struct PipeStatus {
    USBD_PIPE_HANDLE handle = nullptr;
    uint8_t endpointAddress = 0;
    USBD_PIPE_TYPE type = UsbdPipeTypeControl;
    uint16_t maximumPacketSize = 0;
    ULONG maximumTransferSize = 0;
    bool halted = false;     // stalled; transfers fail until the pipe is reset
    uint8_t dataToggle = 0;  // DATA0 / DATA1 of the next packet
    size_t queued = 0;       // requests waiting, NAKed or held by a fault
};

class UsbStack {
  public:
    explicit UsbStack(UsbDevice& device, UsbStackOptions options = {});
    ~UsbStack();  // completes whatever is pending as cancelled, joins the threads
    UsbStack(const UsbStack&) = delete;
    UsbStack& operator=(const UsbStack&) = delete;

    // The device object the client sends its URBs to.
    PDEVICE_OBJECT PhysicalDeviceObject() const;

    void AddFault(const FaultRule& rule);
    void ClearFaults();

    // A cancelled request always completes later on a host-controller thread,
    // never inside IoCancelIrp. With a latency it completes only once that
    // much simulated time has passed since the cancellation, as a slow
    // controller does: a client that frees the IRP without waiting for its
    // completion is then caught by the verifier. 0 (the default) completes
    // it as soon as a host-controller thread gets to it.
    void SetCancellationLatency(int64_t simulated100ns);

    // Surprise removal: pending requests complete with STATUS_DEVICE_REMOVED /
    // USBD_STATUS_DEVICE_GONE, and so does everything submitted afterwards.
    void Remove();
    bool Removed() const;

    // Writes every transaction on the bus, as a submission and a completion
    // packet, to a pcap file (usbmon, link type 220) until StopTrace or
    // destruction; URBs that become standard requests (SET_CONFIGURATION,
    // CLEAR_FEATURE ...) show as those. Throws std::runtime_error when the
    // file cannot be created.
    void StartTrace(const std::filesystem::path& file);
    void StopTrace();

    // False while the device is in D3 (IRP_MJ_POWER / IRP_MN_SET_POWER sent
    // to the physical device object): transactions then go unanswered and
    // requests fail with USBD_STATUS_DEV_NOT_RESPONDING.
    bool DevicePowered() const;

    RequestCounts Counts(RequestKind kind = RequestKind::Any) const;
    uint64_t PendingRequests() const;

    // The host side of the configuration: 0 while unconfigured.
    uint8_t ConfigurationValue() const;
    uint8_t AlternateSetting(uint8_t interfaceNumber) const;
    std::vector<PipeStatus> OpenPipes() const;  // ordered by endpoint address

    // Blocks until no request is queued or being served (requests that the
    // device NAKs or that a NeverComplete fault holds do not count as busy).
    void WaitIdle();

    struct Impl;  // opaque outside the stack's sources

  private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace usbsim
