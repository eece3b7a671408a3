// The camera model number from the registry value TevrinKey in the device's
// driver key: "ornix" (any case) followed by the id in hexadecimal.
#include "ornix.h"

// Room for "ornix", twelve digits and the terminator: 17 characters.
#define ORNIX_CAMERA_ID_VALUE_BYTES 36

// The query result with space for one extra terminator behind the data, so
// the text can always be printed safely.
typedef union _ORNIX_CAMERA_ID_VALUE {
    KEY_VALUE_PARTIAL_INFORMATION Info;
    UCHAR Raw[FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data) + ORNIX_CAMERA_ID_VALUE_BYTES +
              sizeof(WCHAR)];
} ORNIX_CAMERA_ID_VALUE;

static const ULONG OrnixCameraIdQueryBytes =
    FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data) + ORNIX_CAMERA_ID_VALUE_BYTES;

static WCHAR OrnixLowerCase(WCHAR c) {
    return (c >= 'A' && c <= 'Z') ? (WCHAR)(c - 'A' + 'a') : c;
}

// The worth of a lower-case hexadecimal digit, or -1.
static LONG OrnixHexDigit(WCHAR c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

// Parses the value's text; CameraId is left alone unless the prefix fits.
static VOID OrnixParseCameraId(PORNIX_DEVICE_CONTEXT Ext, PWCHAR Text, ULONG Count) {
    for (ULONG i = 0; i < Count && Text[i] != 0; i++) {
        Text[i] = OrnixLowerCase(Text[i]);
    }

    static const char prefix[] = "ornix";
    const ULONG prefixLength = sizeof(prefix) - 1;
    for (ULONG i = 0; i < prefixLength; i++) {
        if (i >= Count || Text[i] != (WCHAR)prefix[i]) {
            return;
        }
    }

    // The first character that is no digit (the terminator included) ends
    // the id; only the last eight digits fit.
    for (ULONG i = prefixLength; i < Count; i++) {
        LONG digit = OrnixHexDigit(Text[i]);
        if (digit < 0) {
            break;
        }
        Ext->CameraId = (Ext->CameraId << 4) | (ULONG)digit;
    }
}

// IRQL: PASSIVE_LEVEL. Registry problems are never fatal: CameraId then
// stays as it was and the USB product id is used instead.
VOID OrnixFindCameraId(PORNIX_DEVICE_CONTEXT Ext) {
    PDEVICE_OBJECT pdo = Ext->RealPhysicalDeviceObject != NULL ? Ext->RealPhysicalDeviceObject
                                                               : Ext->PhysicalDeviceObject;
    HANDLE key;
    NTSTATUS status = IoOpenDeviceRegistryKey(pdo, PLUGPLAY_REGKEY_DRIVER, KEY_READ, &key);
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX "Failed to open PDO key with 0x%08lx\n", (ULONG)status);
        return;
    }

    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"TevrinKey");
    ORNIX_CAMERA_ID_VALUE value;
    RtlZeroMemory(&value, sizeof(value));
    ULONG resultLength = 0;
    status = ZwQueryValueKey(key, &name, KeyValuePartialInformation, &value,
                             OrnixCameraIdQueryBytes, &resultLength);

    BOOLEAN usable = NT_SUCCESS(status) && value.Info.Type == REG_SZ &&
                     value.Info.DataLength >= 4 &&
                     value.Info.DataLength <= ORNIX_CAMERA_ID_VALUE_BYTES;
    if (!usable) {
        // A query that worked but found the wrong type or size reports 0.
        DbgPrint(ORNIX_PREFIX "Failed to query partial info of TevrinKey with 0x%x\n",
                 (ULONG)(NT_SUCCESS(status) ? STATUS_SUCCESS : status));
        ZwClose(key);
        return;
    }

    PWCHAR text = (PWCHAR)value.Info.Data;
    OrnixVerbose(ORNIX_PREFIX "TevrinKey string read as:%ws\n", text);
    OrnixParseCameraId(Ext, text, value.Info.DataLength / sizeof(WCHAR));

    ZwClose(key);
    OrnixVerbose(ORNIX_PREFIX "CameraId reads as:0x%x\n", Ext->CameraId);
}
