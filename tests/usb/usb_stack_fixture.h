// The common set-up of the stack's tests: a fresh simulated machine, the fake
// device behind a UsbStack, URB builders, and a verifier check at the end.
#pragma once

#include <gtest/gtest.h>
#include <usbioctl.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "fake_usb_device.h"
#include "kernel/kernel.h"
#include "urb_call.h"
#include "usb/usb_stack.h"

namespace usbtest {

// A URB of any length, suitably aligned; never smaller than the URB union,
// so that its header can be reached through a PURB.
class UrbBuffer {
  public:
    explicit UrbBuffer(size_t bytes)
        : storage_((std::max(bytes, sizeof(URB)) + 7) / 8), size_(bytes) {}
    PURB get() { return reinterpret_cast<PURB>(storage_.data()); }
    PURB operator->() { return get(); }
    size_t size() const { return size_; }

  private:
    std::vector<uint64_t> storage_;
    size_t size_;
};

URB VendorUrb(bool in, uint8_t request, uint16_t value, uint16_t index, void* buffer, ULONG length);
URB DescriptorUrb(uint8_t type, uint8_t index, uint16_t language, void* buffer, ULONG length);
URB TransferUrb(USBD_PIPE_HANDLE pipe, bool in, void* buffer, ULONG length);
URB PipeUrb(USHORT function, USBD_PIPE_HANDLE pipe);

// Select configuration for interface 0 of `descriptor`, alternate setting
// `alternate` with `pipes` pipes, each with the given MaximumTransferSize.
UrbBuffer SelectConfigurationUrb(std::vector<uint8_t>& descriptor, uint8_t alternate, ULONG pipes,
                                 ULONG maximumTransferSize);
UrbBuffer SelectInterfaceUrb(USBD_CONFIGURATION_HANDLE configuration, uint8_t alternate,
                             ULONG pipes, ULONG maximumTransferSize);

PUSBD_INTERFACE_INFORMATION InterfaceOf(UrbBuffer& urb);  // of either select URB

class UsbStackTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    PDEVICE_OBJECT Pdo() const { return stack->PhysicalDeviceObject(); }

    // Selects configuration 1 with the given alternate setting and keeps its handle.
    void Configure(uint8_t alternate = 0, ULONG maximumTransferSize = 0x200000);
    USBD_CONFIGURATION_HANDLE configurationHandle = nullptr;
    USBD_PIPE_HANDLE PipeFor(uint8_t endpoint) const;  // of the selected settings

    // Findings the test provokes on purpose; anything else fails TearDown.
    void ExpectViolation(const std::string& check) { expectedViolations.push_back(check); }

    FakeUsbDevice device;
    usbsim::UsbStackOptions options;
    std::unique_ptr<usbsim::UsbStack> stack;
    std::vector<std::string> expectedViolations;
};

}  // namespace usbtest
