// SRB_INITIALIZE_DEVICE: prepares the device context and brings the camera up.
#include "ornix.h"

// Clears and creates everything the other subsystems expect to find.
static VOID OrnixResetDeviceContext(PORNIX_DEVICE_CONTEXT Ext) {
    Ext->Initialized = FALSE;
    Ext->Removed = FALSE;
    Ext->HighSpeed = FALSE;
    for (ULONG i = 0; i < ORNIX_MAX_STREAMS; i++) {
        Ext->StreamContexts[i] = NULL;
    }
    Ext->DeviceDescriptor = NULL;
    Ext->InterfaceInfoTable = NULL;
    Ext->InterfaceInfoCount = 0;
    Ext->InterruptUrb = NULL;
    Ext->InterruptIrp = NULL;
    Ext->InterruptPending = FALSE;
    Ext->DevicePowerState = ORNIX_POWER_D0;

    KeInitializeEvent(&Ext->StopEvent, NotificationEvent, FALSE);
    KeInitializeMutex(&Ext->InterruptMutex, 0);
    KeInitializeSemaphore(&Ext->UsbRequestSemaphore, 1, 1);
    KeInitializeMutex(&Ext->RequestMutex, 0);
    KeInitializeMutex(&Ext->PipeMutex, 0);
    KeInitializeSpinLock(&Ext->PipeHandleLock);
    // Work items may be queued from here until teardown closes the gate.
    Ext->WorkItemCount = 1;
    Ext->WorkItemsClosed = 0;
    KeInitializeEvent(&Ext->WorkItemsDone, NotificationEvent, FALSE);
    // Before anything can read the product data the correction walks.
    KeInitializeSpinLock(&Ext->DefectLock);
    Ext->PixelCorrectionEnabled = TRUE;
}

// IRQL: PASSIVE_LEVEL. Runs without RequestMutex: it creates it.
NTSTATUS OrnixInitialize(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    PPORT_CONFIGURATION_INFORMATION config = Srb->CommandData.ConfigInfo;

    config->ClassDeviceObject->Flags |= DO_DIRECT_IO;
    config->ClassDeviceObject->Flags &= ~DO_DEVICE_INITIALIZING;

    RtlZeroMemory(Ext, sizeof(*Ext));
    Ext->Signature = ORNIX_DEVICE_SIGNATURE;

    Ext->PhysicalDeviceObject = config->PhysicalDeviceObject;
    Ext->ClassDeviceObject = config->ClassDeviceObject;
    Ext->RealPhysicalDeviceObject = config->RealPhysicalDeviceObject;
    DbgPrint(ORNIX_PREFIX "OrnixInitialize:\n");
    DbgPrint(ORNIX_PREFIX "  pExt:0x%08lx\n", (ULONG)(ULONG_PTR)Ext);
    DbgPrint(ORNIX_PREFIX "  PDO :0x%08lx\n", (ULONG)(ULONG_PTR)Ext->PhysicalDeviceObject);
    DbgPrint(ORNIX_PREFIX "  CDO :0x%08lx\n", (ULONG)(ULONG_PTR)Ext->ClassDeviceObject);
    DbgPrint(ORNIX_PREFIX "  RPDO:0x%08lx\n", (ULONG)(ULONG_PTR)Ext->RealPhysicalDeviceObject);

    Ext->CameraId = 0;
    OrnixFindCameraId(Ext);
    if (Ext->RealPhysicalDeviceObject == NULL) {
        Ext->RealPhysicalDeviceObject = Ext->PhysicalDeviceObject;
    }

    OrnixResetDeviceContext(Ext);

    NTSTATUS status = OrnixConfigureAll(Ext);
    if (!NT_SUCCESS(status)) {
        // Teardown copes with whatever the bring-up left half-built.
        OrnixUninitializeDevice(Ext);
        return status;
    }

    config->StreamDescriptorSize =
        sizeof(HW_STREAM_HEADER) + Ext->StreamCount * sizeof(HW_STREAM_INFORMATION);
    OrnixVerbose(ORNIX_PREFIX "StreamDescriptorSize = %d, streamCount = %d\n",
                 config->StreamDescriptorSize, Ext->StreamCount);
    Ext->Initialized = TRUE;
    return STATUS_SUCCESS;
}
