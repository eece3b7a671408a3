// The adapter's property table, built once per configuration from the
// camera's property block. One counting pass sizes a single allocation and
// one filling pass writes it; both ask OrnixItemOffered of the same rows.
#include "property_rows.h"

#include <ksmedia.h>

// Request and value record of every standard control.
#define ORNIX_STANDARD_CONTROL_SIZE sizeof(KSPROPERTY_VIDEOPROCAMP_S)
static_assert(sizeof(KSPROPERTY_VIDEOPROCAMP_S) == 40, "video-processing record is 40 bytes");
static_assert(sizeof(KSPROPERTY_CAMERACONTROL_S) == 40, "camera-control record is 40 bytes");
static_assert(sizeof(KSPROPERTY_STEPPING_LONG) == 16, "a range member is 16 bytes");

// The sets every camera offers besides the built ones.
#define ORNIX_STATIC_SET_COUNT 2

// Bytes one standard control takes beyond its item: values record, two
// members lists, stepping record and default slot.
#define ORNIX_RANGE_BYTES                                             \
    (sizeof(KSPROPERTY_VALUES) + 2 * sizeof(KSPROPERTY_MEMBERSLIST) + \
     sizeof(KSPROPERTY_STEPPING_LONG) + sizeof(LONG))

// Write positions inside the table. Each standard control takes one of
// each; a custom control takes only an item.
typedef struct _ORNIX_TABLE_CURSORS {
    PKSPROPERTY_SET Set;
    PKSPROPERTY_ITEM Item;
    PKSPROPERTY_VALUES Values;
    PKSPROPERTY_MEMBERSLIST Members;
    PKSPROPERTY_STEPPING_LONG Stepping;
    PLONG Default;
} ORNIX_TABLE_CURSORS, *PORNIX_TABLE_CURSORS;

// Reads the property block and ORNIX_SUPPORT0. Failures are reported and
// leave the cleared values: controls absent, no look-up table.
static VOID OrnixReadCameraFacts(PORNIX_DEVICE_CONTEXT Ext, PULONG Records,
                                 PORNIX_CAMERA_FACTS Facts) {
    RtlZeroMemory(Records, ORNIX_PROPERTY_BLOCK_WORDS * sizeof(ULONG));
    NTSTATUS status = OrnixBlockRead(Ext, ORNIX_PROPERTY_BLOCK, Records,
                                     ORNIX_PROPERTY_BLOCK_WORDS * sizeof(ULONG));
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX "Failed to prop reg block\n");
    }

    ULONG support0 = 0;
    status = OrnixRegRead(Ext, ORNIX_SUPPORT0, &support0);
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX "Failed to read support0 register\n");
        support0 = 0;
    }

    Facts->Records = Records;
    Facts->StreamCount = Ext->StreamCount;
    Facts->LutSupported = (support0 & 1) != 0;
    Facts->HasInterruptPipe = Ext->InterruptPipe != ORNIX_NO_PIPE;
}

static ULONG OrnixCountOfferedItems(const ORNIX_BUILT_SET* Set, const ORNIX_CAMERA_FACTS* Facts) {
    ULONG count = 0;
    for (ULONG row = 0; row < Set->RowCount; row++) {
        if (OrnixItemOffered(Set, &Set->Rows[row], Facts)) {
            count++;
        }
    }
    return count;
}

// Register units to the published units of a standard control.
static LONG OrnixRecordWordToProperty(ULONG Group, ULONG Id, ULONG Word) {
    if (Group == ORNIX_GROUP_VIDEOPROCAMP) {
        switch (Id) {
            case KSPROPERTY_VIDEOPROCAMP_BRIGHTNESS:
                return OrnixBrightnessToProperty((LONG)Word);
            case KSPROPERTY_VIDEOPROCAMP_CONTRAST:
                return OrnixContrastToProperty((LONG)Word);
            case KSPROPERTY_VIDEOPROCAMP_GAIN:
                return (LONG)OrnixGainToProperty(Word);
            default:
                break;
        }
    } else if (Group == ORNIX_GROUP_CAMERACONTROL && Id == KSPROPERTY_CAMERACONTROL_EXPOSURE) {
        return OrnixExposureToProperty(Word);
    }
    return (LONG)Word;
}

static VOID OrnixFillRangedRow(PORNIX_DEVICE_CONTEXT Ext, const ORNIX_BUILT_SET* Set,
                               const ORNIX_ITEM_ROW* Row, const ORNIX_CAMERA_FACTS* Facts,
                               PORNIX_TABLE_CURSORS Cursors) {
    const ULONG* record = OrnixRowRecord(Set, Row, Facts);
    OrnixFillRangedPropertyItem(
        Row->Id, OrnixRecordWordToProperty(Set->Group, Row->Id, record[ORNIX_RECORD_VALUE]),
        OrnixRecordWordToProperty(Set->Group, Row->Id, record[ORNIX_RECORD_MINIMUM]),
        OrnixRecordWordToProperty(Set->Group, Row->Id, record[ORNIX_RECORD_MAXIMUM]), Cursors->Item,
        Cursors->Values, Cursors->Members, Cursors->Stepping, Cursors->Default,
        ORNIX_STANDARD_CONTROL_SIZE);
    if (Set->Group == ORNIX_GROUP_CAMERACONTROL && Row->Id == KSPROPERTY_CAMERACONTROL_EXPOSURE) {
        Ext->ExposureRange = Cursors->Stepping;
    }
    Cursors->Item++;
    Cursors->Values++;
    Cursors->Members += 2;
    Cursors->Stepping++;
    Cursors->Default++;
}

