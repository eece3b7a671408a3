// The rows that decide which items the property table offers. The counting
// pass and the filling pass of OrnixBuildStreamHeader walk the same rows and
// ask the same question of each, so the two cannot disagree.
#pragma once
#include "ornix.h"

// When an item is offered.
typedef enum _ORNIX_ITEM_CONDITION {
    OrnixWhenAlways,
    OrnixWhenRecordPresent,  // the control word of its record has bit 31 set
    OrnixWhenTwoStreams,     // StreamCount is 2: the camera has the still pipe
    OrnixWhenLutSupported,   // ORNIX_SUPPORT0 bit 0
    OrnixWhenInterruptPipe,  // InterruptPipe names a pipe
} ORNIX_ITEM_CONDITION;

typedef enum _ORNIX_ITEM_ACCESS {
    OrnixGetAndSet,
    OrnixGetOnly,
    OrnixSetOnly,
} ORNIX_ITEM_ACCESS;

typedef struct _ORNIX_ITEM_ROW {
    UCHAR Id;
    UCHAR Condition;  // ORNIX_ITEM_CONDITION
    UCHAR Access;     // ORNIX_ITEM_ACCESS; plain items only
} ORNIX_ITEM_ROW, *PORNIX_ITEM_ROW;

// One property set built from the camera: its record-map group, its GUID and
// its rows in publishing order. Ranged sets publish range and default.
typedef struct _ORNIX_BUILT_SET {
    ULONG Group;
    const GUID* Set;
    const ORNIX_ITEM_ROW* Rows;
    ULONG RowCount;
    BOOLEAN Ranged;
} ORNIX_BUILT_SET, *PORNIX_BUILT_SET;

// What the rows' conditions are asked against.
typedef struct _ORNIX_CAMERA_FACTS {
    const ULONG* Records;  // the property block, 4 words per record
    ULONG StreamCount;
    BOOLEAN LutSupported;
    BOOLEAN HasInterruptPipe;
} ORNIX_CAMERA_FACTS, *PORNIX_CAMERA_FACTS;

#define ORNIX_PROPERTY_BLOCK_WORDS (ORNIX_PROPERTY_RECORD_COUNT * ORNIX_PROPERTY_RECORD_SIZE / 4)

// Words of a record, as offsets into ORNIX_CAMERA_FACTS.Records.
#define ORNIX_RECORD_CONTROL 0
#define ORNIX_RECORD_VALUE 1
#define ORNIX_RECORD_MINIMUM 2
#define ORNIX_RECORD_MAXIMUM 3

// Video processing, camera control, custom: in the order of the set array.
extern const ORNIX_BUILT_SET OrnixBuiltSets[];
extern const ULONG OrnixBuiltSetCount;

// The two sets whose items never change, in read-only data.
extern const KSPROPERTY_ITEM OrnixVideoControlItems[];
extern const ULONG OrnixVideoControlItemCount;
extern const KSPROPERTY_ITEM OrnixTevrinSglItems[];
extern const ULONG OrnixTevrinSglItemCount;

BOOLEAN ORNIXAPI OrnixItemOffered(const ORNIX_BUILT_SET* Set, const ORNIX_ITEM_ROW* Row,
                                  const ORNIX_CAMERA_FACTS* Facts);

// The first word of the row's record, or NULL when the row has no record.
const ULONG* ORNIXAPI OrnixRowRecord(const ORNIX_BUILT_SET* Set, const ORNIX_ITEM_ROW* Row,
                                     const ORNIX_CAMERA_FACTS* Facts);
