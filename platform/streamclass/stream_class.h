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
#include <string>
#include <vector>

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
    // may be NULL, as the real class may pass none.
    void AddDevice(PDEVICE_OBJECT pdo, PDEVICE_OBJECT realPdo = nullptr);

    // SRB_INITIALIZE_DEVICE with PORT_CONFIGURATION_INFORMATION, then, on
    // success, SRB_INITIALIZATION_COMPLETE. Returns the first status.
    NTSTATUS Start();
    // SRB_UNINITIALIZE_DEVICE; afterwards the extension is released.
    NTSTATUS Stop();

    // The stream descriptor size announced by SRB_INITIALIZE_DEVICE.
    ULONG StreamDescriptorSize() const;

    // Sends one adapter SRB and waits for its completion. `commandData` goes
    // into the SRB's CommandData (e.g. a DEVICE_POWER_STATE or a pointer).
    SrbResult SendAdapterSrb(SRB_COMMAND command, void* commandData = nullptr,
                             ULONG numberOfBytesToTransfer = 0, PIRP irp = nullptr);
    SrbResult SendAdapterSrbValue(SRB_COMMAND command, ULONG value);

    // SRB_UNKNOWN_DEVICE_COMMAND carrying an IRP whose current stack
    // location holds the given major and minor function.
    SrbResult SendUnknownDeviceCommand(UCHAR majorFunction, UCHAR minorFunction);

    PDEVICE_OBJECT ClassDeviceObject() const;
    PVOID DeviceExtension() const;
    PDRIVER_OBJECT DriverObject() const;

    // SRBs sent and SRBs the minidriver has completed so far.
    uint64_t SrbsSent() const;
    uint64_t SrbsCompleted() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace winsim
