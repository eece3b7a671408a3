// The adapter's single teardown: SRB_UNINITIALIZE_DEVICE and every failed
// bring-up. Each release tests its pointer and clears it, so it may run twice.
#include "ornix.h"

// Returns the camera to the unconfigured state; a removed camera is sent nothing.
static VOID OrnixUnconfigure(PORNIX_DEVICE_CONTEXT Ext) {
    if (Ext->ConfigurationHandle != NULL && !OrnixFlagIsSet(&Ext->Removed)) {
        DbgPrint(ORNIX_PREFIX "Unconfiguring device\n");
        URB urb;
        RtlZeroMemory(&urb, sizeof(urb));
        urb.UrbSelectConfiguration.Hdr.Length = sizeof(struct _URB_SELECT_CONFIGURATION);
        urb.UrbSelectConfiguration.Hdr.Function = URB_FUNCTION_SELECT_CONFIGURATION;
        urb.UrbSelectConfiguration.ConfigurationDescriptor = NULL;  // unconfigure
        OrnixCallUsbd(Ext, &urb);  // nothing to do about a failure here
        DbgPrint(ORNIX_PREFIX "Done unconfiguring device\n");
    }
    // Gone with the configuration, whether or not the camera was told.
    Ext->ConfigurationHandle = NULL;
}

// IRQL: PASSIVE_LEVEL. Always succeeds. Waits for the driver's work items.
NTSTATUS OrnixUninitializeDevice(PORNIX_DEVICE_CONTEXT Ext) {
    DbgPrint(ORNIX_PREFIX "OrnixUninitializeDevice\n");
    // Work items that start from here on send nothing to the camera.
    OrnixSetFlag(&Ext->Uninitializing);

    // A failed bring-up never ran streams or the interrupt transfer.
    if (Ext->Initialized) {
        OrnixHaltInterruptPipe(Ext);
        OrnixHaltOpenStreams(Ext);
    }

    // Before anything is freed or the camera unconfigured: no work item may
    // be queued any more, and those queued before have finished.
    OrnixDrainWorkItems(Ext);

    OrnixReleaseCameraTables(Ext);

    KeWaitForSingleObject(&Ext->PipeMutex, Executive, KernelMode, FALSE, NULL);
    if (Ext->InterfaceInfoTable != NULL) {
        OrnixFreePool(Ext->InterfaceInfoTable);
        Ext->InterfaceInfoTable = NULL;
        Ext->InterfaceInfoCount = 0;
    }
    KeReleaseMutex(&Ext->PipeMutex, FALSE);

    OrnixUnconfigure(Ext);

    if (Ext->ConfigurationDescriptor != NULL) {
        OrnixFreePool(Ext->ConfigurationDescriptor);
        Ext->ConfigurationDescriptor = NULL;
    }
    if (Ext->DeviceDescriptor != NULL) {
        OrnixFreePool(Ext->DeviceDescriptor);
        Ext->DeviceDescriptor = NULL;
    }
    if (Ext->Lut8Buffer != NULL) {
        OrnixFreePool(Ext->Lut8Buffer);
        Ext->Lut8Buffer = NULL;
        Ext->Lut8Length = 0;
    }
    return STATUS_SUCCESS;
}
