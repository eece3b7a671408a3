// Device power through the physical device object: the function driver's
// power policy owner (the stream class) sends IRP_MJ_POWER /
// IRP_MN_SET_POWER with a device power state, and the bus powers the device
// down or up. D3 cuts the device's power; D1 and D2 suspend it with power
// kept, so the device model sees no change. While unpowered, every
// transaction on the bus goes unanswered: requests are accepted and queued as
// usual and fail with USBD_STATUS_DEV_NOT_RESPONDING when the host controller
// puts them on the wire (host_controller.cpp).
#include "usb/stack_internals.h"

namespace usbsim {

NTSTATUS NTAPI UsbStack::Impl::DispatchPower(PDEVICE_OBJECT device, PIRP irp) {
    if (RefuseWithoutStackLocation(device, irp)) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    switch (stack->MinorFunction) {
        case IRP_MN_SET_POWER:
            if (stack->Parameters.Power.Type == DevicePowerState) {
                FromDevice(device)->SetDevicePower(stack->Parameters.Power.State.DeviceState);
            }
            return CompleteIrpNow(irp, STATUS_SUCCESS);
        case IRP_MN_QUERY_POWER:
            return CompleteIrpNow(irp, STATUS_SUCCESS);
        default:
            // A bus driver completes power IRPs it does not handle untouched.
            return CompleteIrpNow(irp, irp->IoStatus.Status);
    }
}

void UsbStack::Impl::SetDevicePower(DEVICE_POWER_STATE state) {
    bool nowPowered;
    switch (state) {
        case PowerDeviceD0:
        case PowerDeviceD1:
        case PowerDeviceD2:
            nowPowered = true;
            break;
        case PowerDeviceD3:
            nowPowered = false;
            break;
        default:
            return;  // not a state a bus can put a device in
    }
    {
        std::lock_guard lock(powerMutex);
        if (powered.exchange(nowPowered) == nowPowered) {
            return;
        }
        device.SetPowered(nowPowered);
    }
    if (!nowPowered) {
        // Transfers waiting for a NAKed endpoint are retried by the host
        // controller; against an unpowered device they now fail.
        OnReady(0);
    }
}

}  // namespace usbsim

bool usbsim::UsbStack::DevicePowered() const {
    return impl_->powered.load();
}
