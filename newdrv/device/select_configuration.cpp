// Selection of the camera's configuration: interface 0 in its alternate
// setting 0, with the pipe map and transfer sizes of OrnixAssignPipes, and
// the interface information of every alternate setting kept for later.
#include "ornix.h"

// Alternate settings are numbered by a UCHAR.
#define ORNIX_MAX_ALT_SETTINGS 256

static PUSB_INTERFACE_DESCRIPTOR OrnixFindAltSetting(PUSB_CONFIGURATION_DESCRIPTOR Descriptor,
                                                     ULONG AltSetting) {
    return USBD_ParseConfigurationDescriptorEx(Descriptor, Descriptor, 0, (LONG)AltSetting, -1, -1,
                                               -1);
}

static ULONG OrnixCountAltSettings(PUSB_CONFIGURATION_DESCRIPTOR Descriptor) {
    ULONG count = 0;
    while (count < ORNIX_MAX_ALT_SETTINGS && OrnixFindAltSetting(Descriptor, count) != NULL) {
        count++;
    }
    return count;
}

static VOID OrnixDumpInterface(ULONG AltSetting, PUSBD_INTERFACE_INFORMATION Interface) {
    OrnixVerbose(ORNIX_PREFIX "size of interface %d request = %d\n", AltSetting, Interface->Length);
    OrnixVerbose(ORNIX_PREFIX "---------\n");
    OrnixVerbose(ORNIX_PREFIX "NumberOfPipes 0x%x\n", Interface->NumberOfPipes);
    OrnixVerbose(ORNIX_PREFIX "Length 0x%x\n", Interface->Length);
    OrnixVerbose(ORNIX_PREFIX "Alt Setting 0x%x\n", Interface->AlternateSetting);
    OrnixVerbose(ORNIX_PREFIX "Interface Number 0x%x\n", Interface->InterfaceNumber);
    for (ULONG p = 0; p < Interface->NumberOfPipes; p++) {
        PUSBD_PIPE_INFORMATION pipe = &Interface->Pipes[p];
        OrnixVerbose(ORNIX_PREFIX "---------\n");
        OrnixVerbose(ORNIX_PREFIX "PipeType 0x%x\n", pipe->PipeType);
        OrnixVerbose(ORNIX_PREFIX "EndpointAddress 0x%x\n", pipe->EndpointAddress);
        OrnixVerbose(ORNIX_PREFIX "MaxPacketSize 0x%x\n", pipe->MaximumPacketSize);
        OrnixVerbose(ORNIX_PREFIX "Interval 0x%x\n", pipe->Interval);
        OrnixVerbose(ORNIX_PREFIX "Handle 0x%x\n", (ULONG)(ULONG_PTR)pipe->PipeHandle);
        OrnixVerbose(ORNIX_PREFIX "MaxTransferSize 0x%x\n", pipe->MaximumTransferSize);
    }
    OrnixVerbose(ORNIX_PREFIX "---------\n");
}

