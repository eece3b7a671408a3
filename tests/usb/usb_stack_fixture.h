// A scriptable fake device behind a fresh UsbStack, URBs sent in IRPs of their
// own as a client driver sends them, and a verifier check after every test.
#pragma once

#include <gtest/gtest.h>
#include <usbdi.h>
#include <usbdlib.h>
#include <usbioctl.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <future>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kernel/kernel.h"
#include "usb/usb_stack.h"

namespace usbtest {

using usbsim::FaultAction;
using usbsim::RequestKind;
using usbsim::SetupPacket;
using usbsim::TransferResult;

constexpr uint8_t kBulkIn = 0x81, kBulkOut = 0x02, kInterruptIn = 0x83, kSecondBulkIn = 0x84;

// Configuration 1, interface 0: setting 0 has bulk 0x81, bulk 0x02 and interrupt 0x83
// (4 bytes, interval 8), setting 1 bulk 0x81 and 0x84. Unscripted requests
// move every byte asked for.
class FakeUsbDevice final : public usbsim::UsbDevice {
  public:
    static std::vector<uint8_t> ConfigurationDescriptor() {
        // clang-format off
        return {9, 2, 62, 0, 1, 1, 0, 0x80, 50,  // configuration 1, one interface
                9, 4, 0, 0, 3, 0xFF, 0, 0, 0,    // alternate setting 0
                7, 5, kBulkIn, 2, 0, 2, 0,
                7, 5, kBulkOut, 2, 0, 2, 0,
                7, 5, kInterruptIn, 3, 4, 0, 8,
                9, 4, 0, 1, 2, 0xFF, 0, 0, 0,    // alternate setting 1
                7, 5, kBulkIn, 2, 0, 2, 0,
                7, 5, kSecondBulkIn, 2, 0, 2, 0};
        // clang-format on
    }

    // Answers for an endpoint (0: control), used in order.
    void QueueAnswer(uint8_t endpoint, TransferResult answer, std::vector<uint8_t> data = {}) {
        std::lock_guard lock(mutex_);
        answers_[endpoint].push_back({answer, std::move(data)});
    }
    void SetNak(uint8_t endpoint, bool nak) {  // answers Nak until switched off
        std::lock_guard lock(mutex_);
        naking_[endpoint] = nak;
    }
    void SignalReady(uint8_t endpoint) { ready_(endpoint); }  // as the device does
    std::vector<SetupPacket> ControlLog() const {
        std::lock_guard lock(mutex_);
        return controlLog_;
    }
    std::vector<std::pair<uint8_t, size_t>> TransferLog() const {
        std::lock_guard lock(mutex_);
        return transferLog_;
    }
    // Runs inside Transfer before it answers, e.g. to hold the bus.
    std::function<void(uint8_t endpoint)> onTransfer;

    TransferResult Control(const SetupPacket& setup, std::span<uint8_t> data) override {
        std::lock_guard lock(mutex_);
        controlLog_.push_back(setup);
        return AnswerLocked(0, data);
    }
    TransferResult Transfer(uint8_t endpoint, std::span<uint8_t> data) override {
        if (onTransfer) {
            onTransfer(endpoint);
        }
        std::lock_guard lock(mutex_);
        transferLog_.emplace_back(endpoint, data.size());
        return AnswerLocked(endpoint, data);
    }
    // Set as the stack is made and destroyed, not while it runs.
    void SetReadyCallback(std::function<void(uint8_t)> ready) override {
        ready_ = std::move(ready);
    }
    usbsim::BusSpeed Speed() const override { return usbsim::BusSpeed::High; }
    void SetPowered(bool powered) override {
        std::lock_guard lock(mutex_);
        powerLog_.push_back(powered);
    }
    std::vector<bool> PowerLog() const {
        std::lock_guard lock(mutex_);
        return powerLog_;
    }

