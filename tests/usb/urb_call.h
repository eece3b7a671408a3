// Sends one URB to the USB stack the way a client driver does: in an IRP of
// its own, whose completion routine signals an event and keeps the IRP.
#pragma once

#include <usbioctl.h>

#include <atomic>
#include <functional>
#include <thread>

namespace usbtest {

class UrbCall {
  public:
    // `ownLocation`: allocate one location more and step into it, as clients
    // do for pipe resets and aborts.
    UrbCall(PDEVICE_OBJECT pdo, PURB urb, bool ownLocation = false);
    ~UrbCall();  // waits for a pending IRP, then frees it
    UrbCall(const UrbCall&) = delete;
    UrbCall& operator=(const UrbCall&) = delete;

    // IoCallDriver's result.
    NTSTATUS Send();
    // Waits for the completion routine; returns the IRP's final status, or
    // STATUS_TIMEOUT (and a test failure) if it never comes.
    NTSTATUS Wait();
    bool Completed() const { return completed_.load(); }
    BOOLEAN Cancel() { return IoCancelIrp(irp_); }

    PIRP Irp() const { return irp_; }
    // Fills the next stack location with the request again (for resending).
    void PrepareNextLocation();

    // Where and how the completion routine ran.
    KIRQL completionIrql = 0xFF;
    std::thread::id completionThread;
    // Runs inside the completion routine, before the event is signalled.
    std::function<void()> onCompletion;

  private:
    static NTSTATUS NTAPI Completion(PDEVICE_OBJECT device, PIRP irp, PVOID context);

    PDEVICE_OBJECT pdo_;
    PURB urb_;
    PIRP irp_;
    KEVENT done_;
    bool sent_ = false;
    std::atomic<bool> completed_{false};
};

// Send and wait: the final NT status.
NTSTATUS SubmitUrb(PDEVICE_OBJECT pdo, PURB urb);

}  // namespace usbtest
