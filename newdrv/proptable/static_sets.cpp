// The item tables of the two property sets that every camera offers alike:
// video control and the second custom set. Read-only data; the property
// table points at them without copying.
#include "property_rows.h"

#include <ksmedia.h>

// Sizes of the request records the framework checks before a request
// reaches the handlers.
#define ORNIX_VIDEOCONTROL_CAPS_SIZE 32         // KSPROPERTY_VIDEOCONTROL_CAPS_S
#define ORNIX_VIDEOCONTROL_FRAME_RATE_SIZE 56   // KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE_S
#define ORNIX_VIDEOCONTROL_FRAME_RATES_SIZE 40  // KSPROPERTY_VIDEOCONTROL_FRAME_RATES_S
#define ORNIX_VIDEOCONTROL_MODE_SIZE 32         // KSPROPERTY_VIDEOCONTROL_MODE_S

const KSPROPERTY_ITEM OrnixVideoControlItems[] = {
    ORNIX_STATIC_ITEM(KSPROPERTY_VIDEOCONTROL_CAPS, TRUE, FALSE, ORNIX_VIDEOCONTROL_CAPS_SIZE,
                      ORNIX_VIDEOCONTROL_CAPS_SIZE),
    ORNIX_STATIC_ITEM(KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE, TRUE, FALSE,
                      ORNIX_VIDEOCONTROL_FRAME_RATE_SIZE, ORNIX_VIDEOCONTROL_FRAME_RATE_SIZE),
    // The frame-rate list has a variable length; its handler sizes it.
    ORNIX_STATIC_ITEM(KSPROPERTY_VIDEOCONTROL_FRAME_RATES, TRUE, FALSE,
                      ORNIX_VIDEOCONTROL_FRAME_RATES_SIZE, 0),
    ORNIX_STATIC_ITEM(KSPROPERTY_VIDEOCONTROL_MODE, TRUE, TRUE, ORNIX_VIDEOCONTROL_MODE_SIZE,
                      ORNIX_VIDEOCONTROL_MODE_SIZE),
};
const ULONG OrnixVideoControlItemCount = ORNIX_ROW_COUNT(OrnixVideoControlItems);

// The handlers check the data sizes of these requests themselves.
const KSPROPERTY_ITEM OrnixTevrinSglItems[] = {
    ORNIX_STATIC_ITEM(KSPROPERTY_TEVRINSGL_RAW, TRUE, TRUE, ORNIX_TEVRINSGL_REQUEST_SIZE, 0),
    ORNIX_STATIC_ITEM(KSPROPERTY_TEVRINSGL_VPD, TRUE, TRUE, ORNIX_TEVRINSGL_REQUEST_SIZE, 0),
    ORNIX_STATIC_ITEM(KSPROPERTY_TEVRINSGL_STATS, TRUE, TRUE, ORNIX_TEVRINSGL_STATS_SIZE, 0),
};
const ULONG OrnixTevrinSglItemCount = ORNIX_ROW_COUNT(OrnixTevrinSglItems);