  private:
    TransferResult AnswerLocked(uint8_t endpoint, std::span<uint8_t> data) {
        if (naking_[endpoint]) {
            return TransferResult::Nak();
        }
        if (auto& queue = answers_[endpoint]; !queue.empty()) {
            const auto [result, bytes] = std::move(queue.front());
            queue.pop_front();
            std::copy_n(bytes.begin(), std::min(bytes.size(), data.size()), data.begin());
            return result;
        }
        return TransferResult::Ack(static_cast<uint32_t>(data.size()));
    }

    mutable std::mutex mutex_;
    std::map<uint8_t, std::deque<std::pair<TransferResult, std::vector<uint8_t>>>> answers_;
    std::map<uint8_t, bool> naking_;
    std::vector<SetupPacket> controlLog_;
    std::vector<std::pair<uint8_t, size_t>> transferLog_;
    std::vector<bool> powerLog_;
    std::function<void(uint8_t)> ready_;
};

// One URB in an IRP of its own; the completion routine signals and keeps the IRP.
class UrbCall {
  public:
    // `stackSize` 0: as many locations as the device object needs.
    UrbCall(PDEVICE_OBJECT pdo, PURB urb, CCHAR stackSize = 0) : pdo_(pdo), urb_(urb) {
        irp = IoAllocateIrp(stackSize != 0 ? stackSize : pdo->StackSize, FALSE);
        KeInitializeEvent(&done_, NotificationEvent, FALSE);
        PrepareNextLocation();
    }
    ~UrbCall() {  // waits for a pending IRP, then frees it
        if (pending_ && !Completed()) {
            Wait();
        }
        IoFreeIrp(irp);
    }

    NTSTATUS Send() {
        const NTSTATUS status = IoCallDriver(pdo_, irp);
        pending_ = pending_ || status == STATUS_PENDING;
        return status;
    }
    // The final status; the time-out only turns a hang into a failure.
    NTSTATUS Wait() {
        LARGE_INTEGER timeout{.QuadPart =
                                  -static_cast<LONGLONG>(60 * winsim::TimeScale() * 10'000'000)};
        const NTSTATUS waited =
            KeWaitForSingleObject(&done_, Executive, KernelMode, FALSE, &timeout);
        EXPECT_NE(waited, STATUS_TIMEOUT) << "the USB stack never completed the request";
        return waited == STATUS_TIMEOUT ? waited : irp->IoStatus.Status;
    }
    bool Completed() const { return completedAs >= 0; }
    // Fills the next stack location (again, for resending).
    void PrepareNextLocation() {
        PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
        next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        next->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
        next->Parameters.Others.Argument1 = urb_;
        IoSetCompletionRoutine(irp, &UrbCall::Completion, this, TRUE, TRUE, TRUE);
    }

    PIRP irp;
    KIRQL completionIrql = 0xFF;
    std::thread::id completionThread;
    int64_t completedAt = 0;           // simulated time
    std::atomic<int> completedAs{-1};  // completions counted across all calls, from 0

  private:
    static NTSTATUS NTAPI Completion(PDEVICE_OBJECT, PIRP, PVOID context) {
        auto* self = static_cast<UrbCall*>(context);
        self->completionIrql = KeGetCurrentIrql();
        self->completionThread = std::this_thread::get_id();
        self->completedAt = winsim::Now100ns();
        static std::atomic<int> completions{0};
        self->completedAs = completions++;
        KeSetEvent(&self->done_, IO_NO_INCREMENT, FALSE);
        return STATUS_MORE_PROCESSING_REQUIRED;
    }

    PDEVICE_OBJECT pdo_;
    PURB urb_;
    KEVENT done_;
    bool pending_ = false;  // the stack took it; the destructor waits for its completion
};

inline NTSTATUS SubmitUrb(PDEVICE_OBJECT pdo, PURB urb) {
    UrbCall call(pdo, urb);
    const NTSTATUS status = call.Send();
    return status == STATUS_PENDING ? call.Wait() : status;
}

// A URB of any length, aligned, with room for the URB union behind a PURB.
class UrbBuffer {
  public:
    explicit UrbBuffer(size_t bytes) : storage_((std::max(bytes, sizeof(URB)) + 7) / 8) {
        get()->UrbHeader.Length = static_cast<USHORT>(bytes);
    }
    PURB get() { return reinterpret_cast<PURB>(storage_.data()); }
    PURB operator->() { return get(); }

