// Helpers of the USB driver library: interface lists and request builders.
// The two parsing routines are declared here; this driver carries its own
// definitions of them.
#pragma once
#include "usbdi.h"

typedef struct _USBD_INTERFACE_LIST_ENTRY {
    PUSB_INTERFACE_DESCRIPTOR InterfaceDescriptor;
    PUSBD_INTERFACE_INFORMATION Interface;
} USBD_INTERFACE_LIST_ENTRY, *PUSBD_INTERFACE_LIST_ENTRY;

EXTERN_C_START
PUSB_INTERFACE_DESCRIPTOR NTAPI USBD_ParseConfigurationDescriptorEx(
    PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor, PVOID StartPosition,
    LONG InterfaceNumber, LONG AlternateSetting, LONG InterfaceClass, LONG InterfaceSubClass,
    LONG InterfaceProtocol);
PURB NTAPI USBD_CreateConfigurationRequestEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                             PUSBD_INTERFACE_LIST_ENTRY InterfaceList);
EXTERN_C_END

#define UsbBuildGetDescriptorRequest(urb, length, descriptorType, descriptorIndex, languageId, \
                                     transferBuffer, transferBufferMDL, transferBufferLength, \
                                     link)                                                   \
    do {                                                                                     \
        (urb)->UrbHeader.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;                 \
        (urb)->UrbHeader.Length = (length);                                                  \
        (urb)->UrbControlDescriptorRequest.TransferBufferLength = (transferBufferLength);    \
        (urb)->UrbControlDescriptorRequest.TransferBufferMDL = (transferBufferMDL);          \
        (urb)->UrbControlDescriptorRequest.TransferBuffer = (transferBuffer);                \
        (urb)->UrbControlDescriptorRequest.DescriptorType = (descriptorType);                \
        (urb)->UrbControlDescriptorRequest.Index = (descriptorIndex);                        \
        (urb)->UrbControlDescriptorRequest.LanguageId = (languageId);                        \
        (urb)->UrbControlDescriptorRequest.UrbLink = (link);                                 \
    } while (0)

#define UsbBuildInterruptOrBulkTransferRequest(urb, length, pipeHandle, transferBuffer,        \
                                               transferBufferMDL, transferBufferLength,        \
                                               transferFlags, link)                            \
    do {                                                                                       \
        (urb)->UrbHeader.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;                   \
        (urb)->UrbHeader.Length = (length);                                                    \
        (urb)->UrbBulkOrInterruptTransfer.PipeHandle = (pipeHandle);                           \
        (urb)->UrbBulkOrInterruptTransfer.TransferBufferLength = (transferBufferLength);       \
        (urb)->UrbBulkOrInterruptTransfer.TransferBufferMDL = (transferBufferMDL);             \
        (urb)->UrbBulkOrInterruptTransfer.TransferBuffer = (transferBuffer);                   \
        (urb)->UrbBulkOrInterruptTransfer.TransferFlags = (transferFlags);                     \
        (urb)->UrbBulkOrInterruptTransfer.UrbLink = (link);                                    \
    } while (0)

#define UsbBuildVendorRequest(urb, cmd, length, transferFlags, reservedBits, request, value,   \
                              index, transferBuffer, transferBufferMDL, transferBufferLength, \
                              link)                                                           \
    do {                                                                                      \
        (urb)->UrbHeader.Function = (cmd);                                                    \
        (urb)->UrbHeader.Length = (length);                                                   \
        (urb)->UrbControlVendorClassRequest.TransferBufferLength = (transferBufferLength);    \
        (urb)->UrbControlVendorClassRequest.TransferBufferMDL = (transferBufferMDL);          \
        (urb)->UrbControlVendorClassRequest.TransferBuffer = (transferBuffer);                \
        (urb)->UrbControlVendorClassRequest.RequestTypeReservedBits = (reservedBits);         \
        (urb)->UrbControlVendorClassRequest.Request = (request);                              \
        (urb)->UrbControlVendorClassRequest.Value = (value);                                  \
        (urb)->UrbControlVendorClassRequest.Index = (index);                                  \
        (urb)->UrbControlVendorClassRequest.TransferFlags = (transferFlags);                  \
        (urb)->UrbControlVendorClassRequest.UrbLink = (link);                                 \
    } while (0)
