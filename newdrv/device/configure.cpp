// The bring-up chain: device and configuration descriptors, configuration
// selection, FPGA download, format discovery, and the tables built on them.
#include "ornix.h"

// The configuration descriptor is fetched at most twice: once to learn its
// total length, once in full.
#define ORNIX_FIRST_CONFIGURATION_FETCH 64
#define ORNIX_CONFIGURATION_FETCHES 2

// Register-interface version this driver speaks.
#define ORNIX_SUPPORTED_SPEC_VERSION 1

static VOID OrnixBuildDescriptorRequest(PURB Urb, UCHAR DescriptorType, PVOID Buffer,
                                        ULONG Length) {
    RtlZeroMemory(Urb, sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST));
    Urb->UrbControlDescriptorRequest.Hdr.Length = sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST);
    Urb->UrbControlDescriptorRequest.Hdr.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
    Urb->UrbControlDescriptorRequest.TransferBufferLength = Length;
    Urb->UrbControlDescriptorRequest.TransferBuffer = Buffer;
    Urb->UrbControlDescriptorRequest.TransferBufferMDL = NULL;
    Urb->UrbControlDescriptorRequest.DescriptorType = DescriptorType;
    Urb->UrbControlDescriptorRequest.Index = 0;
    Urb->UrbControlDescriptorRequest.LanguageId = 0;
    Urb->UrbControlDescriptorRequest.UrbLink = NULL;
}

static VOID OrnixDumpDeviceDescriptor(PUSB_DEVICE_DESCRIPTOR Descriptor, ULONG Length) {
    OrnixVerbose(ORNIX_PREFIX "Device Descriptor = %x, len %x\n", (ULONG)(ULONG_PTR)Descriptor,
                 Length);
    OrnixVerbose(ORNIX_PREFIX "USBCAMD Device Descriptor:\n");
    OrnixVerbose(ORNIX_PREFIX "-------------------------\n");
    OrnixVerbose(ORNIX_PREFIX "bLength %d\n", Descriptor->bLength);
    OrnixVerbose(ORNIX_PREFIX "bDescriptorType 0x%x\n", Descriptor->bDescriptorType);
    OrnixVerbose(ORNIX_PREFIX "bcdUSB 0x%x\n", Descriptor->bcdUSB);
    OrnixVerbose(ORNIX_PREFIX "bDeviceClass 0x%x\n", Descriptor->bDeviceClass);
    OrnixVerbose(ORNIX_PREFIX "bDeviceSubClass 0x%x\n", Descriptor->bDeviceSubClass);
    OrnixVerbose(ORNIX_PREFIX "bDeviceProtocol 0x%x\n", Descriptor->bDeviceProtocol);
    OrnixVerbose(ORNIX_PREFIX "bMaxPacketSize0 0x%x\n", Descriptor->bMaxPacketSize0);
    OrnixVerbose(ORNIX_PREFIX "idVendor 0x%x\n", Descriptor->idVendor);
    OrnixVerbose(ORNIX_PREFIX "idProduct 0x%x\n", Descriptor->idProduct);
    OrnixVerbose(ORNIX_PREFIX "bcdDevice 0x%x\n", Descriptor->bcdDevice);
    OrnixVerbose(ORNIX_PREFIX "iManufacturer 0x%x\n", Descriptor->iManufacturer);
    OrnixVerbose(ORNIX_PREFIX "iProduct 0x%x\n", Descriptor->iProduct);
    OrnixVerbose(ORNIX_PREFIX "iSerialNumber 0x%x\n", Descriptor->iSerialNumber);
    OrnixVerbose(ORNIX_PREFIX "bNumConfigurations 0x%x\n", Descriptor->bNumConfigurations);
}

