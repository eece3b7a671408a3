// Pool bookkeeping, leak reports, bad frees and allocation-failure injection, each with
// guard pages off and on; device registry values through ZwQueryValueKey's partial
// information, and key handles.
#include "kernel_test.h"

#include <cstring>

namespace kerneltest {
namespace {

constexpr ULONG kDriverTag = MAKEFOURCC('W', 'd', 'm', ' ');
constexpr ULONG kOtherTag = MAKEFOURCC('T', 'e', 's', 't');
// What Windows' pool guarantees: 16 bytes on x64, 8 on x86.
constexpr uintptr_t kPoolAlignment = 2 * sizeof(void*);

class Pool : public KernelTest, public ::testing::WithParamInterface<bool> {
  private:
    ScopedPoolGuardPages guardPages_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Modes, Pool, ::testing::Bool(), [](const auto& info) {
    return std::string(info.param ? "GuardPages" : "Normal");
});

TEST_P(Pool, BlocksAreAlignedAndLeaksReportedPerTag) {
    PVOID blocks[] = {ExAllocatePoolWithTag(NonPagedPool, 1000, kDriverTag),
                      ExAllocatePoolWithTag(PagedPool, 34, kDriverTag),
                      ExAllocatePoolWithTag(NonPagedPool, 7, kOtherTag),
                      ExAllocatePool(NonPagedPool, 8)};
    for (PVOID block : blocks)
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % kPoolAlignment, 0u);
    EXPECT_FALSE(winsim::CheckPoolEmpty("driver unload"));

    std::vector<winsim::Violation> found = winsim::TakeViolations();
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0].check, "POOL_LEAK");
    EXPECT_EQ(found[0].message,
              "pool leak at driver unload: tag 'Wdm ' holds 2 blocks (1034 bytes)");
    EXPECT_EQ(found[1].message, "pool leak at driver unload: tag 'None' holds 1 block (8 bytes)")
        << "ExAllocatePool's tag";
    EXPECT_EQ(found[2].message, "pool leak at driver unload: tag 'Test' holds 1 block (7 bytes)");
    for (PVOID block : blocks)
        ExFreePool(block);
    EXPECT_TRUE(winsim::CheckPoolEmpty("driver unload"));
    EXPECT_EQ(winsim::TagName(MAKEFOURCC('a', 'b', 1, 'c')), "ab?c");
}

// Every byte of a block of any size is the driver's, up to the last one.
TEST_P(Pool, BlocksOfOddSizesHoldWhatIsWrittenToTheirLastByte) {
    const SIZE_T sizes[] = {0, 1, 7, 13, 17, 100, 4095, 4096, 4097, 12289};
    std::vector<PUCHAR> blocks;
    for (SIZE_T size : sizes) {
        auto block = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, size, kDriverTag));
        ASSERT_NE(block, nullptr) << size;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % kPoolAlignment, 0u) << size;
        for (SIZE_T i = 0; i < size; ++i)
            block[i] = static_cast<UCHAR>(i * 7 + size);
        blocks.push_back(block);
    }
    EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].bytes,
              0u + 1 + 7 + 13 + 17 + 100 + 4095 + 4096 + 4097 + 12289);
    for (size_t b = 0; b < blocks.size(); ++b) {
        for (SIZE_T i = 0; i < sizes[b]; ++i)
            ASSERT_EQ(blocks[b][i], static_cast<UCHAR>(i * 7 + sizes[b])) << sizes[b] << " @" << i;
        ExFreePoolWithTag(blocks[b], kDriverTag);
    }
    EXPECT_TRUE(winsim::CheckPoolEmpty("driver unload"));
}

TEST_P(Pool, BadFreesAreRefusedAndTheBlockStays) {
    PVOID block = ExAllocatePoolWithTag(NonPagedPool, 16, kDriverTag);
    ExFreePoolWithTag(block, MAKEFOURCC('X', 'y', 'z', 'w'));
    ExpectViolation("BAD_POOL_FREE", {"tag 'Xyzw'", "allocated with tag 'Wdm '"});
    EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].blocks, 1u) << "the block stays allocated";
    std::memset(block, 0, 16);  // still the driver's
    ExFreePool(block);
    ExFreePool(block);
    ExpectViolation("DOUBLE_FREE", {"ExFreePool", AddressText(block), "already freed"});

    auto* inside = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, 64, kDriverTag));
    ExFreePoolWithTag(inside + 16, kDriverTag);
    ExpectViolation("BAD_POOL_FREE", {AddressText(inside + 16), "no allocated pool block"});
    ExFreePool(nullptr);
    ExpectViolation("BAD_POOL_FREE", {"ExFreePool of a NULL pointer"});
    ExFreePoolWithTag(inside, kDriverTag);

    static UCHAR buffer[64];
    PMDL mdl = IoAllocateMdl(buffer, sizeof buffer, FALSE, FALSE, nullptr);
    ASSERT_NE(mdl, nullptr);
    IoFreeMdl(mdl);
    IoFreeMdl(mdl);
    ExpectViolation("DOUBLE_FREE", {"IoFreeMdl", "already freed"});
    EXPECT_TRUE(winsim::CheckPoolEmpty("driver unload"));
}

