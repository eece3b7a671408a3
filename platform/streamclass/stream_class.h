// The simulated stream class: loads a minidriver through its DriverEntry,
// keeps the registration it receives, creates the adapter (device extension,
// class device object) on top of a physical device object, and sends the
// adapter request blocks (SRBs) the way the real class driver does, on as
// many threads as the caller likes when the minidriver turned off the
// class's synchronisation.
#pragma once

#include <strmini.h>

#include <cstdint>
#include <functional>
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

// A stream control SRB as it came back: the result and a copy of the SRB
// (e.g. CommandData.StreamState of SRB_GET_STREAM_STATE).
struct StreamSrbResult : SrbResult {
    HW_STREAM_REQUEST_BLOCK srb{};
};

// The answer to SRB_GET_STREAM_PROPERTY: the output buffer as the
// minidriver left it (outputLength bytes).
struct StreamPropertyAnswer {
    NTSTATUS status = STATUS_PENDING;
    ULONG actualBytesTransferred = 0;
    std::vector<uint8_t> output;
};

class StreamClass {
  public:
    // One property request as an application sends it through KS.
    struct PropertyRequest {
        GUID set{};
        ULONG id = 0;
        std::vector<uint8_t> propertyExtra;  // input after the 24-byte KSPROPERTY header
        ULONG dataSize = 0;                  // size of the data buffer
        std::vector<uint8_t> data;           // its contents when sent (zero-filled up to dataSize)
    };
    struct PropertyAnswer {
        NTSTATUS status = STATUS_PENDING;
        ULONG actualBytesTransferred = 0;  // the IRP's Information
        std::vector<uint8_t> data;         // the data buffer after the request (dataSize bytes)
        bool reachedMinidriver = false;    // false when the class answered it itself
    };

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

    // ---- Cancellation, time-out and power (streamclass/request_control.cpp)
    // An application cancels the IRP behind `srb`: if the SRB is outstanding
    // (sent, not completed) the class calls the minidriver's HwCancelPacket
    // at DISPATCH_LEVEL and returns true; for an SRB already complete it
    // returns false without a call. As on Windows the call races the SRB's
    // own completion; the SRB stays valid, and a second completion is still
    // SRB_COMPLETED_TWICE.
    bool CancelSrb(PHW_STREAM_REQUEST_BLOCK srb);
    // While the adapter is started, once per simulated second, the class
    // counts TimeoutCounter of every outstanding SRB down (a counter of 0 is
    // left alone) and calls HwRequestTimeoutHandler at DISPATCH_LEVEL, with
    // no lock a completion needs, for each counter that reaches 0. The
    // counter stays 0 unless the minidriver sets it again; data SRBs are
    // armed with 15 s at each send. Calls made so far:
    uint64_t TimeoutsReported() const;
    // The power manager's device power IRP as the class handles it. For
    // D1..D3 SRB_CHANGE_POWER_STATE (CommandData.DeviceState) goes to the
    // minidriver first, then IRP_MJ_POWER / IRP_MN_SET_POWER to the
    // physical device object, whatever the minidriver answered. For D0 the
    // bus powers the device first (its failure is returned, not completed,
    // without an SRB), then the SRB. Other values reach the minidriver
    // unchanged and do not touch the device. Returns the SRB's result.
    SrbResult SetDevicePowerState(DEVICE_POWER_STATE state);

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

