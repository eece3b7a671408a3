// Constant tables of the stream report: the filter topology and the property
// sets every pin offers (served by the stream's control handler).
#include "ornix.h"

// Literal values: copying the named constants would need run-time initialisation.
static const GUID OrnixFilterCategories[] = {
    // KSCATEGORY_VIDEO
    {0x6994AD05, 0x93EF, 0x11D0, {0xA3, 0xCC, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}},
    // PINNAME_VIDEO_STILL: advertises the still pin's kind
    {0xFB6C428A, 0x0353, 0x11D1, {0x90, 0x5F, 0x00, 0x00, 0xC0, 0xCC, 0x16, 0xBA}},
    // KSCATEGORY_CAPTURE
    {0x65E8773D, 0x8F56, 0x11D0, {0xA3, 0xB9, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}},
};

const KSTOPOLOGY OrnixFilterTopology = {
    .CategoriesCount = ORNIX_ROW_COUNT(OrnixFilterCategories),
    .Categories = OrnixFilterCategories,
    .TopologyNodesCount = 0,
    .TopologyNodes = NULL,
    .TopologyConnectionsCount = 0,
    .TopologyConnections = NULL,
    .TopologyNodesNames = NULL,
    .Reserved = 0,
};

// Both items are get-only; the stream class checks the buffer sizes.
static const KSPROPERTY_ITEM OrnixConnectionItems[] = {
    ORNIX_STATIC_ITEM(KSPROPERTY_CONNECTION_ALLOCATORFRAMING, TRUE, FALSE, sizeof(KSPROPERTY),
                      sizeof(KSALLOCATOR_FRAMING)),
};

static const KSPROPERTY_ITEM OrnixDroppedFramesItems[] = {
    ORNIX_STATIC_ITEM(KSPROPERTY_DROPPEDFRAMES_CURRENT, TRUE, FALSE,
                      sizeof(KSPROPERTY_DROPPEDFRAMES_CURRENT_S),
                      sizeof(KSPROPERTY_DROPPEDFRAMES_CURRENT_S)),
};

const KSPROPERTY_SET OrnixStreamPropertySets[ORNIX_STREAM_PROPERTY_SET_COUNT] = {
    {&OrnixPropSetConnection, ORNIX_ROW_COUNT(OrnixConnectionItems), OrnixConnectionItems, 0, NULL},
    {&OrnixPropSetDroppedFrames, ORNIX_ROW_COUNT(OrnixDroppedFramesItems), OrnixDroppedFramesItems,
     0, NULL},
};
