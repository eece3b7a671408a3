// A hand-built stream descriptor, as a video minidriver would answer
// SRB_GET_STREAM_INFO: two pins sharing one palette range and one plain
// range, a ranged and a plain property item, an event set and a topology.
#pragma once

#include <ksmedia.h>
#include <strmini.h>

namespace sctest {

struct FakeDescriptorTables {
    FakeDescriptorTables();

    KS_DATARANGE_VIDEO_PALETTE greyRange{};
    KS_DATARANGE_VIDEO wideRange{};
    PKSDATAFORMAT formats[2]{};

    KSPROPERTY_STEPPING_LONG stepping{};
    LONG defaultValue = 0;
    KSPROPERTY_MEMBERSLIST members[2]{};
    KSPROPERTY_VALUES values{};
    KSPROPERTY_ITEM items[2]{};
    KSPROPERTY_SET propertySets[1]{};

    KSEVENT_ITEM eventItems[2]{};
    KSEVENT_SET eventSets[1]{};

    GUID categories[2]{};
    KSTOPOLOGY topology{};
};

// Fills a descriptor of `streams` pins (the buffer must hold them) that
// points into `tables`.
void FillDescriptor(PHW_STREAM_HEADER header, ULONG streams, FakeDescriptorTables& tables);

// The values the tables carry, for the tests to compare against.
extern const GUID kFakeSubtype;
extern const GUID kFakePropertySet;
extern const GUID kFakeEventSet;
extern const GUID kFakeCapturePin;
extern const GUID kFakeStillPin;

}  // namespace sctest