static VOID OrnixFillPlainRow(const ORNIX_ITEM_ROW* Row, PORNIX_TABLE_CURSORS Cursors) {
    OrnixFillPlainPropertyItem(Row->Id, Cursors->Item);
    if (Row->Access == OrnixSetOnly) {
        Cursors->Item->GetSupported = FALSE;
    } else if (Row->Access == OrnixGetOnly) {
        Cursors->Item->SetSupported = FALSE;
    }
    Cursors->Item++;
}

static VOID OrnixAddSetEntry(PORNIX_TABLE_CURSORS Cursors, const GUID* Set, ULONG Count,
                             const KSPROPERTY_ITEM* Items) {
    Cursors->Set->Set = Set;
    Cursors->Set->PropertiesCount = Count;
    Cursors->Set->PropertyItem = Items;
    Cursors->Set->FastIoCount = 0;
    Cursors->Set->FastIoTable = NULL;
    Cursors->Set++;
}

// IRQL: PASSIVE_LEVEL, during bring-up, before the stream class sees the table.
NTSTATUS OrnixBuildStreamHeader(PORNIX_DEVICE_CONTEXT Ext) {
    Ext->PropertySets = NULL;
    Ext->PropertySetCount = 0;
    Ext->ExposureRange = NULL;

    ULONG records[ORNIX_PROPERTY_BLOCK_WORDS];
    ORNIX_CAMERA_FACTS facts;
    OrnixReadCameraFacts(Ext, records, &facts);

    // Counting pass.
    ULONG offered[3];
    ULONG setCount = ORNIX_STATIC_SET_COUNT;
    ULONG itemCount = 0;
    ULONG rangedCount = 0;
    ASSERT(OrnixBuiltSetCount == ORNIX_ROW_COUNT(offered));
    for (ULONG s = 0; s < OrnixBuiltSetCount; s++) {
        offered[s] = OrnixCountOfferedItems(&OrnixBuiltSets[s], &facts);
        if (offered[s] != 0) {
            setCount++;
        }
        itemCount += offered[s];
        if (OrnixBuiltSets[s].Ranged) {
            rangedCount += offered[s];
        }
    }

    SIZE_T size = setCount * sizeof(KSPROPERTY_SET) + itemCount * sizeof(KSPROPERTY_ITEM) +
                  rangedCount * ORNIX_RANGE_BYTES;
    PKSPROPERTY_SET table = (PKSPROPERTY_SET)OrnixAllocatePool(size);
    if (table == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = OrnixDeferFree(Ext, table);
    if (!NT_SUCCESS(status)) {
        OrnixFreePool(table);
        return status;
    }
    RtlZeroMemory(table, size);
    Ext->PropertySets = table;
    Ext->PropertySetCount = setCount;

    // Layout: sets, items, values, members lists, steppings, defaults. Each
    // region ends where the next begins; `ends` records those boundaries.
    ORNIX_TABLE_CURSORS cursors;
    cursors.Set = table;
    cursors.Item = (PKSPROPERTY_ITEM)(table + setCount);
    cursors.Values = (PKSPROPERTY_VALUES)(cursors.Item + itemCount);
    cursors.Members = (PKSPROPERTY_MEMBERSLIST)(cursors.Values + rangedCount);
    cursors.Stepping = (PKSPROPERTY_STEPPING_LONG)(cursors.Members + 2 * rangedCount);
    cursors.Default = (PLONG)(cursors.Stepping + rangedCount);
    ORNIX_TABLE_CURSORS ends;
    ends.Set = (PKSPROPERTY_SET)cursors.Item;
    ends.Item = (PKSPROPERTY_ITEM)cursors.Values;
    ends.Values = (PKSPROPERTY_VALUES)cursors.Members;
    ends.Members = (PKSPROPERTY_MEMBERSLIST)cursors.Stepping;
    ends.Stepping = (PKSPROPERTY_STEPPING_LONG)cursors.Default;
    ends.Default = (PLONG)((PUCHAR)table + size);

    // Filling pass.
    for (ULONG s = 0; s < OrnixBuiltSetCount; s++) {
        const ORNIX_BUILT_SET* set = &OrnixBuiltSets[s];
        if (offered[s] == 0) {
            continue;
        }
        OrnixAddSetEntry(&cursors, set->Set, offered[s], cursors.Item);
        for (ULONG row = 0; row < set->RowCount; row++) {
            if (!OrnixItemOffered(set, &set->Rows[row], &facts)) {
                continue;
            }
            if (set->Ranged) {
                OrnixFillRangedRow(Ext, set, &set->Rows[row], &facts, &cursors);
            } else {
                OrnixFillPlainRow(&set->Rows[row], &cursors);
            }
        }
    }
    OrnixAddSetEntry(&cursors, &OrnixPropSetVideoControl, OrnixVideoControlItemCount,
                     OrnixVideoControlItems);
    OrnixAddSetEntry(&cursors, &OrnixPropSetTevrinSgl, OrnixTevrinSglItemCount,
                     OrnixTevrinSglItems);

    // The filling pass wrote through the cursors without bounds checks: it
    // must have used exactly the space the counting pass measured.
    ASSERT(cursors.Set == ends.Set);
    ASSERT(cursors.Item == ends.Item);
    ASSERT(cursors.Values == ends.Values);
    ASSERT(cursors.Members == ends.Members);
    ASSERT(cursors.Stepping == ends.Stepping);
    ASSERT(cursors.Default == ends.Default);
    (void)ends;  // read only by the assertions of checked builds
    return STATUS_SUCCESS;
}