  private:
    std::vector<uint64_t> storage_;
};

inline PUSBD_INTERFACE_INFORMATION InterfaceOf(UrbBuffer& urb) {  // of either select URB
    return urb->UrbHeader.Function == URB_FUNCTION_SELECT_CONFIGURATION
               ? &urb->UrbSelectConfiguration.Interface
               : &urb->UrbSelectInterface.Interface;
}

inline URB VendorUrb(bool in, uint8_t request, uint16_t index, void* buffer, ULONG length) {
    URB urb{};
    UsbBuildVendorRequest(&urb, URB_FUNCTION_VENDOR_DEVICE, sizeof urb.UrbControlVendorClassRequest,
                          in ? USBD_TRANSFER_DIRECTION_IN : 0, 0, request, 0, index, buffer,
                          nullptr, length, nullptr);
    return urb;
}

inline URB TransferUrb(USBD_PIPE_HANDLE pipe, bool in, void* buffer, ULONG length) {
    URB urb{};
    UsbBuildInterruptOrBulkTransferRequest(&urb, sizeof urb.UrbBulkOrInterruptTransfer, pipe,
                                           buffer, nullptr, length,
                                           in ? USBD_TRANSFER_DIRECTION_IN : 0, nullptr);
    return urb;
}

inline URB PipeUrb(USHORT function, USBD_PIPE_HANDLE pipe) {
    URB urb{};
    urb.UrbPipeRequest.Hdr.Length = sizeof urb.UrbPipeRequest;
    urb.UrbPipeRequest.Hdr.Function = function;
    urb.UrbPipeRequest.PipeHandle = pipe;
    return urb;
}

// Selects `alternate` of interface 0 with `pipes` pipes: of `descriptor`, or with
// `handle` as a select-interface URB.
inline UrbBuffer SelectUrb(std::vector<uint8_t>* descriptor, USBD_CONFIGURATION_HANDLE handle,
                           uint8_t alternate, ULONG pipes) {
    UrbBuffer urb(descriptor ? GET_SELECT_CONFIGURATION_REQUEST_SIZE(1, pipes)
                             : GET_SELECT_INTERFACE_REQUEST_SIZE(pipes));
    if (descriptor) {
        urb->UrbHeader.Function = URB_FUNCTION_SELECT_CONFIGURATION;
        urb->UrbSelectConfiguration.ConfigurationDescriptor =
            reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(descriptor->data());
    } else {
        urb->UrbHeader.Function = URB_FUNCTION_SELECT_INTERFACE;
        urb->UrbSelectInterface.ConfigurationHandle = handle;
    }
    USBD_INTERFACE_INFORMATION* info = InterfaceOf(urb);
    info->Length = static_cast<USHORT>(GET_USBD_INTERFACE_SIZE(pipes));
    info->AlternateSetting = alternate;
    info->NumberOfPipes = pipes;
    for (ULONG i = 0; i < pipes; ++i) {
        (info->Pipes + i)->MaximumTransferSize = 0x200000;
    }
    return urb;
}

class UsbStackTest : public ::testing::Test {
  protected:
    static constexpr uint16_t kRegister = 0x0010;