// IRQL: PASSIVE_LEVEL, inside SRB_INITIALIZE_DEVICE.
NTSTATUS OrnixConfigureAll(PORNIX_DEVICE_CONTEXT Ext) {
    OrnixVerbose(ORNIX_PREFIX "OrnixConfigureAll\n");

    PURB urb = (PURB)OrnixAllocatePool(sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST));
    if (urb == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PUSB_DEVICE_DESCRIPTOR descriptor =
        (PUSB_DEVICE_DESCRIPTOR)OrnixAllocatePool(sizeof(USB_DEVICE_DESCRIPTOR));
    if (descriptor == NULL) {
        OrnixFreePool(urb);
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    OrnixBuildDescriptorRequest(urb, USB_DEVICE_DESCRIPTOR_TYPE, descriptor,
                                sizeof(USB_DEVICE_DESCRIPTOR));
    NTSTATUS status = OrnixCallUsbd(Ext, urb);
    ULONG returned = urb->UrbControlDescriptorRequest.TransferBufferLength;
    // A short descriptor would leave fields we rely on (idProduct,
    // bcdDevice) as whatever the pool held.
    if (NT_SUCCESS(status) && returned < sizeof(USB_DEVICE_DESCRIPTOR)) {
        status = STATUS_INVALID_PARAMETER;
    }

    if (NT_SUCCESS(status)) {
        OrnixDumpDeviceDescriptor(descriptor, returned);
        if (Ext->CameraId == 0) {
            DbgPrint(ORNIX_PREFIX "PID fix for OrnixFindCameraId failure bug\n");
            Ext->CameraId = descriptor->idProduct;
        }
        Ext->DeviceDescriptor = descriptor;
    } else {
        OrnixFreePool(descriptor);
    }
    OrnixFreePool(urb);

    if (NT_SUCCESS(status)) {
        status = OrnixConfigureDevice(Ext);
    }
    OrnixVerbose(ORNIX_PREFIX "exit OrnixConfigureAll (%x)\n", (ULONG)status);
    return status;
}

// Fetches the whole configuration descriptor: a first request of 64 bytes,
// and a second of wTotalLength bytes when that is longer. The buffer held at
// the end (if any) goes to *Descriptor and *Returned gets its valid length.
static NTSTATUS OrnixFetchConfigurationDescriptor(PORNIX_DEVICE_CONTEXT Ext, PURB Urb,
                                                  PUSB_CONFIGURATION_DESCRIPTOR* Descriptor,
                                                  PULONG Returned) {
    NTSTATUS status = STATUS_SUCCESS;
    ULONG size = ORNIX_FIRST_CONFIGURATION_FETCH;
    PUSB_CONFIGURATION_DESCRIPTOR buffer = NULL;
    *Returned = 0;

    for (ULONG fetch = 0; fetch < ORNIX_CONFIGURATION_FETCHES; fetch++) {
        buffer = (PUSB_CONFIGURATION_DESCRIPTOR)OrnixAllocatePool(size);
        if (buffer == NULL) {
            status = STATUS_INSUFFICIENT_RESOURCES;
            break;
        }
        OrnixBuildDescriptorRequest(Urb, USB_CONFIGURATION_DESCRIPTOR_TYPE, buffer, size);
        DbgPrint(ORNIX_PREFIX "Getting configuration descriptor's, length:%d\n", size);
        OrnixVerbose(ORNIX_PREFIX "urb function =  %x\n",
                     Urb->UrbControlDescriptorRequest.Hdr.Function);
        status = OrnixCallUsbd(Ext, Urb);
        *Returned = Urb->UrbControlDescriptorRequest.TransferBufferLength;
        OrnixVerbose(ORNIX_PREFIX "Configuration Descriptor = %x, len %x\n",
                     (ULONG)(ULONG_PTR)buffer, *Returned);

        // wTotalLength is only there to read once the header came back.
        BOOLEAN longer = NT_SUCCESS(status) && *Returned >= sizeof(USB_CONFIGURATION_DESCRIPTOR) &&
                         *Returned <= size && buffer->wTotalLength > size;
        if (!longer || fetch + 1 == ORNIX_CONFIGURATION_FETCHES) {
            break;
        }
        size = buffer->wTotalLength;
        OrnixFreePool(buffer);
        buffer = NULL;
    }
    *Descriptor = buffer;
    return status;
}

// Sub-steps 1 to 5 of the chain: first selection with small transfers, the
// interface version, FPGA, formats, and the selection with frame-sized ones.
static NTSTATUS OrnixStartConfiguredCamera(PORNIX_DEVICE_CONTEXT Ext) {
    NTSTATUS status = OrnixSelectConfiguration(Ext, Ext->ConfigurationDescriptor);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    status = OrnixRegRead(Ext, ORNIX_SPEC_VERSION, &Ext->SpecVersion);
    if (Ext->SpecVersion > ORNIX_SUPPORTED_SPEC_VERSION) {
        DbgPrint(ORNIX_PREFIX "Specification version too high:%d, we support:%d\n",
                 Ext->SpecVersion, ORNIX_SUPPORTED_SPEC_VERSION);
        Ext->SpecVersion = ORNIX_SUPPORTED_SPEC_VERSION;
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }

    // A camera whose FPGA is already configured needs no download; any real
    // trouble shows up in format discovery.
    OrnixProgramFpga(Ext);

    status = InitializeHardware(Ext);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return OrnixSelectConfiguration(Ext, Ext->ConfigurationDescriptor);
}

// IRQL: PASSIVE_LEVEL. Called only by OrnixConfigureAll.
NTSTATUS OrnixConfigureDevice(PORNIX_DEVICE_CONTEXT Ext) {
    OrnixVerbose(ORNIX_PREFIX "OrnixConfigureDevice\n");

    PURB urb = (PURB)OrnixAllocatePool(sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST));
    if (urb == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PUSB_CONFIGURATION_DESCRIPTOR descriptor = NULL;
    ULONG returned = 0;
    NTSTATUS status = OrnixFetchConfigurationDescriptor(Ext, urb, &descriptor, &returned);
    OrnixFreePool(urb);

    // Kept whatever happened; teardown frees it.
    if (descriptor != NULL) {
        Ext->ConfigurationDescriptor = descriptor;
    }
    // Everything after this walks the descriptor: it must be whole and sound.
    if (NT_SUCCESS(status) && !OrnixConfigurationDescriptorIsSound(descriptor, returned)) {
        DbgPrint(ORNIX_PREFIX "Malformed configuration descriptor\n");
        status = STATUS_INVALID_PARAMETER;
    }

    if (NT_SUCCESS(status)) {
        status = OrnixStartConfiguredCamera(Ext);
        if (NT_SUCCESS(status)) {
            // Each of these leaves the adapter usable without its table.
            OrnixBuildStreamHeader(Ext);
            OrnixBuildEventSet(Ext);
            OrnixReadVpd(Ext);
        } else {
            OrnixUninitializeDevice(Ext);
        }
    }

    OrnixVerbose(ORNIX_PREFIX "exit OrnixConfigureDevice (%x)\n", (ULONG)status);
    return status;
}
