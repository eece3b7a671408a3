// Device registry values through ZwQueryValueKey's partial information, and key handles.
#include "kernel_test.h"

#include <cstring>

namespace kerneltest {
namespace {

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
