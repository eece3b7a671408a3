#include "driver_harness.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iomanip>
#include <ostream>
#include <type_traits>

#include "loader/driver_choice.h"

namespace ornixtest {

std::ostream& operator<<(std::ostream& out, const WireRequest& request) {
    out << std::hex << "{bmRequestType 0x" << int(request.bmRequestType) << ", bRequest 0x"
        << int(request.bRequest) << ", wValue 0x" << request.wValue << ", wIndex 0x"
        << request.wIndex << ", wLength 0x" << request.wLength << ", data";
    for (uint8_t byte : request.data) {
        out << ' ' << std::setw(2) << std::setfill('0') << int(byte);
    }
    return out << std::dec << '}';
}

// The driver's routines and callbacks take the convention of the routines the
// system calls (Windows x64 on a 64-bit build), so a test calls a loaded
// ornix.sys's routines the same way it calls this build's.
static_assert(std::is_same_v<decltype(&OrnixRegRead),
                             NTSTATUS(NTAPI*)(PORNIX_DEVICE_CONTEXT, ULONG, PULONG)>);
static_assert(
    std::is_same_v<PORNIX_RESET_CALLBACK, VOID(NTAPI*)(PORNIX_DEVICE_CONTEXT, NTSTATUS, PVOID)>);

NTSTATUS RecordVendorDone(PORNIX_DEVICE_CONTEXT ext, PVOID context, NTSTATUS status) {
    RecordResetDone(ext, status, context);
    return STATUS_SUCCESS;
}

VOID RecordResetDone(PORNIX_DEVICE_CONTEXT, NTSTATUS status, PVOID context) {
    auto* record = static_cast<CallbackRecord*>(context);
    record->status = status;
    record->thread = std::this_thread::get_id();
    ++record->calls;  // last: a test waiting on it sees the rest
}

// Defined only in a test binary run against a driver binary.
extern "C" __attribute__((weak)) const void* ornix_image_address_of(const void* linked);

const void* DriverAddress(const void* linked) {
    return ornix_image_address_of != nullptr ? ornix_image_address_of(linked) : linked;
}

bool DriverChecksAsserts() {
    return ornix_image_address_of == nullptr;
}

void DriverTest::SetUp() {
    winsim::ResetKernel();
    winsim::SetVerifierMode(winsim::VerifierMode::Record);
    winsim::SetTimeScale(kTimeScale);
    camera_ = std::make_unique<ornixcam::Camera>(CameraProfile());
    stack_ = std::make_unique<usbsim::UsbStack>(
        *camera_, usbsim::UsbStackOptions{
                      .shortInTransfer = camera_->GetProfile().hostController.shortInTransfer});
    class_ = std::make_unique<winsim::StreamClass>(winsim::loader::DriverUnderTest(&DriverEntry));
    ASSERT_EQ(class_->DriverEntryStatus(), STATUS_SUCCESS);
    if (StartsAdapterInSetUp()) {
        AddAdapter();
        ASSERT_EQ(StartAdapter(), STATUS_SUCCESS);
        winsim::ClearDebugLog();
        camera_->ClearRequests();
    }
}

void DriverTest::TearDown() {
    // Unloading checks the pool; what is left afterwards leaked too.
    class_.reset();
    stack_.reset();
    camera_.reset();
    winsim::CheckPoolEmpty("end of test");
    std::vector<winsim::Violation> violations = std::move(unclaimed_);
    for (winsim::Violation& violation : winsim::TakeViolations()) {
        violations.push_back(std::move(violation));
    }
    for (const winsim::Violation& violation : violations) {
        ADD_FAILURE() << "verifier: " << violation.check << ": " << violation.message;
    }
}

void DriverTest::AddAdapter(PDEVICE_OBJECT realPdo) {
    class_->AddDevice(Pdo(), realPdo);
    added_ = true;
}

NTSTATUS DriverTest::StartAdapter() {
    const NTSTATUS status = class_->Start();
    countsAtStart_.clear();
    for (int kind = 0; kind <= static_cast<int>(usbsim::RequestKind::Any); ++kind) {
        countsAtStart_.push_back(stack_->Counts(static_cast<usbsim::RequestKind>(kind)));
    }
    return status;
}

PORNIX_DEVICE_CONTEXT DriverTest::Ext() const {
    return static_cast<PORNIX_DEVICE_CONTEXT>(class_->DeviceExtension());
}

uint64_t DriverTest::SubmittedSinceStart(usbsim::RequestKind kind) const {
    const size_t index = static_cast<size_t>(kind);
    const uint64_t before = index < countsAtStart_.size() ? countsAtStart_[index].submitted : 0;
    return stack_->Counts(kind).submitted - before;
}

void DriverTest::ConfigureCamera() {
    ASSERT_NE(Ext()->ConfigurationHandle, nullptr);
    ASSERT_NE(Ext()->InterfaceInfoTable, nullptr);
    camera_->ClearRequests();
    winsim::ClearDebugLog();
}

size_t DriverTest::CountLogged(std::string_view line) {
    std::vector<std::string> log = Log();
    return std::count(log.begin(), log.end(), line);
}

std::vector<WireRequest> DriverTest::ControlRequests() const {
    std::vector<WireRequest> requests;
    for (const ornixcam::LoggedRequest& logged : camera_->Requests()) {
        if (logged.kind != ornixcam::LoggedRequest::Kind::Control) {
            continue;
        }
        const usbsim::SetupPacket& setup = logged.setup;
        requests.push_back({setup.bmRequestType, setup.bRequest, setup.wValue, setup.wIndex,
                            setup.wLength,
                            setup.DeviceToHost() ? logged.deviceData : logged.hostData});
    }
    return requests;
}

std::vector<WireRequest> DriverTest::VendorRequests() const {
    std::vector<WireRequest> requests = ControlRequests();
    std::erase_if(requests, [](const WireRequest& r) { return (r.bmRequestType & 0x60) != 0x40; });
    return requests;
}

std::vector<winsim::Violation> DriverTest::TakeViolations(std::string_view check) {
    std::vector<winsim::Violation> matching;
    for (winsim::Violation& violation : winsim::TakeViolations()) {
        if (violation.check == check) {
            matching.push_back(std::move(violation));
        } else {
            unclaimed_.push_back(std::move(violation));
        }
    }
    return matching;
}

bool DriverTest::TakenUnderRequestMutex(PKMUTEX mutex) {
    PORNIX_DEVICE_CONTEXT ext = Ext();
    KeWaitForSingleObject(mutex, Executive, KernelMode, FALSE, nullptr);
    KeWaitForSingleObject(&ext->RequestMutex, Executive, KernelMode, FALSE, nullptr);
    KeReleaseMutex(&ext->RequestMutex, FALSE);
    KeReleaseMutex(mutex, FALSE);
    const bool inverted = !TakeViolations("LOCK_ORDER").empty();
    KeInitializeMutex(mutex, 0);
    KeInitializeMutex(&ext->RequestMutex, 0);
    return inverted;
}

FakeStreams::FakeStreams(winsim::StreamClass& streamClass)
    : class_(streamClass),
      ext_(static_cast<PORNIX_DEVICE_CONTEXT>(streamClass.DeviceExtension())) {}

FakeStreams::~FakeStreams() {
    if (class_.DeviceExtension() != ext_) {
        return;  // freed with the adapter
    }
    for (ULONG i = 0; i < ORNIX_MAX_STREAMS; ++i) {
        if (ext_->StreamContexts[i] == &streams_[i]) {
            ext_->StreamContexts[i] = nullptr;
        }
    }
}

PORNIX_STREAM_CONTEXT FakeStreams::Open(ULONG number, KSSTATE state) {
    PORNIX_STREAM_CONTEXT stream = &streams_[number];
    stream->Device = ext_;
    stream->StreamNumber = number;
    stream->State = state;
    stream->Signature = ORNIX_STREAM_SIGNATURE;
    // What the open sets up before any transfer exists.
    InitializeListHead(&stream->PendingTransfers);
    KeInitializeSpinLock(&stream->PendingLock);
    KeInitializeSpinLock(&stream->QueueLock);
    KeInitializeEvent(&stream->DrainEvent, NotificationEvent, FALSE);
    KeInitializeEvent(&stream->AbortEvent, NotificationEvent, FALSE);
    ext_->StreamContexts[number] = stream;
    return stream;
}

}  // namespace ornixtest
