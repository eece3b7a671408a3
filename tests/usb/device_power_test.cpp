// Device power through the physical device object: set-power IRPs reach the
// device model as power lost (D3) and restored (D0), D1 and D2 keep it
// powered, and an unpowered device answers nothing, so requests fail after
// the stack has accepted them, those already waiting on the bus included.
#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

class DevicePowerTest : public UsbStackTest {
  protected:
    static NTSTATUS NTAPI KeepIrp(PDEVICE_OBJECT, PIRP, PVOID) {
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
    // A power IRP as the power policy owner sends it; returns its final status.
    NTSTATUS SendPower(UCHAR minor, POWER_STATE_TYPE type, ULONG state) {
        PIRP irp = IoAllocateIrp(Pdo()->StackSize, FALSE);
        irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
        PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
        next->MajorFunction = IRP_MJ_POWER;
        next->MinorFunction = minor;
        next->Parameters.Power.Type = type;
        next->Parameters.Power.State.DeviceState = static_cast<DEVICE_POWER_STATE>(state);
        IoSetCompletionRoutine(irp, &KeepIrp, nullptr, TRUE, TRUE, TRUE);
        const NTSTATUS returned = IoCallDriver(Pdo(), irp);
        const NTSTATUS status = irp->IoStatus.Status;
        EXPECT_EQ(returned, status) << "a set-power IRP completes at once";
        IoFreeIrp(irp);
        return status;
    }
    NTSTATUS SetDevicePower(DEVICE_POWER_STATE state) {
        return SendPower(IRP_MN_SET_POWER, DevicePowerState, state);
    }
};

TEST_F(DevicePowerTest, D3CutsThePowerD0RestoresItAndNothingElseTouchesIt) {
    EXPECT_TRUE(stack->DevicePowered());
    for (DEVICE_POWER_STATE kept : {PowerDeviceD1, PowerDeviceD2, PowerDeviceD0}) {
        EXPECT_EQ(SetDevicePower(kept), STATUS_SUCCESS);
    }
    EXPECT_TRUE(device.PowerLog().empty());

    EXPECT_EQ(SetDevicePower(PowerDeviceD3), STATUS_SUCCESS);
    EXPECT_FALSE(stack->DevicePowered());
    EXPECT_EQ(SetDevicePower(PowerDeviceD3), STATUS_SUCCESS);  // already off
    // Neither a system state, a query nor a state beyond D3 powers it up.
    EXPECT_EQ(SendPower(IRP_MN_SET_POWER, SystemPowerState, PowerSystemWorking), STATUS_SUCCESS);
    EXPECT_EQ(SendPower(IRP_MN_QUERY_POWER, DevicePowerState, PowerDeviceD0), STATUS_SUCCESS);
    EXPECT_EQ(SetDevicePower(PowerDeviceMaximum), STATUS_SUCCESS);
    EXPECT_EQ(SetDevicePower(PowerDeviceUnspecified), STATUS_SUCCESS);
    // A power IRP the bus does not handle keeps the status it came with.
    EXPECT_EQ(SendPower(IRP_MN_WAIT_WAKE, DevicePowerState, PowerDeviceD0), STATUS_NOT_SUPPORTED);
    EXPECT_FALSE(stack->DevicePowered());

    EXPECT_EQ(SetDevicePower(PowerDeviceD0), STATUS_SUCCESS);
    EXPECT_TRUE(stack->DevicePowered());
    EXPECT_EQ(device.PowerLog(), (std::vector<bool>{false, true}));
}

TEST_F(DevicePowerTest, AnUnpoweredDeviceAnswersNothingWaitingTransfersIncluded) {
    Configure();
    device.SetNak(kBulkIn, true);
    URB waiting = BulkIn();
    UrbCall call(Pdo(), &waiting);
    ASSERT_EQ(call.Send(), STATUS_PENDING);
    stack->WaitIdle();  // the host controller has tried it and met the NAK
    const size_t transfersBefore = device.TransferLog().size();

    ASSERT_EQ(SetDevicePower(PowerDeviceD3), STATUS_SUCCESS);
    EXPECT_EQ(call.Wait(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(waiting.UrbHeader.Status, USBD_STATUS_DEV_NOT_RESPONDING);

    const size_t controlsBefore = device.ControlLog().size();
    URB read = RegisterRead();
    UrbCall unanswered(Pdo(), &read);
    EXPECT_EQ(unanswered.Send(), STATUS_PENDING);  // accepted as always
    EXPECT_EQ(unanswered.Wait(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(read.UrbHeader.Status, USBD_STATUS_DEV_NOT_RESPONDING);
    EXPECT_EQ(Transfer(PipeFor(kBulkOut), false, 64), STATUS_UNSUCCESSFUL);
    // Nothing reached the device model.
    EXPECT_EQ(device.ControlLog().size(), controlsBefore);
    EXPECT_EQ(device.TransferLog().size(), transfersBefore);
    // Pipes are the host's: an abort still completes.
    URB abort = PipeUrb(URB_FUNCTION_ABORT_PIPE, PipeFor(kBulkIn));
    EXPECT_EQ(SubmitUrb(Pdo(), &abort), STATUS_SUCCESS);

    ASSERT_EQ(SetDevicePower(PowerDeviceD0), STATUS_SUCCESS);
    URB again = RegisterRead();
    EXPECT_EQ(SubmitUrb(Pdo(), &again), STATUS_SUCCESS);
    EXPECT_EQ(device.ControlLog().size(), controlsBefore + 1);
}

}  // namespace
}  // namespace usbtest
