// Vendor control requests: data stages, short answers, failures and the
// transfer moved to a worker thread at DISPATCH_LEVEL.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using usbsim::FaultAction;
using usbsim::RequestKind;

using VendorCommandTest = DriverTest;

constexpr USHORT kRecord = ORNIX_PROPERTY_BLOCK;  // a 16-byte read/write record
constexpr uint8_t kUntouched = 0xAA;

// What a callback saw when the transfer reported back.
struct CallbackRecord {
    int calls = 0;
    NTSTATUS status = STATUS_PENDING;
    KIRQL irql = HIGH_LEVEL;
    std::thread::id thread;
};

NTSTATUS RecordCallback(PORNIX_DEVICE_CONTEXT, PVOID context, NTSTATUS status) {
    auto* record = static_cast<CallbackRecord*>(context);
    ++record->calls;
    record->status = status;
    record->irql = KeGetCurrentIrql();
    record->thread = std::this_thread::get_id();
    return STATUS_SUCCESS;
}

TEST_F(VendorCommandTest, ReadWithoutLengthHasNoDataStage) {
    std::array<uint8_t, 4> buffer;
    buffer.fill(kUntouched);
    ULONG zero = 0;

    EXPECT_EQ(OrnixControlVendorCommand(Ext(), ORNIX_REQUEST_REGISTER, 0, kRecord, buffer.data(),
                                        &zero, TRUE),
              STATUS_SUCCESS);
    EXPECT_EQ(OrnixControlVendorCommand(Ext(), ORNIX_REQUEST_REGISTER, 0, kRecord, buffer.data(),
                                        nullptr, TRUE),
              STATUS_SUCCESS);

    const WireRequest noData{0xC0, ORNIX_REQUEST_REGISTER, 0, kRecord, 0, {}};
    EXPECT_EQ(VendorRequests(), (std::vector<WireRequest>{noData, noData}));
    EXPECT_EQ(zero, 0u);
    EXPECT_EQ(buffer, (std::array<uint8_t, 4>{kUntouched, kUntouched, kUntouched, kUntouched}));
}

TEST_F(VendorCommandTest, ShortReadCopiesOnlyWhatArrived) {
    Camera().PokeRegister(kRecord, 0x44332211);
    Camera().PokeRegister(kRecord + 4, 0x88776655);
    Camera().SetShortRead(kRecord, 6);
    std::array<uint8_t, 16> buffer;
    buffer.fill(kUntouched);
    ULONG length = sizeof(buffer);

    EXPECT_EQ(OrnixControlVendorCommand(Ext(), ORNIX_REQUEST_REGISTER, 0, kRecord, buffer.data(),
                                        &length, TRUE),
              STATUS_SUCCESS);

    EXPECT_EQ(length, 6u);
    std::array<uint8_t, 16> expected;
    expected.fill(kUntouched);
    std::copy_n(std::array<uint8_t, 6>{0x11, 0x22, 0x33, 0x44, 0x55, 0x66}.begin(), 6,
                expected.begin());
    EXPECT_EQ(buffer, expected);
}

TEST_F(VendorCommandTest, FailedTransferLeavesBufferAndLengthAlone) {
    Stack().AddFault({.kind = RequestKind::VendorDevice, .action = FaultAction::Stall});
    std::array<uint8_t, 4> buffer;
    buffer.fill(kUntouched);
    ULONG length = sizeof(buffer);

    NTSTATUS status = OrnixControlVendorCommand(Ext(), ORNIX_REQUEST_REGISTER, 0, kRecord,
                                                buffer.data(), &length, TRUE);

    EXPECT_FALSE(NT_SUCCESS(status));
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(buffer, (std::array<uint8_t, 4>{kUntouched, kUntouched, kUntouched, kUntouched}));
    char message[80];
    std::snprintf(message, sizeof message, "ORNIX: OrnixControlVendorCommand Error 0x%x",
                  static_cast<unsigned>(status));
    EXPECT_TRUE(Logged(message));
}

TEST_F(VendorCommandTest, NoMemoryForTheTransferSendsNothing) {
    winsim::FailNthAllocation(1);
    ULONG value = 0;
    ULONG length = sizeof(value);

    EXPECT_EQ(
        OrnixControlVendorCommand(Ext(), ORNIX_REQUEST_REGISTER, 0, kRecord, &value, &length, TRUE),
        STATUS_INSUFFICIENT_RESOURCES);

    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: OrnixControlVendorCommand Error 0xc000009a"});
    EXPECT_TRUE(VendorRequests().empty());
}

TEST_F(VendorCommandTest, BelowDispatchLevelTheCallbackHasRunOnReturn) {
    CallbackRecord record;
    ULONG value = 0;
    ULONG length = sizeof(value);

    EXPECT_EQ(OrnixControlVendorCommand2(Ext(), ORNIX_REQUEST_REGISTER, 0, ORNIX_SPEC_VERSION,
                                         &value, &length, TRUE, RecordCallback, &record),
              STATUS_SUCCESS);

    EXPECT_EQ(record.calls, 1);
    EXPECT_EQ(record.thread, std::this_thread::get_id());
}

TEST_F(VendorCommandTest, AtDispatchLevelTheTransferMovesToAWorkerThread) {
    CallbackRecord record;
    ULONG value = 0;
    ULONG length = sizeof(value);
    NTSTATUS status = STATUS_SUCCESS;

    winsim::RunAtIrql(DISPATCH_LEVEL, [&] {
        status = OrnixControlVendorCommand2(Ext(), ORNIX_REQUEST_REGISTER, 0, ORNIX_SPEC_VERSION,
                                            &value, &length, TRUE, RecordCallback, &record);
    });
    winsim::DrainWorkQueue();

    EXPECT_EQ(status, STATUS_PENDING);
    EXPECT_EQ(record.calls, 1);
    EXPECT_EQ(record.status, STATUS_SUCCESS);
    EXPECT_EQ(record.irql, PASSIVE_LEVEL);
    EXPECT_NE(record.thread, std::this_thread::get_id());
    EXPECT_EQ(value, 1u);
    EXPECT_EQ(length, 4u);
}

TEST_F(VendorCommandTest, AtDispatchLevelWithoutMemoryNothingHappens) {
    CallbackRecord record;
    ULONG value = 0;
    ULONG length = sizeof(value);
    NTSTATUS status = STATUS_SUCCESS;
    winsim::FailNthAllocation(1);

    winsim::RunAtIrql(DISPATCH_LEVEL, [&] {
        status = OrnixControlVendorCommand2(Ext(), ORNIX_REQUEST_REGISTER, 0, ORNIX_SPEC_VERSION,
                                            &value, &length, TRUE, RecordCallback, &record);
    });
    winsim::DrainWorkQueue();

    EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(record.calls, 0);
    EXPECT_TRUE(VendorRequests().empty());
}

}  // namespace
}  // namespace ornixtest
