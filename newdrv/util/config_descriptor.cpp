// The driver's own search of a configuration descriptor for an interface and
// its own building of a select-configuration request: both run on the
// descriptors as the camera returned them.
#include "ornix.h"

// -1 in a search criterion matches any value.
static BOOLEAN OrnixCriterionMatches(LONG Criterion, UCHAR Value) {
    return Criterion == -1 || Criterion == (LONG)Value;
}

// IRQL: any.
PUSB_INTERFACE_DESCRIPTOR NTAPI USBD_ParseConfigurationDescriptorEx(
    PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor, PVOID StartPosition,
    LONG InterfaceNumber, LONG AlternateSetting, LONG InterfaceClass, LONG InterfaceSubClass,
    LONG InterfaceProtocol) {
    PUCHAR end = (PUCHAR)ConfigurationDescriptor + ConfigurationDescriptor->wTotalLength;
    PUCHAR position = (PUCHAR)StartPosition;
    while (position < end) {
        PUSB_COMMON_DESCRIPTOR common = (PUSB_COMMON_DESCRIPTOR)position;
        // A zero length would never move on: the descriptors are damaged.
        if (common->bLength == 0) {
            return NULL;
        }
        if (common->bDescriptorType == USB_INTERFACE_DESCRIPTOR_TYPE) {
            PUSB_INTERFACE_DESCRIPTOR iface = (PUSB_INTERFACE_DESCRIPTOR)position;
            if (OrnixCriterionMatches(InterfaceNumber, iface->bInterfaceNumber) &&
                OrnixCriterionMatches(AlternateSetting, iface->bAlternateSetting) &&
                OrnixCriterionMatches(InterfaceClass, iface->bInterfaceClass) &&
                OrnixCriterionMatches(InterfaceSubClass, iface->bInterfaceSubClass) &&
                OrnixCriterionMatches(InterfaceProtocol, iface->bInterfaceProtocol)) {
                return iface;
            }
        }
        position += common->bLength;
    }
    return NULL;
}

// IRQL: PASSIVE_LEVEL. The entries' interface descriptors must lie inside
// ConfigurationDescriptor, each followed by its endpoint descriptors.
PURB NTAPI USBD_CreateConfigurationRequestEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                             PUSBD_INTERFACE_LIST_ENTRY InterfaceList) {
    SIZE_T size = FIELD_OFFSET(struct _URB_SELECT_CONFIGURATION, Interface);
    for (PUSBD_INTERFACE_LIST_ENTRY entry = InterfaceList; entry->InterfaceDescriptor != NULL;
         entry++) {
        size += GET_USBD_INTERFACE_SIZE(entry->InterfaceDescriptor->bNumEndpoints);
    }

    struct _URB_SELECT_CONFIGURATION* urb =
        (struct _URB_SELECT_CONFIGURATION*)OrnixAllocatePool(size);
    if (urb == NULL) {
        return NULL;
    }
    RtlZeroMemory(urb, size);
    urb->Hdr.Length = (USHORT)size;
    urb->Hdr.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    urb->ConfigurationDescriptor = ConfigurationDescriptor;

    PUCHAR next = (PUCHAR)&urb->Interface;
    for (PUSBD_INTERFACE_LIST_ENTRY entry = InterfaceList; entry->InterfaceDescriptor != NULL;
         entry++) {
        PUSB_INTERFACE_DESCRIPTOR descriptor = entry->InterfaceDescriptor;
        PUSBD_INTERFACE_INFORMATION info = (PUSBD_INTERFACE_INFORMATION)next;
        ULONG pipes = descriptor->bNumEndpoints;
        info->Length = (USHORT)GET_USBD_INTERFACE_SIZE(pipes);
        info->InterfaceNumber = descriptor->bInterfaceNumber;
        info->AlternateSetting = descriptor->bAlternateSetting;
        info->Class = descriptor->bInterfaceClass;
        info->SubClass = descriptor->bInterfaceSubClass;
        info->Protocol = descriptor->bInterfaceProtocol;
        info->NumberOfPipes = pipes;

        // The endpoints follow their interface back to back.
        PUCHAR position = (PUCHAR)descriptor;
        for (ULONG i = 0; i < pipes; i++) {
            position += ((PUSB_COMMON_DESCRIPTOR)position)->bLength;
            PUSB_ENDPOINT_DESCRIPTOR endpoint = (PUSB_ENDPOINT_DESCRIPTOR)position;
            PUSBD_PIPE_INFORMATION pipe = &info->Pipes[i];
            pipe->MaximumPacketSize = endpoint->wMaxPacketSize;
            pipe->EndpointAddress = endpoint->bEndpointAddress;
            pipe->Interval = endpoint->bInterval;
            pipe->PipeType = (USBD_PIPE_TYPE)(endpoint->bmAttributes & USB_ENDPOINT_TYPE_MASK);
            // USB configuration sets the real limits of the pipes it uses.
            pipe->MaximumTransferSize = 0xFFFFFFFF;
            pipe->PipeFlags = 0;
        }

        entry->Interface = info;
        next += info->Length;
    }
    return (PURB)urb;
}
