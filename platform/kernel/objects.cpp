// Driver and device objects for the simulated drivers and the driver under
// test. They are host-side objects, not pool blocks of any driver.
#include "kernel/io_manager.h"
#include "kernel/kernel.h"

#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace winsim {
namespace {

struct DriverStorage {
    DRIVER_OBJECT object{};
    DRIVER_EXTENSION extension{};
    std::u16string name;
};

struct DeviceStorage {
    DEVICE_OBJECT object{};
    std::unique_ptr<std::byte[]> extension;
};

struct ObjectState {
    std::mutex mutex;
    std::unordered_map<PDRIVER_OBJECT, std::unique_ptr<DriverStorage>> drivers;
    std::unordered_map<PDEVICE_OBJECT, std::unique_ptr<DeviceStorage>> devices;
};

ObjectState& State() {
    static auto* state = new ObjectState;
    return *state;
}

}  // namespace

PDRIVER_OBJECT CreateDriverObject(std::u16string_view name) {
    auto storage = std::make_unique<DriverStorage>();
    storage->name = name;
    DRIVER_OBJECT& driver = storage->object;
    driver.Type = IO_TYPE_DRIVER;
    driver.Size = sizeof(DRIVER_OBJECT);
    driver.DriverExtension = &storage->extension;
    storage->extension.DriverObject = &driver;
    driver.DriverName.Buffer = reinterpret_cast<PWSTR>(storage->name.data());
    driver.DriverName.Length = static_cast<USHORT>(storage->name.size() * sizeof(WCHAR));
    driver.DriverName.MaximumLength = driver.DriverName.Length;
    for (PDRIVER_DISPATCH& dispatch : driver.MajorFunction) {
        dispatch = kernel::InvalidDeviceRequest;
    }
    ObjectState& state = State();
    std::lock_guard lock(state.mutex);
    return state.drivers.emplace(&driver, std::move(storage)).first->first;
}

void DeleteDriverObject(PDRIVER_OBJECT driver) {
    ObjectState& state = State();
    std::lock_guard lock(state.mutex);
    state.drivers.erase(driver);
}

PDEVICE_OBJECT CreateDeviceObject(PDRIVER_OBJECT driver, ULONG extensionSize, CCHAR stackSize) {
    auto storage = std::make_unique<DeviceStorage>();
    // Zeroed like the extension IoCreateDevice hands out (and 16-byte aligned).
    storage->extension = std::make_unique<std::byte[]>(extensionSize ? extensionSize : 1);
    DEVICE_OBJECT& device = storage->object;
    device.Type = IO_TYPE_DEVICE;
    device.Size = static_cast<USHORT>(sizeof(DEVICE_OBJECT) + extensionSize);
    device.DriverObject = driver;
    device.DeviceExtension = extensionSize ? storage->extension.get() : nullptr;
    device.StackSize = stackSize;
    ObjectState& state = State();
    std::lock_guard lock(state.mutex);
    device.NextDevice = driver->DeviceObject;
    driver->DeviceObject = &device;
    return state.devices.emplace(&device, std::move(storage)).first->first;
}

void DeleteDeviceObject(PDEVICE_OBJECT device) {
    ClearRegistry(device);
    ObjectState& state = State();
    std::lock_guard lock(state.mutex);
    PDEVICE_OBJECT* link = &device->DriverObject->DeviceObject;
    while (*link != nullptr && *link != device)
        link = &(*link)->NextDevice;
    if (*link == device)
        *link = device->NextDevice;
    state.devices.erase(device);
}

}  // namespace winsim
