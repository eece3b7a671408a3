// The standard controls as views of the camera's property records: control
// word and current value, converted between register and property units.
#include "ornix.h"

// Register units to property units for the controls that differ.
static LONG OrnixRegisterToProperty(ULONG Group, ULONG Id, ULONG Value) {
    if (Group == ORNIX_GROUP_VIDEOPROCAMP) {
        switch (Id) {
            case KSPROPERTY_VIDEOPROCAMP_BRIGHTNESS:
                return OrnixBrightnessToProperty((LONG)Value);
            case KSPROPERTY_VIDEOPROCAMP_CONTRAST:
                return OrnixContrastToProperty((LONG)Value);
            case KSPROPERTY_VIDEOPROCAMP_GAIN:
                return (LONG)OrnixGainToProperty(Value);
            default:
                return (LONG)Value;
        }
    }
    if (Group == ORNIX_GROUP_CAMERACONTROL && Id == KSPROPERTY_CAMERACONTROL_EXPOSURE) {
        return OrnixExposureToProperty(Value);
    }
    return (LONG)Value;
}

static ULONG OrnixPropertyToRegister(ULONG Group, ULONG Id, LONG Value) {
    if (Group == ORNIX_GROUP_VIDEOPROCAMP) {
        switch (Id) {
            case KSPROPERTY_VIDEOPROCAMP_BRIGHTNESS:
                return (ULONG)OrnixBrightnessToRegister(Value);
            case KSPROPERTY_VIDEOPROCAMP_CONTRAST:
                return (ULONG)OrnixContrastToRegister(Value);
            case KSPROPERTY_VIDEOPROCAMP_GAIN:
                return OrnixGainToRegister((ULONG)Value);
            default:
                return (ULONG)Value;
        }
    }
    if (Group == ORNIX_GROUP_CAMERACONTROL && Id == KSPROPERTY_CAMERACONTROL_EXPOSURE) {
        return OrnixExposureToRegister(Value);
    }
    return (ULONG)Value;
}

static BOOLEAN OrnixIsStandardGroup(ULONG Group) {
    return Group == ORNIX_GROUP_VIDEOPROCAMP || Group == ORNIX_GROUP_CAMERACONTROL;
}

// IRQL: PASSIVE_LEVEL. The outputs are 0 unless both reads succeed.
NTSTATUS OrnixGetDeviceProp(PORNIX_DEVICE_CONTEXT Ext, ULONG Group, ULONG Id, PLONG Value,
                            PULONG Flags, PULONG Capabilities) {
    *Value = 0;
    *Flags = 0;
    *Capabilities = 0;
    ULONG record;
    if (!OrnixPropertyRecordIndex(Group, Id, &record)) {
        return STATUS_NOT_SUPPORTED;
    }
    const ULONG base = ORNIX_PROPERTY_RECORD(record);
    ULONG control = 0;
    NTSTATUS status = OrnixRegRead(Ext, base, &control);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ULONG value = 0;
    status = OrnixRegRead(Ext, base + 4, &value);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    *Value = OrnixRegisterToProperty(Group, Id, value);
    // KSPROPERTY_VIDEOPROCAMP_FLAGS_* and KSPROPERTY_CAMERACONTROL_FLAGS_* are the same bits.
    *Flags = (control & ORNIX_PROPERTY_AUTO_ON) ? KSPROPERTY_VIDEOPROCAMP_FLAGS_AUTO
                                                : KSPROPERTY_VIDEOPROCAMP_FLAGS_MANUAL;
    *Capabilities = KSPROPERTY_VIDEOPROCAMP_FLAGS_MANUAL;
    if (control & ORNIX_PROPERTY_AUTO_AVAILABLE) {
        *Capabilities |= KSPROPERTY_VIDEOPROCAMP_FLAGS_AUTO;
    }
    return STATUS_SUCCESS;
}

// IRQL: PASSIVE_LEVEL. The whole control word is written: the camera keeps
// its read-only bits itself. The value follows only a written control word,
// in automatic mode too.
NTSTATUS OrnixSetDeviceProp(PORNIX_DEVICE_CONTEXT Ext, ULONG Group, ULONG Id, LONG Value,
                            ULONG Flags) {
    ULONG record;
    if (!OrnixPropertyRecordIndex(Group, Id, &record)) {
        return STATUS_NOT_SUPPORTED;
    }
    const ULONG base = ORNIX_PROPERTY_RECORD(record);
    ULONG control = 0;
    ULONG value = (ULONG)Value;
    if (OrnixIsStandardGroup(Group)) {
        if (Flags & KSPROPERTY_VIDEOPROCAMP_FLAGS_AUTO) {
            control = ORNIX_PROPERTY_AUTO_ON;
        }
        value = OrnixPropertyToRegister(Group, Id, Value);
    }
    NTSTATUS status = OrnixRegWrite(Ext, base, control);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return OrnixRegWrite(Ext, base + 4, value);
}
