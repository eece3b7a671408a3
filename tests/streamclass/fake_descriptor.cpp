#include "fake_descriptor.h"

namespace sctest {

const GUID kFakeSubtype = {
    0x11111111, 0x2222, 0x3333, {0x44, 0x44, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55}};
const GUID kFakePropertySet = {
    0xC6E13360, 0x30AC, 0x11D0, {0xA1, 0x8C, 0x00, 0xA0, 0xC9, 0x11, 0x89, 0x56}};
const GUID kFakeEventSet = {
    0x79CD8C74, 0x3E2A, 0x47B2, {0x91, 0xA0, 0xB9, 0x00, 0xBD, 0x65, 0xB4, 0x2E}};
const GUID kFakeCapturePin = {
    0xFB6C4281, 0x0353, 0x11D1, {0x90, 0x5F, 0x00, 0x00, 0xC0, 0xCC, 0x16, 0xBA}};
const GUID kFakeStillPin = {
    0xFB6C428A, 0x0353, 0x11D1, {0x90, 0x5F, 0x00, 0x00, 0xC0, 0xCC, 0x16, 0xBA}};

namespace {

const GUID kTypeVideo = {
    0x73646976, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
const GUID kVideoInfo = {
    0x05589F80, 0xC356, 0x11CE, {0xBF, 0x01, 0x00, 0xAA, 0x00, 0x55, 0x59, 0x5A}};
const GUID kCategoryVideo = {
    0x6994AD05, 0x93EF, 0x11D0, {0xA3, 0xCC, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
const GUID kCategoryCapture = {
    0x65E8773D, 0x8F56, 0x11D0, {0xA3, 0xB9, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};

NTSTATUS STREAMAPI EventRoutine(PHW_EVENT_DESCRIPTOR) {
    return STATUS_SUCCESS;
}

void FillRange(KS_DATARANGE_VIDEO& r, ULONG formatSize, USHORT bits, ULONG fourCC) {
    r.DataRange.FormatSize = formatSize;
    r.DataRange.SampleSize = 640 * 480 * bits / 8;
    r.DataRange.MajorFormat = kTypeVideo;
    r.DataRange.SubFormat = kFakeSubtype;
    r.DataRange.Specifier = kVideoInfo;
    r.bFixedSizeSamples = TRUE;
    r.ConfigCaps.MinOutputSize = {16, 8};
    r.ConfigCaps.MaxOutputSize = {1280, 1024};
    r.ConfigCaps.OutputGranularityX = 16;
    r.ConfigCaps.OutputGranularityY = 8;
    r.ConfigCaps.MinFrameInterval = 266240;
    r.ConfigCaps.MaxFrameInterval = 1066240;
    r.ConfigCaps.MinBitsPerSecond = 12288000;
    r.ConfigCaps.MaxBitsPerSecond = 49152000;
    r.VideoInfoHeader.dwBitRate = 24576000;
    r.VideoInfoHeader.AvgTimePerFrame = 532480;
    r.VideoInfoHeader.bmiHeader.biWidth = 640;
    r.VideoInfoHeader.bmiHeader.biHeight = -480;
    r.VideoInfoHeader.bmiHeader.biBitCount = bits;
    r.VideoInfoHeader.bmiHeader.biCompression = fourCC;
    r.VideoInfoHeader.bmiHeader.biSizeImage = r.DataRange.SampleSize;
}

}  // namespace

FakeDescriptorTables::FakeDescriptorTables() {
    FillRange(reinterpret_cast<KS_DATARANGE_VIDEO&>(greyRange), sizeof(greyRange), 8, 0x42474752);
    for (int n = 0; n < KS_iPALETTE_COLORS; ++n) {
        const auto v = static_cast<UCHAR>(n);
        greyRange.VideoInfo.bmiColors[n] = {v, v, v, 0};
    }
    FillRange(wideRange, sizeof(wideRange), 16, 0);
    formats[0] = reinterpret_cast<PKSDATAFORMAT>(&greyRange);
    formats[1] = reinterpret_cast<PKSDATAFORMAT>(&wideRange);

    stepping.SteppingDelta = 1;
    stepping.Bounds.SignedMinimum = -10;
    stepping.Bounds.SignedMaximum = 10000;
    defaultValue = 5000;
    members[0].MembersHeader = {KSPROPERTY_MEMBER_RANGES, sizeof(stepping), 1, 0};
    members[0].Members = &stepping;
    // Count 4 over one value, as some minidrivers publish their default.
    members[1].MembersHeader = {KSPROPERTY_MEMBER_VALUES, sizeof(LONG), 4,
                                KSPROPERTY_MEMBER_FLAG_DEFAULT};
    members[1].Members = &defaultValue;
    values.PropTypeSet.Id = VT_I4;
    values.MembersListCount = 2;
    values.MembersList = members;

    items[0].PropertyId = 0;
    items[0].GetSupported = TRUE;
    items[0].SetSupported = TRUE;
    items[0].MinProperty = 40;
    items[0].MinData = 40;
    items[0].Values = &values;
    items[1].PropertyId = 7;
    items[1].GetSupported = TRUE;
    items[1].MinProperty = 24;
    propertySets[0] = {&kFakePropertySet, 2, items, 0, nullptr};

    eventItems[0].EventId = 0;
    eventItems[1].EventId = 2;
    eventSets[0] = {&kFakeEventSet, 2, eventItems};

    categories[0] = kCategoryVideo;
    categories[1] = kCategoryCapture;
    topology.CategoriesCount = 2;
    topology.Categories = categories;
}

void FillDescriptor(PHW_STREAM_HEADER header, ULONG streams, FakeDescriptorTables& tables) {
    header->NumberOfStreams = streams;
    header->SizeOfHwStreamInformation = sizeof(HW_STREAM_INFORMATION);
    header->NumDevPropArrayEntries = 1;
    header->DevicePropertiesArray = tables.propertySets;
    header->NumDevEventArrayEntries = 1;
    header->DeviceEventsArray = tables.eventSets;
    header->Topology = &tables.topology;
    header->DeviceEventRoutine = EventRoutine;
    auto* info = reinterpret_cast<PHW_STREAM_INFORMATION>(header + 1);
    for (ULONG s = 0; s < streams; ++s) {
        info[s].NumberOfPossibleInstances = 1;
        info[s].DataFlow = KSPIN_DATAFLOW_OUT;
        info[s].DataAccessible = TRUE;
        info[s].NumberOfFormatArrayEntries = 2;
        info[s].StreamFormatsArray = tables.formats;
        const GUID* pin = s == 0 ? &kFakeCapturePin : &kFakeStillPin;
        info[s].Name = const_cast<GUID*>(pin);
        info[s].Category = const_cast<GUID*>(pin);
    }
}

}  // namespace sctest