    // ---- Property requests (streamclass/properties.cpp)
    // A get or set of a device property, checked the way KS checks it
    // against the property sets published at SRB_GET_STREAM_INFO before the
    // minidriver hears of it: an unpublished set is STATUS_PROPSET_NOT_FOUND,
    // an unknown id STATUS_NOT_FOUND, an operation the item does not support
    // STATUS_INVALID_DEVICE_REQUEST, a property record (24 bytes + extra)
    // below MinProperty STATUS_INVALID_BUFFER_SIZE, a data buffer below
    // MinData STATUS_BUFFER_OVERFLOW with Information = MinData when it is
    // empty, else STATUS_BUFFER_TOO_SMALL. Otherwise SRB_GET_DEVICE_PROPERTY or
    // SRB_SET_DEVICE_PROPERTY goes the way SendAdapterSrb sends it. A write
    // past the data buffer or past the property record, and a success
    // claiming more bytes than the data buffer holds, are DEVICE_PROPERTY
    // findings. The adapter must be started. `data` longer than `dataSize`
    // throws std::invalid_argument. A request the minidriver never completes
    // answers STATUS_IO_TIMEOUT with no data; its buffers are never freed.
    PropertyAnswer GetDeviceProperty(const PropertyRequest& request);
    PropertyAnswer SetDeviceProperty(const PropertyRequest& request);

    // ---- Streams (streamclass/streams.cpp)
    // Opens stream `number` as an application's pin create does: a zeroed
    // stream extension of PerStreamExtensionSize bytes, a HW_STREAM_OBJECT,
    // and SRB_OPEN_STREAM with `format` (a KSDATAFORMAT and its format block)
    // as CommandData.OpenFormat. Refused without asking the minidriver
    // (STATUS_INVALID_PARAMETER) for a number not below NumberOfStreams or a
    // format shorter than KSDATAFORMAT or not FormatSize bytes long, and
    // (STATUS_INVALID_DEVICE_REQUEST) when NumberOfPossibleInstances of it are
    // open. Null unless the open succeeded; `status` says why.
    PHW_STREAM_OBJECT OpenStream(ULONG number, std::span<const uint8_t> format,
                                 NTSTATUS* status = nullptr);
    // SRB_CLOSE_STREAM; the stream extension is freed once it completes.
    // Once the adapter is torn down (Stop), stream SRBs no longer reach the
    // minidriver: control SRBs, reads and the close answer
    // STATUS_DEVICE_REMOVED.
    NTSTATUS CloseStream(PHW_STREAM_OBJECT stream);
    // Instances of stream `number` open now.
    size_t OpenStreamCount(ULONG number) const;

    // A control SRB to the stream's ReceiveControlPacket at PASSIVE_LEVEL,
    // waited for; `prepare` fills CommandData and whatever else it needs.
    StreamSrbResult SendStreamControl(
        PHW_STREAM_OBJECT stream, SRB_COMMAND command,
        const std::function<void(HW_STREAM_REQUEST_BLOCK&)>& prepare = {});
    // SRB_GET_STREAM_PROPERTY with the checks of GetDeviceProperty against
    // the stream's published property sets; findings are STREAM_PROPERTY.
    PropertyAnswer GetStreamProperty(PHW_STREAM_OBJECT stream, const PropertyRequest& request);
    // The same for `id` of `set` with a bare KSPROPERTY and an output buffer
    // of `outputLength` bytes.
    StreamPropertyAnswer GetStreamProperty(PHW_STREAM_OBJECT stream, const GUID& set, ULONG id,
                                           ULONG outputLength);

    // A data SRB made once and sent many times, so that streaming costs no
    // allocation per frame. `onCompleted` runs on the completing thread (any
    // thread, any IRQL) inside each completion, under the class's lock: it
    // must only note the fact and wake a waiter.
    PHW_STREAM_REQUEST_BLOCK CreateDataSrb(PHW_STREAM_OBJECT stream, SRB_COMMAND command,
                                           std::function<void()> onCompleted);
    // (Re)sends it to the stream's ReceiveDataPacket at PASSIVE_LEVEL, with
    // Status STATUS_PENDING; the caller has filled CommandData. May run
    // while a control SRB of the same stream is in progress.
    void SendDataSrb(PHW_STREAM_REQUEST_BLOCK srb);

  private:
    PropertyAnswer SendDeviceProperty(const PropertyRequest& request, bool isSet);

    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace winsim
