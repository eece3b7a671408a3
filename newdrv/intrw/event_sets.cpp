// The adapter's device event sets: the still-image trigger, offered when the
// camera has a still pipe, and the camera's own device events, one per bit
// of its interrupt packet, offered when it has an interrupt pipe.
#include "ornix.h"

#include <ksmedia.h>

// Standard still-image trigger set.
const GUID OrnixEventSetVidCapToSti = {
    0xDB47DE20, 0xF628, 0x11D1, {0xBA, 0x41, 0x00, 0xA0, 0xC9, 0x0D, 0x2B, 0x05}};
// The camera's device events.
const GUID OrnixEventSetOxEvents = {
    0x79CD8C74, 0x3E2A, 0x47B2, {0x91, 0xA0, 0xB9, 0x00, 0xBD, 0x65, 0xB4, 0x2E}};

static const KSEVENT_ITEM OrnixStiEventItems[] = {
    {KSEVENT_VIDCAPTOSTI_EXT_TRIGGER, 0, 0, NULL, NULL, NULL},
};

// Copied into the event table in front of the device-event set.
static const KSEVENT_SET OrnixStiEventSet = {&OrnixEventSetVidCapToSti, 1, OrnixStiEventItems};

static ULONG OrnixCountBits(ULONG Mask) {
    ULONG count = 0;
    for (; Mask != 0; Mask &= Mask - 1) {
        count++;
    }
    return count;
}

// IRQL: PASSIVE_LEVEL, during bring-up, right after the property table.
NTSTATUS OrnixBuildEventSet(PORNIX_DEVICE_CONTEXT Ext) {
    OrnixVerbose(ORNIX_PREFIX "OrnixBuildEventSet\n");
    Ext->EventSets = NULL;
    Ext->EventSetCount = 0;

    BOOLEAN stillTrigger = Ext->StreamCount > 1;
    BOOLEAN deviceEvents = Ext->InterruptPipe != ORNIX_NO_PIPE;
    ULONG setCount = (stillTrigger ? 1 : 0) + (deviceEvents ? 1 : 0);
    ULONG mask = 0;
    if (deviceEvents) {
        NTSTATUS status = OrnixRegRead(Ext, ORNIX_INTERRUPT_EVENT_SUPPORT, &mask);
        if (!NT_SUCCESS(status)) {
            DbgPrint(ORNIX_PREFIX
                     "OrnixBuildEventSet: Failed to read ORNIX_INTERRUPT_EVENT_SUPPORT\n");
            return status;
        }
        // A camera without event registers still offers event 0.
        Ext->NoEventRegisters = mask == 0;
        if (mask == 0) {
            mask = 1;
        }
    }
    ULONG itemCount = OrnixCountBits(mask);
    if (setCount == 0) {
        OrnixVerbose(ORNIX_PREFIX "OrnixBuildEventSet: No events\n");
        return STATUS_SUCCESS;
    }

    SIZE_T size = setCount * sizeof(KSEVENT_SET) + itemCount * sizeof(KSEVENT_ITEM);
    PKSEVENT_SET table = (PKSEVENT_SET)OrnixAllocatePool(size);
    if (table == NULL) {
        DbgPrint(ORNIX_PREFIX "OrnixBuildEventSet: No memory\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = OrnixDeferFree(Ext, table);
    if (!NT_SUCCESS(status)) {
        OrnixFreePool(table);
        return status;
    }

    PKSEVENT_SET set = table;
    if (stillTrigger) {
        *set++ = OrnixStiEventSet;
    }
    if (deviceEvents) {
        PKSEVENT_ITEM items = (PKSEVENT_ITEM)(table + setCount);
        RtlZeroMemory(items, itemCount * sizeof(KSEVENT_ITEM));
        set->Set = &OrnixEventSetOxEvents;
        set->EventsCount = itemCount;
        set->EventItem = items;
        for (ULONG n = 0; n < 32; n++) {
            if ((mask & ((ULONG)1 << n)) != 0) {
                (items++)->EventId = n;
            }
        }
        set++;
        ASSERT((PUCHAR)items == (PUCHAR)table + size);
    }
    ASSERT(set == table + setCount);

    Ext->EventSets = table;
    Ext->EventSetCount = setCount;
    return STATUS_SUCCESS;
}
