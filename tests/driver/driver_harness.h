// The simulated machine the driver tests run on: a fresh kernel with the
// verifier recording, the Ornix camera behind the USB stack, and the driver
// loaded by the stream class and started as an adapter.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "camera/camera.h"
#include "kernel/kernel.h"
#include "ornix.h"
#include "streamclass/stream_class.h"
#include "usb/usb_stack.h"

namespace ornixtest {

using winsim::SrbResult;
using Bytes = std::vector<uint8_t>;

// Simulated seconds per real second. The 5-second limit of a USB request
// must stay far above any scheduling delay of a loaded test machine (at
// 1000 it is 5 ms of real time, which sanitizer builds running in parallel
// do exceed), while the driver's own delays still pass quickly.
inline constexpr double kTimeScale = 10;

inline constexpr ULONG kDriverTag = 0x206D6457;  // "Wdm "
inline constexpr ULONG kIrpTag = 0x20707249;     // "Irp ", the kernel's tag for IRPs

// Standard requests as the camera sees them on endpoint 0.
inline constexpr uint8_t kSetConfiguration = 0x09;
inline constexpr uint8_t kClearFeature = 0x01;
inline constexpr uint8_t kSetInterface = 0x0B;

// One vendor transfer as it crossed the bus.
struct WireRequest {
    uint8_t bmRequestType;
    uint8_t bRequest;
    uint16_t wValue;
    uint16_t wIndex;
    uint16_t wLength;
    std::vector<uint8_t> data;  // host data for OUT, device data for IN

    bool operator==(const WireRequest&) const = default;
};
std::ostream& operator<<(std::ostream& out, const WireRequest& request);

// What the callback of a deferred vendor request or pipe reset saw; the two
// callbacks below fill the record passed as their context.
struct CallbackRecord {
    std::atomic<int> calls{0};
    std::atomic<NTSTATUS> status{STATUS_PENDING};
    std::atomic<std::thread::id> thread{};
};
NTSTATUS ORNIXAPI RecordVendorDone(PORNIX_DEVICE_CONTEXT, PVOID context, NTSTATUS status);
VOID ORNIXAPI RecordResetDone(PORNIX_DEVICE_CONTEXT, NTSTATUS status, PVOID context);

// The driver's routine or object at `linked` as the stream class sees it: in
// a test binary run against a driver binary, the name is a stand-in and the
// driver's own is in the binary.
const void* DriverAddress(const void* linked);
// How many findings a failed ASSERT in the driver under test makes: the Linux
// build checks them, while the x64 binary is a free build, in which Windows'
// headers compile ASSERT to nothing.
bool DriverChecksAsserts();

class DriverTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Tests that must prepare the registry, the PDOs or USB faults first
    // return false and call AddAdapter and StartAdapter themselves.
    virtual bool StartsAdapterInSetUp() const { return true; }
    // The camera plugged in for the test.
    virtual ornixcam::Profile CameraProfile() const { return ornixcam::DefaultProfile(); }
    void AddAdapter(PDEVICE_OBJECT realPdo = nullptr);
    NTSTATUS StartAdapter();

    PORNIX_DEVICE_CONTEXT Ext() const;
    ornixcam::Camera& Camera() { return *camera_; }
    usbsim::UsbStack& Stack() { return *stack_; }
    winsim::StreamClass& Class() { return *class_; }
    PDEVICE_OBJECT Pdo() const { return stack_->PhysicalDeviceObject(); }

    // SRB_INITIALIZE_DEVICE configures the camera itself; this only checks
    // that it did and starts the request and debug logs afresh.
    void ConfigureCamera();

    // Requests of `kind` the driver submitted since the adapter was started
    // (since SetUp when it starts the adapter there): bring-up traffic excluded.
    uint64_t SubmittedSinceStart(usbsim::RequestKind kind) const;

    // The debugger output since the last ClearDebugLog.
    static std::vector<std::string> Log() { return winsim::DebugLog(); }
    static size_t CountLogged(std::string_view line);
    static bool Logged(std::string_view line) { return CountLogged(line) > 0; }

    // Control requests the camera saw, vendor ones only or all of them.
    std::vector<WireRequest> VendorRequests() const;
    std::vector<WireRequest> ControlRequests() const;

    // Whether the driver has ever taken `mutex` (InterruptMutex, PipeMutex)
    // while holding RequestMutex: taking them the other way round now is an
    // inversion the verifier reports. Both mutexes start a fresh history
    // afterwards.
    bool TakenUnderRequestMutex(PKMUTEX mutex);

    // Findings of the verifier so far that match `check`; the others stay
    // for TearDown to report.
    std::vector<winsim::Violation> TakeViolations(std::string_view check);

  private:
    std::vector<winsim::Violation> unclaimed_;
    std::unique_ptr<ornixcam::Camera> camera_;
    std::unique_ptr<usbsim::UsbStack> stack_;
    std::unique_ptr<winsim::StreamClass> class_;
    std::vector<usbsim::RequestCounts> countsAtStart_;
    bool added_ = false;
};

// For tests that prepare the registry, the PDOs or the camera before the adapter starts.
class UnstartedDriverTest : public DriverTest {
  protected:
    bool StartsAdapterInSetUp() const override { return false; }
};

// Stream contexts as the stream class would allocate them, placed in the
// stream table of the class's adapter without opening a stream; taken out
// again unless the adapter has been torn down meanwhile.
class FakeStreams {
  public:
    explicit FakeStreams(winsim::StreamClass& streamClass);
    ~FakeStreams();
    PORNIX_STREAM_CONTEXT Open(ULONG number, KSSTATE state);

  private:
    winsim::StreamClass& class_;
    PORNIX_DEVICE_CONTEXT ext_;
    ORNIX_STREAM_CONTEXT streams_[ORNIX_MAX_STREAMS] = {};
};

// The registry form of a GUID, to compare with the published value.
inline std::string GuidText(const GUID* guid) {
    if (guid == nullptr) {
        return "none";
    }
    char text[40];
    std::snprintf(text, sizeof(text), "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X",
                  guid->Data1, guid->Data2, guid->Data3, guid->Data4[0], guid->Data4[1],
                  guid->Data4[2], guid->Data4[3], guid->Data4[4], guid->Data4[5], guid->Data4[6],
                  guid->Data4[7]);
    return text;
}

// Tables built from the camera's capabilities: on a running adapter, each test sets
// the facts bring-up found (streams, interrupt pipe) and rebuilds.
class CapabilityTest : public DriverTest {
  protected:
    void SetUp() override {
        DriverTest::SetUp();
        savedStreamCount_ = Ext()->StreamCount;
        savedInterruptPipe_ = Ext()->InterruptPipe;
    }
    // Bring-up's own facts go back for teardown.
    void TearDown() override {
        Ext()->StreamCount = savedStreamCount_;
        Ext()->InterruptPipe = savedInterruptPipe_;
        DriverTest::TearDown();
    }

    void SetStreams(ULONG count) { Ext()->StreamCount = count; }
    void SetInterruptPipe(bool present) { Ext()->InterruptPipe = present ? 2 : ORNIX_NO_PIPE; }

  private:
    ULONG savedStreamCount_ = 0;
    ULONG savedInterruptPipe_ = ORNIX_NO_PIPE;
};

}  // namespace ornixtest
