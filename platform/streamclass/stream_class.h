// The simulated stream class: loads a minidriver through its DriverEntry,
// keeps the registration it receives, creates the adapter (device extension,
// class device object) on top of a physical device object, and sends the
// adapter request blocks (SRBs) the way the real class driver does, on as
// many threads as the caller likes when the minidriver turned off the
// class's synchronisation.
#pragma once

#include <strmini.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "streamclass/data_intersection.h"
#include "streamclass/event_listeners.h"
#include "streamclass/filter_view.h"

namespace winsim {

// The result of one SRB as the stream class saw it come back.
struct SrbResult {
    NTSTATUS status = STATUS_PENDING;
    ULONG actualBytesTransferred = 0;
    bool completed = false;
};

class StreamClass {
  public:
    // Calls driverEntry with a fresh driver object and a registry path; the
    // minidriver must call StreamClassRegisterAdapter from it.
    explicit StreamClass(PDRIVER_INITIALIZE driverEntry);
    // Unloads the minidriver: SRB_UNINITIALIZE_DEVICE when the adapter was
    // started, then the verifier reports SRBs never completed and any pool
    // the minidriver still holds (per tag).
    ~StreamClass();
    StreamClass(const StreamClass&) = delete;
    StreamClass& operator=(const StreamClass&) = delete;

    NTSTATUS DriverEntryStatus() const;
    const HW_INITIALIZATION_DATA& Registration() const;

    // Creates the adapter on top of `pdo`: the class device object (flags
    // DO_DEVICE_INITIALIZING set), the zeroed device extension. `realPdo`
    // may be NULL, as the real class may pass none. After Stop() this adds a
    // new adapter in place of the one torn down.
    void AddDevice(PDEVICE_OBJECT pdo, PDEVICE_OBJECT realPdo = nullptr);

    // SRB_INITIALIZE_DEVICE with PORT_CONFIGURATION_INFORMATION; on success
    // SRB_GET_STREAM_INFO into a buffer of exactly StreamDescriptorSize bytes,
    // then SRB_INITIALIZATION_COMPLETE. A failed or unusable stream descriptor
    // fails the start after SRB_UNINITIALIZE_DEVICE, as on Windows. Returns
    // the first failure, else STATUS_SUCCESS.
    NTSTATUS Start();
    // SRB_UNINITIALIZE_DEVICE. The moment the minidriver completes it, the
    // device extension is freed, as on Windows: a later write into it is an
    // EXTENSION_USE_AFTER_FREE finding (at unload or the next AddDevice),
    // a later read or write an ASan report. The adapter is gone afterwards.
    NTSTATUS Stop();

    // The stream descriptor size announced by SRB_INITIALIZE_DEVICE.
    ULONG StreamDescriptorSize() const;

    // The stream descriptor returned by SRB_GET_STREAM_INFO (empty before a
    // successful start). Its pointers lead into the minidriver's tables and
    // are valid only while the adapter is started; Stop() drops it.
    const std::vector<uint8_t>& StreamDescriptor() const;
    const HW_STREAM_HEADER* StreamHeader() const;
    // The status SRB_GET_STREAM_INFO came back with.
    NTSTATUS StreamInfoStatus() const;
    // What applications see of the filter, decoded at start.
    const FilterView& Filter() const;

    // Sends one adapter SRB and waits for its completion. `commandData` goes
    // into the SRB's CommandData (e.g. a DEVICE_POWER_STATE or a pointer).
    SrbResult SendAdapterSrb(SRB_COMMAND command, void* commandData = nullptr,
                             ULONG numberOfBytesToTransfer = 0, PIRP irp = nullptr);
    SrbResult SendAdapterSrbValue(SRB_COMMAND command, ULONG value);

    // SRB_UNKNOWN_DEVICE_COMMAND carrying an IRP whose current stack
    // location holds the given major and minor function.
    SrbResult SendUnknownDeviceCommand(UCHAR majorFunction, UCHAR minorFunction);

    PDEVICE_OBJECT ClassDeviceObject() const;
    // NULL before AddDevice and once the extension has been freed.
    PVOID DeviceExtension() const;
    PDRIVER_OBJECT DriverObject() const;

    // ---- Format negotiation (data_intersection.h)
    // KSPROPERTY_PIN_DATAINTERSECTION on `pin` of the started adapter:
    // `dataRanges` is the KSMULTIPLE_ITEM of ranges that follows the KSP_PIN,
    // `outputLength` the size of the application's output buffer. Writes past
    // that buffer, and a success claiming more bytes than it holds, are
    // DATA_INTERSECTION findings.
    IntersectionAnswer PinDataIntersection(ULONG pin, std::span<const uint8_t> dataRanges,
                                           ULONG outputLength);

    // SRBs sent and SRBs the minidriver has completed so far.
    uint64_t SrbsSent() const;
    uint64_t SrbsCompleted() const;

    // ---- Device events, as an application enables them on the filter
    // (streamclass/event_listeners.cpp).
    // Enables event `id` of `set`: both must be among the published device
    // event sets (else STATUS_PROPSET_NOT_FOUND / STATUS_NOT_FOUND); the
    // minidriver's device event routine is asked at PASSIVE_LEVEL and a
    // failure refuses the enable. Null unless enabled; `status` says why.
    std::shared_ptr<DeviceEventListener> EnableDeviceEvent(const GUID& set, ULONG id,
                                                           NTSTATUS* status = nullptr);
    // Forgets the event and tells the minidriver (Enable FALSE); its status
    // is returned. STATUS_NOT_FOUND for a listener not enabled.
    NTSTATUS DisableDeviceEvent(const std::shared_ptr<DeviceEventListener>& listener);
    // Every event still enabled, as closing the filter does; Stop() calls it.
    void DisableAllDeviceEvents();
    // SRB_PAGING_OUT_DRIVER, as the class sends it before paging the minidriver out.
    SrbResult PageOutDriver();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace winsim
