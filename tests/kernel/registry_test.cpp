// Device registry values through ZwQueryValueKey's partial information, and key handles.
#include "kernel_test.h"

#include <cstring>

namespace kerneltest {
namespace {

constexpr ULONG kHeader = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);

class Registry : public KernelTest {
  protected:
    void SetUp() override {
        KernelTest::SetUp();
        driver = winsim::CreateDriverObject(u"\\Driver\\Usb");
        pdo = winsim::CreateDeviceObject(driver, 0, 2);
    }

    void TearDown() override {
        winsim::DeleteDeviceObject(pdo);
        winsim::DeleteDriverObject(driver);
        KernelTest::TearDown();
    }

    NTSTATUS Open(HANDLE* key) {
        return IoOpenDeviceRegistryKey(pdo, PLUGPLAY_REGKEY_DRIVER, KEY_READ, key);
    }

    NTSTATUS Query(const char16_t* name, ULONG length) {
        HANDLE key = nullptr;
        EXPECT_EQ(Open(&key), STATUS_SUCCESS);
        UNICODE_STRING valueName;
        RtlInitUnicodeString(&valueName, reinterpret_cast<PCWSTR>(name));
        std::memset(buffer, 0xEE, sizeof buffer);
        resultLength = 0;
        NTSTATUS status = ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, buffer,
                                          length, &resultLength);
        EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
        return status;
    }

    const KEY_VALUE_PARTIAL_INFORMATION& Info() const {
        return *reinterpret_cast<const KEY_VALUE_PARTIAL_INFORMATION*>(buffer);
    }

    PDRIVER_OBJECT driver;
    PDEVICE_OBJECT pdo;
    alignas(8) UCHAR buffer[128];
    ULONG resultLength;
};

// "OX-2" with its terminator is 10 bytes of data behind the header.
TEST_F(Registry, StringValueComesWithItsTerminatorIntoABufferJustLargeEnough) {
    winsim::SetRegistryString(pdo, PLUGPLAY_REGKEY_DRIVER, u"CameraModel", u"OX-2");
    ASSERT_EQ(Query(u"cameramodel", kHeader + 10), STATUS_SUCCESS) << "names ignore case";
    EXPECT_EQ(resultLength, kHeader + 10);
    EXPECT_EQ(Info().TitleIndex, 0u);
    EXPECT_EQ(Info().Type, ULONG(REG_SZ));
    EXPECT_EQ(Info().DataLength, 10u);
    EXPECT_EQ(std::memcmp(Info().Data, u"OX-2", 10), 0);

    ASSERT_EQ(Query(u"CameraModel", kHeader + 9), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(resultLength, kHeader + 10);
    EXPECT_EQ(Info().Type, ULONG(REG_SZ));
    EXPECT_EQ(Info().DataLength, 10u);
    EXPECT_EQ(buffer[kHeader], 0xEE) << "no data copied";

    EXPECT_EQ(Query(u"CameraModel", kHeader - 1), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(resultLength, kHeader + 10);
    EXPECT_EQ(buffer[0], 0xEE);
}

TEST_F(Registry, MissingValuesAreNotFoundOpensCanFailHandlesAreChecked) {
    EXPECT_EQ(Query(u"Anything", 48), STATUS_OBJECT_NAME_NOT_FOUND);
    winsim::SetRegistryString(pdo, PLUGPLAY_REGKEY_DEVICE, u"Anything", u"elsewhere");
    EXPECT_EQ(Query(u"Anything", 48), STATUS_OBJECT_NAME_NOT_FOUND) << "another key";

    winsim::SetRegistryValue(pdo, PLUGPLAY_REGKEY_DRIVER, u"Binary", REG_BINARY, {1, 2, 3});
    ASSERT_EQ(Query(u"Binary", 48), STATUS_SUCCESS);
    EXPECT_EQ(Info().Type, ULONG(REG_BINARY));
    winsim::ClearRegistry(pdo);
    EXPECT_EQ(Query(u"Binary", 48), STATUS_OBJECT_NAME_NOT_FOUND);

    // Opening can fail, and handles are checked.
    HANDLE key = nullptr;
    winsim::FailRegistryOpen(pdo, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Open(&key), STATUS_OBJECT_NAME_NOT_FOUND);
    winsim::FailRegistryOpen(pdo, STATUS_SUCCESS);
    ASSERT_EQ(Open(&key), STATUS_SUCCESS);
    EXPECT_FALSE(winsim::CheckPoolEmpty("driver unload"));
    ExpectViolation("HANDLE_LEAK", {"1 registry key handle never closed"});
    EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(key), STATUS_INVALID_HANDLE);
    ExpectViolation("BAD_HANDLE", {"ZwClose", "no open registry key"});
}

}  // namespace
}  // namespace kerneltest