TEST_P(Pool, FailuresHitTheNthAttemptOrEveryMatchUntilCleared) {
    PVOID first = ExAllocatePoolWithTag(NonPagedPool, 8, kDriverTag);
    winsim::FailNthAllocation(2);
    PVOID second = ExAllocatePoolWithTag(NonPagedPool, 8, kDriverTag);
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPool, 8, kDriverTag), nullptr);
    PVOID fourth = ExAllocatePoolWithTag(NonPagedPool, 8, kDriverTag);
    EXPECT_NE(second, nullptr);
    EXPECT_NE(fourth, nullptr);
    EXPECT_EQ(winsim::AllocationAttempts(), 4u) << "failed attempts count too";
    for (PVOID block : {first, second, fourth})
        ExFreePool(block);

    winsim::FailAllocationsWithTag(kOtherTag);
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPool, 16, kOtherTag), nullptr);
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPool, 48, kOtherTag), nullptr);
    PVOID fits = ExAllocatePoolWithTag(NonPagedPool, 16, kDriverTag);
    EXPECT_NE(fits, nullptr);
    winsim::ClearAllocationFailures();
    PVOID again = ExAllocatePoolWithTag(NonPagedPool, 48, kOtherTag);
    EXPECT_NE(again, nullptr);
    ExFreePool(fits);
    ExFreePool(again);

    // IRPs and MDLs come from the pool too.
    winsim::FailAllocationsWithTag(MAKEFOURCC('I', 'r', 'p', ' '));
    EXPECT_EQ(IoAllocateIrp(2, FALSE), nullptr);
    winsim::FailNthAllocation(1);
    static UCHAR buffer[64];
    EXPECT_EQ(IoAllocateMdl(buffer, sizeof buffer, FALSE, FALSE, nullptr), nullptr);
}

constexpr ULONG kHeader = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);

using Registry = KernelTest;

// "OX-2" with its terminator is 10 bytes of data behind the header. The driver's
// key is the one queried; a value under the device key is not found there.
TEST_F(Registry, ValueFillsAPartialInformationBufferJustLargeEnough) {
    PDRIVER_OBJECT driver = winsim::CreateDriverObject(u"\\Driver\\Usb");
    PDEVICE_OBJECT pdo = winsim::CreateDeviceObject(driver, 0, 2);
    winsim::SetRegistryString(pdo, PLUGPLAY_REGKEY_DRIVER, u"CameraModel", u"OX-2");
    winsim::SetRegistryString(pdo, PLUGPLAY_REGKEY_DEVICE, u"Anything", u"elsewhere");
    alignas(8) UCHAR buffer[64];
    const auto& info = *reinterpret_cast<const KEY_VALUE_PARTIAL_INFORMATION*>(buffer);
    ULONG resultLength = 0;
    auto query = [&](const char16_t* name, ULONG length) {
        HANDLE key = nullptr;
        EXPECT_EQ(IoOpenDeviceRegistryKey(pdo, PLUGPLAY_REGKEY_DRIVER, KEY_READ, &key),
                  STATUS_SUCCESS);
        UNICODE_STRING valueName;
        RtlInitUnicodeString(&valueName, reinterpret_cast<PCWSTR>(name));
        std::memset(buffer, 0xEE, sizeof buffer);
        resultLength = 0;
        NTSTATUS status = ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, buffer,
                                          length, &resultLength);
        EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
        return status;
    };

    ASSERT_EQ(query(u"cameramodel", kHeader + 10), STATUS_SUCCESS) << "names ignore case";
    EXPECT_EQ(resultLength, kHeader + 10);
    EXPECT_EQ(info.Type, ULONG(REG_SZ));
    EXPECT_EQ(info.DataLength, 10u);
    EXPECT_EQ(std::memcmp(info.Data, u"OX-2", 10), 0);

    ASSERT_EQ(query(u"CameraModel", kHeader + 9), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(resultLength, kHeader + 10);
    EXPECT_EQ(info.Type, ULONG(REG_SZ));
    EXPECT_EQ(info.DataLength, 10u);
    EXPECT_EQ(buffer[kHeader], 0xEE) << "no data copied";

    EXPECT_EQ(query(u"CameraModel", kHeader - 1), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(resultLength, kHeader + 10);
    EXPECT_EQ(buffer[0], 0xEE);
    EXPECT_EQ(query(u"Anything", 48), STATUS_OBJECT_NAME_NOT_FOUND) << "another key";

    // A handle left open or closed twice is a finding.
    HANDLE key = nullptr;
    ASSERT_EQ(IoOpenDeviceRegistryKey(pdo, PLUGPLAY_REGKEY_DRIVER, KEY_READ, &key), STATUS_SUCCESS);
    EXPECT_FALSE(winsim::CheckPoolEmpty("driver unload"));
    ExpectViolation("HANDLE_LEAK", {"1 registry key handle never closed"});
    EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(key), STATUS_INVALID_HANDLE);
    ExpectViolation("BAD_HANDLE", {"ZwClose", "no open registry key"});
    winsim::DeleteDeviceObject(pdo);
    winsim::DeleteDriverObject(driver);
}

}  // namespace
}  // namespace kerneltest