// Replaces InterfaceInfoTable with a copy of the Count records the list
// entries point at: first the pointers, then the records back to back.
static NTSTATUS OrnixKeepInterfaceInfo(PORNIX_DEVICE_CONTEXT Ext,
                                       PUSBD_INTERFACE_LIST_ENTRY InterfaceList, ULONG Count) {
    SIZE_T records = 0;
    for (ULONG a = 0; a < Count; a++) {
        records += InterfaceList[a].Interface->Length;
    }

    if (Ext->InterfaceInfoTable != NULL) {
        OrnixFreePool(Ext->InterfaceInfoTable);
        Ext->InterfaceInfoTable = NULL;
        Ext->InterfaceInfoCount = 0;
    }
    // No setting at all leaves nothing to allocate, and no usable camera.
    if (Count == 0) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    SIZE_T pointers = Count * sizeof(PUSBD_INTERFACE_INFORMATION);
    PUSBD_INTERFACE_INFORMATION* table =
        (PUSBD_INTERFACE_INFORMATION*)OrnixAllocatePool(pointers + records);
    if (table == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    PUCHAR next = (PUCHAR)table + pointers;
    for (ULONG a = 0; a < Count; a++) {
        PUSBD_INTERFACE_INFORMATION source = InterfaceList[a].Interface;
        table[a] = (PUSBD_INTERFACE_INFORMATION)next;
        RtlCopyMemory(next, source, source->Length);
        OrnixDumpInterface(a, table[a]);
        next += source->Length;
    }
    Ext->InterfaceInfoTable = table;
    Ext->InterfaceInfoCount = Count;
    return STATUS_SUCCESS;
}

// Builds the request for the list and fills in the pipe settings. With
// several alternate settings the request carries setting 0 only (the
// others are selected later by OrnixSelectAltSetting), but the table keeps
// them all. Returns NULL when memory is short.
static PURB OrnixBuildSelectRequest(PORNIX_DEVICE_CONTEXT Ext,
                                    PUSB_CONFIGURATION_DESCRIPTOR Descriptor,
                                    PUSBD_INTERFACE_LIST_ENTRY InterfaceList, ULONG Count,
                                    NTSTATUS* Status) {
    *Status = STATUS_INSUFFICIENT_RESOURCES;
    PURB urb = USBD_CreateConfigurationRequestEx(Descriptor, InterfaceList);
    if (urb == NULL) {
        return NULL;
    }
    OrnixAssignPipes(Ext, InterfaceList);

    *Status = OrnixKeepInterfaceInfo(Ext, InterfaceList, Count);
    if (!NT_SUCCESS(*Status)) {
        OrnixFreePool(urb);
        return NULL;
    }
    if (Count == 1) {
        return urb;
    }

    OrnixVerbose(ORNIX_PREFIX "Only enabling alternate interface 0\n");
    OrnixFreePool(urb);
    InterfaceList[1].InterfaceDescriptor = NULL;
    InterfaceList[1].Interface = NULL;
    urb = USBD_CreateConfigurationRequestEx(Descriptor, InterfaceList);
    if (urb == NULL) {
        *Status = STATUS_INSUFFICIENT_RESOURCES;
        return NULL;
    }
    // Setting 0 as assigned, not as freshly parsed.
    PUSBD_INTERFACE_INFORMATION kept = Ext->InterfaceInfoTable[0];
    RtlCopyMemory(InterfaceList[0].Interface, kept, kept->Length);
    return urb;
}

// IRQL: PASSIVE_LEVEL. The descriptor has passed
// OrnixConfigurationDescriptorIsSound.
NTSTATUS OrnixSelectConfiguration(PORNIX_DEVICE_CONTEXT Ext,
                                  PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor) {
    OrnixVerbose(ORNIX_PREFIX "OrnixSelectConfiguration\n");
    if (ConfigurationDescriptor->bNumInterfaces == 0) {
        DbgPrint(ORNIX_PREFIX "Camera has 0 interface!!\n");
    }

    ULONG count = OrnixCountAltSettings(ConfigurationDescriptor);
    OrnixVerbose(ORNIX_PREFIX "InterfaceCount:%d\n", count);

    // Paged: it lives only during this routine, at passive level.
    SIZE_T listSize = (count + 1) * sizeof(USBD_INTERFACE_LIST_ENTRY);
    PUSBD_INTERFACE_LIST_ENTRY list =
        (PUSBD_INTERFACE_LIST_ENTRY)ExAllocatePoolWithTag(PagedPool, listSize, ORNIX_POOL_TAG);
    if (list == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    for (ULONG a = 0; a < count; a++) {
        list[a].InterfaceDescriptor = OrnixFindAltSetting(ConfigurationDescriptor, a);
        list[a].Interface = NULL;
    }
    list[count].InterfaceDescriptor = NULL;
    list[count].Interface = NULL;

    NTSTATUS status;
    PURB urb = OrnixBuildSelectRequest(Ext, ConfigurationDescriptor, list, count, &status);
    OrnixFreePool(list);
    if (urb == NULL) {
        return status;
    }

    DbgPrint(ORNIX_PREFIX "Selecting configuration\n");
    status = OrnixCallUsbd(Ext, urb);
    USBD_STATUS usbdStatus = urb->UrbHeader.Status;
    if (NT_SUCCESS(status) && USBD_SUCCESS(usbdStatus)) {
        Ext->ConfigurationHandle = urb->UrbSelectConfiguration.ConfigurationHandle;
        // Record 0 now carries the interface and pipe handles.
        PUSBD_INTERFACE_INFORMATION selected = &urb->UrbSelectConfiguration.Interface;
        PUSBD_INTERFACE_INFORMATION kept = Ext->InterfaceInfoTable[0];
        RtlCopyMemory(kept, selected,
                      selected->Length < kept->Length ? selected->Length : kept->Length);
    } else {
        DbgPrint(ORNIX_PREFIX "Selecting the Configuration fialed with 0x%08lx, USBD 0x%08lx\n",
                 (ULONG)status, (ULONG)usbdStatus);
    }

    OrnixFreePool(urb);
    OrnixVerbose(ORNIX_PREFIX "exit OrnixSelectConfiguration (%x)\n", (ULONG)status);
    return status;
}
