// The camera's serial number: eight decimal digits in a string descriptor.
#include "ornix.h"

// Index of the serial-number string on cameras that do not name one.
#define ORNIX_DEFAULT_SERIAL_STRING 3
#define ORNIX_SERIAL_DIGITS 8
#define ORNIX_LANGUAGE_ENGLISH_US 0x0409

// The string descriptor as the camera sends it: header and eight characters.
typedef struct _ORNIX_SERIAL_STRING {
    UCHAR bLength;
    UCHAR bDescriptorType;
    WCHAR Characters[ORNIX_SERIAL_DIGITS];
    UCHAR Spare[32 - 2 - ORNIX_SERIAL_DIGITS * sizeof(WCHAR)];
} ORNIX_SERIAL_STRING;

// IRQL: PASSIVE_LEVEL. Every failure reads as serial number 0.
ULONG OrnixGetSerialNumber(PORNIX_DEVICE_CONTEXT Ext) {
    if (Ext->DeviceDescriptor == NULL) {
        DbgPrint(ORNIX_PREFIX "OrnixGetSerialNumber: no device desc\n");
        return 0;
    }
    UCHAR index = Ext->DeviceDescriptor->iSerialNumber;
    if (index == 0) {
        DbgPrint(ORNIX_PREFIX "OrnixGetSerialNumber: inexistant, asusming 3\n");
        index = ORNIX_DEFAULT_SERIAL_STRING;
    }

    ORNIX_SERIAL_STRING string;
    RtlZeroMemory(&string, sizeof(string));
    URB urb;
    RtlZeroMemory(&urb, sizeof(urb));
    UsbBuildGetDescriptorRequest(&urb, sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST),
                                 USB_STRING_DESCRIPTOR_TYPE, index, ORNIX_LANGUAGE_ENGLISH_US,
                                 &string, NULL, sizeof(string), NULL);
    if (OrnixCallUsbd(Ext, &urb) != STATUS_SUCCESS) {
        DbgPrint(ORNIX_PREFIX "OrnixGetSerialNumber: failed to get number\n");
        return 0;
    }
    if (string.bLength != FIELD_OFFSET(ORNIX_SERIAL_STRING, Spare)) {
        DbgPrint(ORNIX_PREFIX "OrnixGetSerialNumber: wrong char count\n");
        return 0;
    }

    ULONG value = 0;
    for (ULONG i = 0; i < ORNIX_SERIAL_DIGITS; i++) {
        // Only the low byte of each UTF-16 character counts.
        UCHAR character = (UCHAR)(string.Characters[i] & 0xFF);
        if (character < '0' || character > '9') {
            DbgPrint(ORNIX_PREFIX "OrnixGetSerialNumber: wrong char in sn\n");
            return 0;
        }
        value = value * 10 + (character - '0');
    }
    return value;
}
