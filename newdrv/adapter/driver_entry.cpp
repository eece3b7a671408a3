// Driver entry: registers the adapter with the stream class.
#include "ornix.h"

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
    DbgPrint("\n" ORNIX_PREFIX "DriverEntry91\n");

    // Fields not set below (interrupt, DMA, name extensions) stay zero.
    HW_INITIALIZATION_DATA registration;
    RtlZeroMemory(&registration, sizeof(registration));
    registration.HwInitializationDataSize = sizeof(registration);
    registration.HwReceivePacket = OrnixReceivePacket;
    registration.HwCancelPacket = OrnixCancelPacket;
    registration.HwRequestTimeoutHandler = OrnixTimeoutPacket;
    registration.DeviceExtensionSize = sizeof(ORNIX_DEVICE_CONTEXT);
    registration.PerStreamExtensionSize = sizeof(ORNIX_STREAM_CONTEXT);
    registration.BufferAlignment = 3;  // data buffers aligned to 4 bytes
    // The driver serialises adapter requests itself with RequestMutex, so
    // that handlers may block on USB requests.
    registration.TurnOffSynchronization = TRUE;

    return StreamClassRegisterAdapter(DriverObject, RegistryPath, &registration);
}
