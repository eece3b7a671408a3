// The registry keys of device objects, as the host sets them up, read by the
// driver through IoOpenDeviceRegistryKey and ZwQueryValueKey.
#include "kernel/describe.h"
#include "kernel/device_registry.h"
#include "kernel/kernel.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

namespace winsim::kernel {
namespace {

struct RegistryValue {
    ULONG type;
    std::vector<uint8_t> data;
};

// Value names compare without regard to case, as in the Windows registry.
struct CaseInsensitiveLess {
    static char16_t Fold(char16_t c) { return (c >= u'a' && c <= u'z') ? c - u'a' + u'A' : c; }
    bool operator()(const std::u16string& a, const std::u16string& b) const {
        return std::lexicographical_compare(
            a.begin(), a.end(), b.begin(), b.end(),
            [](char16_t x, char16_t y) { return Fold(x) < Fold(y); });
    }
};

using KeyId = std::pair<PDEVICE_OBJECT, ULONG>;
using Key = std::map<std::u16string, RegistryValue, CaseInsensitiveLess>;

struct RegistryState {
    std::mutex mutex;
    std::map<KeyId, Key> keys;
    std::map<PDEVICE_OBJECT, NTSTATUS> failingOpens;
    std::map<HANDLE, KeyId> handles;
    uintptr_t nextHandle = 0x80000004;
};

RegistryState& State() {
    static auto* state = new RegistryState;
    return *state;
}

void CheckPassive(const char* api) {
    KIRQL irql = KeGetCurrentIrql();
    if (irql != PASSIVE_LEVEL) {
        ReportViolation("IRQL", std::string(api) + " at " + IrqlName(irql) +
                                    "; the registry needs PASSIVE_LEVEL");
    }
}

NTSTATUS BadHandle(const char* api, HANDLE handle) {
    ReportViolation("BAD_HANDLE", std::string(api) + " of handle " + Hex(handle) +
                                      ", which is no open registry key");
    return STATUS_INVALID_HANDLE;
}

}  // namespace

bool ReportHandleLeaks(std::string_view when) {
    RegistryState& state = State();
    size_t open;
    {
        std::lock_guard lock(state.mutex);
        open = state.handles.size();
    }
    if (open == 0)
        return true;
    ReportViolation("HANDLE_LEAK", "handle leak at " + std::string(when) + ": " +
                                       std::to_string(open) + " registry key handle" +
                                       (open == 1 ? "" : "s") + " never closed with ZwClose");
    return false;
}

void ResetRegistry() {
    RegistryState& state = State();
    std::lock_guard lock(state.mutex);
    state.keys.clear();
    state.failingOpens.clear();
    state.handles.clear();
}

}  // namespace winsim::kernel

namespace winsim {

void SetRegistryValue(PDEVICE_OBJECT device, ULONG keyType, std::u16string_view name, ULONG type,
                      std::vector<uint8_t> data) {
    kernel::RegistryState& state = kernel::State();
    std::lock_guard lock(state.mutex);
    state.keys[{device, keyType}][std::u16string(name)] =
        kernel::RegistryValue{type, std::move(data)};
}

void SetRegistryString(PDEVICE_OBJECT device, ULONG keyType, std::u16string_view name,
                       std::u16string_view value) {
    // REG_SZ data holds the terminating NUL.
    std::vector<uint8_t> data((value.size() + 1) * sizeof(char16_t), 0);
    std::memcpy(data.data(), value.data(), value.size() * sizeof(char16_t));
    SetRegistryValue(device, keyType, name, REG_SZ, std::move(data));
}

void ClearRegistry(PDEVICE_OBJECT device) {
    kernel::RegistryState& state = kernel::State();
    std::lock_guard lock(state.mutex);
    std::erase_if(state.keys, [&](const auto& key) { return key.first.first == device; });
    state.failingOpens.erase(device);
}

void FailRegistryOpen(PDEVICE_OBJECT device, NTSTATUS status) {
    kernel::RegistryState& state = kernel::State();
    std::lock_guard lock(state.mutex);
    if (NT_SUCCESS(status)) {
        state.failingOpens.erase(device);
    } else {
        state.failingOpens[device] = status;
    }
}

}  // namespace winsim

using namespace winsim::kernel;

NTSTATUS NTAPI IoOpenDeviceRegistryKey(PDEVICE_OBJECT DeviceObject, ULONG DevInstKeyType,
                                       ACCESS_MASK DesiredAccess, PHANDLE DevInstRegKey) {
    CheckPassive("IoOpenDeviceRegistryKey");
    if (DevInstKeyType != PLUGPLAY_REGKEY_DEVICE && DevInstKeyType != PLUGPLAY_REGKEY_DRIVER) {
        return STATUS_INVALID_PARAMETER;
    }
    RegistryState& state = State();
    std::lock_guard lock(state.mutex);
    if (auto failing = state.failingOpens.find(DeviceObject); failing != state.failingOpens.end()) {
        return failing->second;
    }
    // A key nothing was written to opens as an empty key.
    auto handle = reinterpret_cast<HANDLE>(state.nextHandle);
    state.nextHandle += 4;
    state.handles[handle] = {DeviceObject, DevInstKeyType};
    *DevInstRegKey = handle;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                               KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                               PVOID KeyValueInformation, ULONG Length, PULONG ResultLength) {
    CheckPassive("ZwQueryValueKey");
    RegistryState& state = State();
    std::unique_lock lock(state.mutex);
    auto handle = state.handles.find(KeyHandle);
    if (handle == state.handles.end()) {
        lock.unlock();
        return BadHandle("ZwQueryValueKey", KeyHandle);
    }
    if (KeyValueInformationClass != KeyValuePartialInformation)
        return STATUS_INVALID_PARAMETER;

    std::u16string name(reinterpret_cast<const char16_t*>(ValueName->Buffer),
                        ValueName->Length / sizeof(WCHAR));
    auto key = state.keys.find(handle->second);
    if (key == state.keys.end())
        return STATUS_OBJECT_NAME_NOT_FOUND;
    auto value = key->second.find(name);
    if (value == key->second.end())
        return STATUS_OBJECT_NAME_NOT_FOUND;

    constexpr ULONG kHeader = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);
    const RegistryValue& found = value->second;
    auto dataLength = static_cast<ULONG>(found.data.size());
    *ResultLength = kHeader + dataLength;
    if (Length < kHeader)
        return STATUS_BUFFER_TOO_SMALL;
    auto info = static_cast<PKEY_VALUE_PARTIAL_INFORMATION>(KeyValueInformation);
    info->TitleIndex = 0;
    info->Type = found.type;
    info->DataLength = dataLength;
    if (Length < kHeader + dataLength)
        return STATUS_BUFFER_OVERFLOW;
    std::memcpy(info->Data, found.data.data(), dataLength);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwClose(HANDLE Handle) {
    RegistryState& state = State();
    {
        std::lock_guard lock(state.mutex);
        if (state.handles.erase(Handle) != 0)
            return STATUS_SUCCESS;
    }
    return BadHandle("ZwClose", Handle);
}
