// What an application sees of a stream-class filter: the pins, their data
// ranges, the device property and event sets and the topology, decoded from
// the stream descriptor the minidriver returned for SRB_GET_STREAM_INFO.
// Everything is copied out, so the view outlives the minidriver's tables.
#pragma once

#include <ksmedia.h>
#include <strmini.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace winsim {

// "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX", upper case.
std::string GuidText(const GUID& guid);
bool SameGuid(const GUID& a, const GUID& b);

// The picture a KS_VIDEOINFOHEADER describes; data ranges and the concrete
// formats negotiated from them share it.
struct VideoInfoView {
    uint32_t fourCC = 0;  // biCompression
    uint32_t bitsPerPixel = 0;
    int32_t width = 0;            // biWidth
    int64_t height = 0;           // |biHeight|, wide enough for |INT32_MIN|
    bool topDown = false;         // biHeight < 0
    int64_t avgTimePerFrame = 0;  // 100 ns units
    uint32_t bitRate = 0;         // dwBitRate
    uint32_t imageSize = 0;       // biSizeImage
};

// One video data range (KS_DATARANGE_VIDEO or its palette variant); the
// picture fields are the range's current size and rate.
struct VideoRangeView : VideoInfoView {
    GUID subFormat{};
    int32_t minWidth = 0, minHeight = 0;  // MinOutputSize
    int32_t maxWidth = 0, maxHeight = 0;  // MaxOutputSize
    int32_t stepX = 0, stepY = 0;         // OutputGranularityX/Y
    int64_t minFrameInterval = 0;         // 100 ns units
    int64_t maxFrameInterval = 0;
    int32_t minBitsPerSecond = 0;
    int32_t maxBitsPerSecond = 0;
    uint32_t sampleSize = 0;
    bool fixedSizeSamples = false;
    bool hasPalette = false;
    bool greyRampPalette = false;  // entry n is (n, n, n)
};

struct DataRangeView {
    uint32_t formatSize = 0;
    GUID majorFormat{};
    GUID subFormat{};
    GUID specifier{};
    uint32_t sampleSize = 0;
    std::optional<VideoRangeView> video;  // when the range is a video-info range
    // The range itself, FormatSize bytes, as KSPROPERTY_PIN_DATARANGES hands
    // it to an application: the start of a proposal for the intersection.
    std::vector<uint8_t> bytes;
};

// A stepping range and default, from a property item's KSPROPERTY_VALUES.
struct PropertyRangeView {
    int32_t minimum = 0;
    int32_t maximum = 0;
    uint32_t step = 0;
    std::optional<int32_t> defaultValue;
};

struct PropertyItemView {
    uint32_t id = 0;
    bool get = false;
    bool set = false;
    uint32_t minProperty = 0;
    uint32_t minData = 0;
    std::optional<PropertyRangeView> range;
};

struct PropertySetView {
    GUID set{};
    std::vector<PropertyItemView> items;
};

struct PinView {
    uint32_t number = 0;
    std::optional<GUID> name;
    std::optional<GUID> category;
    uint32_t possibleInstances = 0;
    KSPIN_DATAFLOW dataFlow = KSPIN_DATAFLOW_OUT;
    bool dataAccessible = false;
    std::vector<DataRangeView> ranges;
    std::vector<PropertySetView> propertySets;  // the stream property sets
};

struct EventSetView {
    GUID set{};
    std::vector<uint32_t> eventIds;
};

struct FilterView {
    std::vector<PinView> pins;
    std::vector<PropertySetView> propertySets;
    std::vector<EventSetView> eventSets;
    std::vector<GUID> topologyCategories;
    bool hasDeviceEventRoutine = false;

    const PropertySetView* FindPropertySet(const GUID& set) const;
    const EventSetView* FindEventSet(const GUID& set) const;
};

// Checks a stream descriptor the way the class does before trusting it and
// reports each problem as a STREAM_INFO violation. `size` is the buffer the
// class handed out (StreamDescriptorSize). Returns false when the descriptor
// must not be used.
bool ValidateStreamDescriptor(const HW_STREAM_HEADER& header, ULONG size);

// Decodes a descriptor that ValidateStreamDescriptor accepted.
FilterView DecodeStreamDescriptor(const HW_STREAM_HEADER& header);

// The picture fields of a KS_VIDEOINFOHEADER.
VideoInfoView DecodeVideoInfo(const KS_VIDEOINFOHEADER& info);

}  // namespace winsim
