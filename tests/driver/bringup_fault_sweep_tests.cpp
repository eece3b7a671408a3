// Every USB request of the default camera's bring-up, failed in turn: each either
// fails SRB_INITIALIZE_DEVICE with everything released, or leaves an adapter that
// works without the part that request served. TearDown checks nothing leaks.
#include <map>
#include <ostream>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using usbsim::RequestKind;

// Fails: SRB_INITIALIZE_DEVICE fails and the adapter holds nothing. Succeeds: a full
// adapter. Otherwise a full adapter but for the FPGA download, the event table, the
// product-data image or one format bank.
enum class Outcome { Fails, Succeeds, NoFpga, NoEvents, NoVpd, BankSkipped };

struct SweepCase {
    RequestKind kind;
    uint32_t occurrence;  // among requests of its kind, from 1
    Outcome outcome;
};

void PrintTo(const SweepCase& c, std::ostream* out) {
    static const char* const kOutcomes[] = {"Fails",    "Succeeds", "NoFpga",
                                            "NoEvents", "NoVpd",    "BankSkipped"};
    *out << usbsim::RequestKindName(c.kind) << " #" << c.occurrence << " -> "
         << kOutcomes[static_cast<int>(c.outcome)];
}

// The default camera's bring-up, request by request, grouped by step.
std::vector<SweepCase> ExpectedOutcomes() {
    std::vector<SweepCase> cases;
    auto add = [&](RequestKind kind, uint32_t first, uint32_t last, Outcome outcome) {
        for (uint32_t n = first; n <= last; ++n) {
            cases.push_back({kind, n, outcome});
        }
    };
    using enum RequestKind;
    using enum Outcome;
    add(GetDescriptor, 1, 2, Fails);        // device, then configuration (one 64-byte request)
    add(SelectConfiguration, 1, 1, Fails);  // first selection, with small video transfers
    add(VendorDevice, 1, 1, Fails);         // ORNIX_SPEC_VERSION
    // FPGA download: mode read, FPGA setting, mode write, pipe reset (with
    // its halt clear), the image, mode read/write/read, setting 0, version.
    add(VendorDevice, 2, 7, NoFpga);
    add(SelectInterface, 1, 2, NoFpga);
    add(ResetPipe, 1, 1, NoFpga);
    add(ClearEndpointFeature, 1, 1, NoFpga);
    add(BulkOrInterrupt, 1, 1, NoFpga);
    // Format discovery: speed, sensor layout, origin, count, 7 registers per bank (3).
    add(VendorDevice, 8, 8, Fails);
    add(VendorDevice, 9, 10, Succeeds);
    add(VendorDevice, 11, 11, Fails);
    add(VendorDevice, 12, 32, BankSkipped);  // banks 0, 1 and 2 in turn
    add(SelectConfiguration, 2, 2, Fails);   // second selection, with frame-sized transfers
    add(VendorDevice, 33, 34, Succeeds);     // property block and ORNIX_SUPPORT0
    add(VendorDevice, 35, 35, NoEvents);     // event support mask
    // Product data: the map query (without it the probe picks map 0, this camera's), EEPROM.
    add(VendorDevice, 36, 36, Succeeds);
    add(VendorDevice, 37, 46, NoVpd);
    return cases;
}

// The default camera's banks offer 8, 128 and 129; 8 and 12; 0 and 5.
constexpr ULONG kFormats = 7;

using BringUpFaultSweepTest = UnstartedDriverTest;

// What a full adapter holds: the table's cases that succeed check it.
TEST_F(BringUpFaultSweepTest, TableCoversEveryRequestOfASuccessfulBringUp) {
    AddAdapter();
    ASSERT_EQ(StartAdapter(), STATUS_SUCCESS);
    // The stream class reads the descriptor, of the size bring-up gave it.
    EXPECT_EQ(Class().StreamInfoStatus(), STATUS_SUCCESS);
    ASSERT_NE(Class().StreamHeader(), nullptr);
    EXPECT_EQ(Class().StreamHeader()->NumberOfStreams, 2u);
    std::map<RequestKind, uint64_t> expected;
    for (const SweepCase& c : ExpectedOutcomes()) {
        ++expected[c.kind];
    }
    for (int n = 0; n < static_cast<int>(RequestKind::Any); ++n) {  // every kind there is
        const RequestKind kind = static_cast<RequestKind>(n);
        EXPECT_EQ(Stack().Counts(kind).submitted, expected[kind]) << usbsim::RequestKindName(kind);
    }
}

class BringUpFaultTest : public BringUpFaultSweepTest,
                         public ::testing::WithParamInterface<SweepCase> {};

TEST_P(BringUpFaultTest, EndsAsTheFailedRequestDecides) {
    const SweepCase c = GetParam();
    Stack().AddFault({.kind = c.kind,
                      .occurrence = c.occurrence,
                      .action = usbsim::FaultAction::FailWithStatus,
                      .usbdStatus = USBD_STATUS_DEV_NOT_RESPONDING});
    AddAdapter();
    const NTSTATUS status = StartAdapter();
    PORNIX_DEVICE_CONTEXT ext = Ext();
    if (c.outcome == Outcome::Fails) {
        EXPECT_FALSE(NT_SUCCESS(status));
        EXPECT_EQ(ext->Initialized, 0);
        EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].blocks, 0u);
        // Torn down once by the adapter's teardown (its references: teardown tests), without
        // the interrupt pipe or streams it never ran; a camera that is still there is left
        // unconfigured, and told so once.
        EXPECT_EQ(ext->Uninitializing, 1);
        EXPECT_EQ(Stack().Counts(RequestKind::AbortPipe).submitted, 0u);
        EXPECT_FALSE(TakenUnderRequestMutex(&Ext()->InterruptMutex));
        EXPECT_LE(CountLogged("ORNIX: Unconfiguring device"), 1u);
        EXPECT_EQ(Camera().Configuration(), 0);
        if (c.kind == RequestKind::SelectConfiguration) {
            EXPECT_TRUE(Logged(
                "ORNIX: Selecting the Configuration fialed with 0xc0000001, USBD 0xc0000005"));
        }
        return;
    }
    ASSERT_EQ(status, STATUS_SUCCESS);
    EXPECT_EQ(ext->Initialized, 1);
    EXPECT_EQ(ext->StreamCount, 2u);
    EXPECT_NE(ext->ConfigurationHandle, nullptr);
    EXPECT_EQ(Camera().Configuration(), 1);
    EXPECT_EQ(ext->VpdImage != nullptr, c.outcome != Outcome::NoVpd);
    EXPECT_EQ(ext->EventSets != nullptr, c.outcome != Outcome::NoEvents);
    EXPECT_EQ(ext->FpgaVersion != 0, c.outcome != Outcome::NoFpga);
    // A skipped bank loses only its own formats: bank 0 (reads 12 to 18) three, the others two.
    const ULONG lost = c.outcome != Outcome::BankSkipped ? 0 : c.occurrence <= 18 ? 3 : 2;
    EXPECT_EQ(ext->CaptureFormatCount, kFormats - lost);
}

INSTANTIATE_TEST_SUITE_P(EveryRequest, BringUpFaultTest, ::testing::ValuesIn(ExpectedOutcomes()));

}  // namespace
}  // namespace ornixtest