    void SetUp() override {
        winsim::ResetKernel();
        winsim::SetVerifierMode(winsim::VerifierMode::Record);
        winsim::SetTimeScale(1000);
        stack = std::make_unique<usbsim::UsbStack>(device);
    }
    // Every finding must be announced by ExpectViolation, and every announced one come.
    void TearDown() override {
        stack.reset();
        std::set<std::string> seen;
        for (const winsim::Violation& v : winsim::TakeViolations()) {
            seen.insert(v.check);
            EXPECT_TRUE(expectedViolations.contains(v.check))
                << "unexpected verifier finding " << v.check << ": " << v.message;
        }
        EXPECT_EQ(seen, expectedViolations) << "the verifier missed an expected finding";
    }
    void ExpectViolation(const std::string& check) { expectedViolations.insert(check); }

    PDEVICE_OBJECT Pdo() const { return stack->PhysicalDeviceObject(); }
    void RestartStack(usbsim::UsbStackOptions options) {
        stack.reset();
        stack = std::make_unique<usbsim::UsbStack>(device, options);
    }

    void Configure(uint8_t alternate = 0) {
        UrbBuffer urb = SelectUrb(&descriptor, nullptr, alternate, alternate == 0 ? 3 : 2);
        ASSERT_EQ(SubmitUrb(Pdo(), urb.get()), STATUS_SUCCESS);
        configurationHandle = urb->UrbSelectConfiguration.ConfigurationHandle;
    }
    USBD_PIPE_HANDLE PipeFor(uint8_t endpoint) const { return StatusOf(endpoint).handle; }
    usbsim::PipeStatus StatusOf(uint8_t endpoint) const {
        const std::vector<usbsim::PipeStatus> pipes = stack->OpenPipes();
        const auto pipe = std::ranges::find(pipes, endpoint, &usbsim::PipeStatus::endpointAddress);
        EXPECT_NE(pipe, pipes.end()) << "no open pipe for endpoint " << int{endpoint};
        return pipe != pipes.end() ? *pipe : usbsim::PipeStatus{};
    }
    // Sends each URB in a call of its own; each must pend.
    void SendAll(std::span<URB> urbs, std::list<UrbCall>& calls) {
        for (URB& urb : urbs) {
            ASSERT_EQ(calls.emplace_back(Pdo(), &urb).Send(), STATUS_PENDING);
        }
    }
    // The next transfer on `endpoint` stays on the bus until Release().
    void HoldOnBus(uint8_t endpoint) {
        device.onTransfer = [this, endpoint, released = release_.get_future().share()](uint8_t e) {
            if (e == endpoint) {
                onBus_.set_value();
                released.wait();
            }
        };
    }
    void WaitOnBus() { onBus_.get_future().wait(); }
    void Release() { release_.set_value(); }
    NTSTATUS Transfer(USBD_PIPE_HANDLE pipe, bool in, ULONG length) {
        std::vector<uint8_t> buffer(length);
        URB urb = TransferUrb(pipe, in, buffer.data(), length);
        return SubmitUrb(Pdo(), &urb);
    }
    void ExpectStale(USBD_PIPE_HANDLE pipe) {
        URB stale = TransferUrb(pipe, true, data, sizeof data);
        EXPECT_EQ(SubmitUrb(Pdo(), &stale), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(stale.UrbHeader.Status, USBD_STATUS_INVALID_PIPE_HANDLE);
    }

    URB RegisterRead() { return VendorUrb(true, 0x12, kRegister, data, sizeof data); }
    URB TransferOn(uint8_t endpoint, ULONG length = 512) {
        return TransferUrb(PipeFor(endpoint), true, buffers.emplace_back(length).data(), length);
    }
    URB BulkIn(ULONG length = 512) { return TransferOn(kBulkIn, length); }

    FakeUsbDevice device;
    std::vector<uint8_t> descriptor = FakeUsbDevice::ConfigurationDescriptor();
    std::unique_ptr<usbsim::UsbStack> stack;
    USBD_CONFIGURATION_HANDLE configurationHandle = nullptr;
    std::set<std::string> expectedViolations;
    uint8_t data[4] = {};
    std::list<std::vector<uint8_t>> buffers;

  private:
    std::promise<void> onBus_, release_;
};

}  // namespace usbtest
