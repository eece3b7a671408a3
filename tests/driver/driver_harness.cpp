#include "driver_harness.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iomanip>
#include <ostream>

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

void DriverTest::SetUp() {
    winsim::ResetKernel();
    winsim::SetVerifierMode(winsim::VerifierMode::Record);
    winsim::SetTimeScale(kTimeScale);
    camera_ = std::make_unique<ornixcam::Camera>();
    stack_ = std::make_unique<usbsim::UsbStack>(*camera_);
    class_ = std::make_unique<winsim::StreamClass>(&DriverEntry);
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
    return class_->Start();
}

PORNIX_DEVICE_CONTEXT DriverTest::Ext() const {
    return static_cast<PORNIX_DEVICE_CONTEXT>(class_->DeviceExtension());
}

namespace {

// The camera's pipes by alternate setting of interface 0: the video setting
// with capture, still and interrupt pipe, and the FPGA download setting.
constexpr ULONG kVideoPipes = 3;
constexpr ULONG kFpgaPipes = 1;
constexpr ULONG kVideoTransferSize = 4096;
constexpr ULONG kFpgaTransferSize = 0x17EE7;
constexpr UCHAR kFpgaEndpoint = 0x02;

}  // namespace

void DriverTest::ConfigureCamera() {
    PORNIX_DEVICE_CONTEXT ext = Ext();

    std::vector<uint64_t> descriptorStorage(512 / sizeof(uint64_t));
    URB get{};
    UsbBuildGetDescriptorRequest(&get, sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST),
                                 USB_CONFIGURATION_DESCRIPTOR_TYPE, 0, 0, descriptorStorage.data(),
                                 nullptr, 512, nullptr);
    ASSERT_EQ(OrnixCallUsbd(ext, &get), STATUS_SUCCESS);
    auto* descriptor = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(descriptorStorage.data());

    const size_t videoLength = GET_USBD_INTERFACE_SIZE(kVideoPipes);
    const size_t fpgaLength = GET_USBD_INTERFACE_SIZE(kFpgaPipes);
    const size_t selectLength = offsetof(struct _URB_SELECT_CONFIGURATION, Interface) + videoLength;
    std::vector<uint64_t> selectStorage((selectLength + 7) / 8);
    auto* select = reinterpret_cast<struct _URB_SELECT_CONFIGURATION*>(selectStorage.data());
    select->Hdr.Length = static_cast<USHORT>(selectLength);
    select->Hdr.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    select->ConfigurationDescriptor = descriptor;
    select->Interface.Length = static_cast<USHORT>(videoLength);
    for (ULONG i = 0; i < kVideoPipes; ++i) {
        select->Interface.Pipes[i].MaximumTransferSize = kVideoTransferSize;
    }
    ASSERT_EQ(OrnixCallUsbd(ext, reinterpret_cast<PURB>(select)), STATUS_SUCCESS);

    // The table as USB configuration keeps it: pointers, then the records.
    const size_t pointers = 2 * sizeof(PUSBD_INTERFACE_INFORMATION);
    auto* table = static_cast<PUSBD_INTERFACE_INFORMATION*>(
        ExAllocatePoolWithTag(NonPagedPool, pointers + videoLength + fpgaLength, kDriverTag));
    ASSERT_NE(table, nullptr);
    auto* records = reinterpret_cast<uint8_t*>(table) + pointers;
    table[0] = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(records);
    table[1] = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(records + videoLength);
    std::memcpy(table[0], &select->Interface, videoLength);
    std::memset(table[1], 0, fpgaLength);
    table[1]->Length = static_cast<USHORT>(fpgaLength);
    table[1]->AlternateSetting = 1;
    table[1]->NumberOfPipes = kFpgaPipes;
    table[1]->Pipes[0].EndpointAddress = kFpgaEndpoint;
    table[1]->Pipes[0].PipeType = UsbdPipeTypeBulk;
    table[1]->Pipes[0].MaximumPacketSize = 512;
    table[1]->Pipes[0].MaximumTransferSize = kFpgaTransferSize;

    ext->InterfaceInfoTable = table;
    ext->ConfigurationHandle = select->ConfigurationHandle;
    ext->CurrentAltSetting = 0;
    ext->VideoAltSetting = 0;
    ext->CapturePipe = 0;
    ext->StillPipe = 1;
    ext->InterruptPipe = 2;
    ext->FpgaAltSetting = 1;
    ext->FpgaPipe = 0;
    ext->StreamCount = 2;

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

bool DriverTest::InterruptMutexTakenUnderRequestMutex() {
    PORNIX_DEVICE_CONTEXT ext = Ext();
    KeWaitForSingleObject(&ext->InterruptMutex, Executive, KernelMode, FALSE, nullptr);
    KeWaitForSingleObject(&ext->RequestMutex, Executive, KernelMode, FALSE, nullptr);
    KeReleaseMutex(&ext->RequestMutex, FALSE);
    KeReleaseMutex(&ext->InterruptMutex, FALSE);
    const bool inverted = !TakeViolations("LOCK_ORDER").empty();
    KeInitializeMutex(&ext->InterruptMutex, 0);
    KeInitializeMutex(&ext->RequestMutex, 0);
    return inverted;
}

FakeStreams::~FakeStreams() {
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
    ext_->StreamContexts[number] = stream;
    return stream;
}

}  // namespace ornixtest
