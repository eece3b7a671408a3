#include "streamclass/filter_view.h"

#include <ksmedia.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "kernel/kernel.h"

namespace winsim {
namespace {

// The class walks the minidriver's arrays blindly; counts beyond this are
// taken for garbage rather than followed into random memory.
constexpr ULONG kMaxSaneCount = 0x10000;
// Applications copy each range (KSPROPERTY_PIN_DATARANGES); a size beyond
// this is garbage, not a range.
constexpr ULONG kMaxSaneFormatSize = 0x10000;

// MEDIATYPE_Video and FORMAT_VideoInfo: the pair that marks a video-info range.
constexpr GUID kTypeVideo = {
    0x73646976, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
constexpr GUID kSpecifierVideoInfo = {
    0x05589F80, 0xC356, 0x11CE, {0xBF, 0x01, 0x00, 0xAA, 0x00, 0x55, 0x59, 0x5A}};

class Checker {
  public:
    void Fail(const std::string& message) {
        ok_ = false;
        ReportViolation("STREAM_INFO", message);
    }
    // A count with its array: the array must exist when the count is not 0.
    bool Array(ULONG count, const void* array, const std::string& what) {
        if (count > kMaxSaneCount) {
            Fail(what + ": count " + std::to_string(count) + " is not plausible");
            return false;
        }
        if (count != 0 && array == nullptr) {
            Fail(what + ": " + std::to_string(count) + " entries but no array");
            return false;
        }
        return true;
    }
    bool Ok() const { return ok_; }

  private:
    bool ok_ = true;
};

void CheckPropertySets(Checker& check, ULONG count, const KSPROPERTY_SET* sets,
                       const std::string& where) {
    if (!check.Array(count, sets, where + " property sets")) {
        return;
    }
    for (ULONG s = 0; s < count; ++s) {
        const std::string name = where + " property set " + std::to_string(s);
        if (sets[s].Set == nullptr) {
            check.Fail(name + " has no GUID");
        }
        if (!check.Array(sets[s].PropertiesCount, sets[s].PropertyItem, name + " items")) {
            continue;
        }
        for (ULONG i = 0; i < sets[s].PropertiesCount; ++i) {
            const KSPROPERTY_VALUES* values = sets[s].PropertyItem[i].Values;
            if (values == nullptr) {
                continue;
            }
            const std::string item = name + " item " + std::to_string(i);
            if (!check.Array(values->MembersListCount, values->MembersList,
                             item + " members lists")) {
                continue;
            }
            for (ULONG m = 0; m < values->MembersListCount; ++m) {
                const KSPROPERTY_MEMBERSLIST& list = values->MembersList[m];
                check.Array(list.MembersHeader.MembersCount, list.Members,
                            item + " members list " + std::to_string(m));
            }
        }
    }
}

void CheckEventSets(Checker& check, ULONG count, const KSEVENT_SET* sets,
                    const std::string& where) {
    if (!check.Array(count, sets, where + " event sets")) {
        return;
    }
    for (ULONG s = 0; s < count; ++s) {
        const std::string name = where + " event set " + std::to_string(s);
        if (sets[s].Set == nullptr) {
            check.Fail(name + " has no GUID");
        }
        check.Array(sets[s].EventsCount, sets[s].EventItem, name + " items");
    }
}

void CheckStream(Checker& check, ULONG number, const HW_STREAM_INFORMATION& info) {
    const std::string where = "stream " + std::to_string(number);
    if (check.Array(info.NumberOfFormatArrayEntries, info.StreamFormatsArray, where + " formats")) {
        for (ULONG f = 0; f < info.NumberOfFormatArrayEntries; ++f) {
            const KSDATAFORMAT* format = info.StreamFormatsArray[f];
            if (format == nullptr) {
                check.Fail(where + " format " + std::to_string(f) + " is a null pointer");
            } else if (format->FormatSize < sizeof(KSDATAFORMAT) ||
                       format->FormatSize > kMaxSaneFormatSize) {
                check.Fail(where + " format " + std::to_string(f) + " has FormatSize " +
                           std::to_string(format->FormatSize) +
                           (format->FormatSize < sizeof(KSDATAFORMAT)
                                ? ", less than a KSDATAFORMAT"
                                : ", which is not plausible"));
            }
        }
    }
    CheckPropertySets(check, info.NumStreamPropArrayEntries, info.StreamPropertiesArray, where);
    CheckEventSets(check, info.NumStreamEventArrayEntries, info.StreamEventsArray, where);
    check.Array(info.MediumsCount, info.Mediums, where + " mediums");
}

std::optional<PropertyRangeView> DecodeRange(const KSPROPERTY_VALUES* values) {
    if (values == nullptr) {
        return std::nullopt;
    }
    std::optional<PropertyRangeView> range;
    std::optional<int32_t> defaultValue;
    for (ULONG m = 0; m < values->MembersListCount; ++m) {
        const KSPROPERTY_MEMBERSLIST& list = values->MembersList[m];
        const KSPROPERTY_MEMBERSHEADER& head = list.MembersHeader;
        if (head.MembersCount == 0 || list.Members == nullptr) {
            continue;
        }
        const bool ranged = head.MembersFlags == KSPROPERTY_MEMBER_RANGES ||
                            head.MembersFlags == KSPROPERTY_MEMBER_STEPPEDRANGES;
        if (ranged && head.MembersSize >= sizeof(KSPROPERTY_STEPPING_LONG) && !range) {
            const auto* stepping = static_cast<const KSPROPERTY_STEPPING_LONG*>(list.Members);
            range =
                PropertyRangeView{stepping->Bounds.SignedMinimum, stepping->Bounds.SignedMaximum,
                                  stepping->SteppingDelta, std::nullopt};
        } else if (head.MembersFlags == KSPROPERTY_MEMBER_VALUES &&
                   (head.Flags & KSPROPERTY_MEMBER_FLAG_DEFAULT) &&
                   head.MembersSize >= sizeof(LONG)) {
            // Only the first member: the count may say more than is there.
            defaultValue = *static_cast<const LONG*>(list.Members);
        }
    }
    if (range) {
        range->defaultValue = defaultValue;
    }
    return range;
}

bool IsGreyRamp(const KS_RGBQUAD* colours) {
    for (int n = 0; n < KS_iPALETTE_COLORS; ++n) {
        const KS_RGBQUAD& c = colours[n];
        if (c.rgbBlue != n || c.rgbGreen != n || c.rgbRed != n || c.rgbReserved != 0) {
            return false;
        }
    }
    return true;
}

VideoRangeView DecodeVideo(const KS_DATARANGE_VIDEO& range) {
    const KS_VIDEO_STREAM_CONFIG_CAPS& caps = range.ConfigCaps;
    VideoRangeView v;
    static_cast<VideoInfoView&>(v) = DecodeVideoInfo(range.VideoInfoHeader);
    v.subFormat = range.DataRange.SubFormat;
    v.minWidth = caps.MinOutputSize.cx;
    v.minHeight = caps.MinOutputSize.cy;
    v.maxWidth = caps.MaxOutputSize.cx;
    v.maxHeight = caps.MaxOutputSize.cy;
    v.stepX = caps.OutputGranularityX;
    v.stepY = caps.OutputGranularityY;
    v.minFrameInterval = caps.MinFrameInterval;
    v.maxFrameInterval = caps.MaxFrameInterval;
    v.minBitsPerSecond = caps.MinBitsPerSecond;
    v.maxBitsPerSecond = caps.MaxBitsPerSecond;
    v.sampleSize = range.DataRange.SampleSize;
    v.fixedSizeSamples = range.bFixedSizeSamples != 0;
    if (range.DataRange.FormatSize >= sizeof(KS_DATARANGE_VIDEO_PALETTE)) {
        const auto& palette = reinterpret_cast<const KS_DATARANGE_VIDEO_PALETTE&>(range);
        v.hasPalette = true;
        v.greyRampPalette = IsGreyRamp(palette.VideoInfo.bmiColors);
    }
    return v;
}

DataRangeView DecodeDataRange(const KSDATAFORMAT& format) {
    DataRangeView view;
    view.formatSize = format.FormatSize;
    view.majorFormat = format.MajorFormat;
    view.subFormat = format.SubFormat;
    view.specifier = format.Specifier;
    view.sampleSize = format.SampleSize;
    const auto* bytes = reinterpret_cast<const uint8_t*>(&format);
    view.bytes.assign(bytes, bytes + format.FormatSize);
    if (SameGuid(format.MajorFormat, kTypeVideo) &&
        SameGuid(format.Specifier, kSpecifierVideoInfo) &&
        format.FormatSize >= sizeof(KS_DATARANGE_VIDEO)) {
        view.video = DecodeVideo(reinterpret_cast<const KS_DATARANGE_VIDEO&>(format));
    }
    return view;
}

// The sets as the class copies them at SRB_GET_STREAM_INFO: what it checks
// property requests against from then on.
std::vector<PropertySetView> DecodePropertySets(ULONG count, const KSPROPERTY_SET* sets) {
    std::vector<PropertySetView> views;
    for (ULONG s = 0; s < count; ++s) {
        const KSPROPERTY_SET& set = sets[s];
        PropertySetView setView{*set.Set, {}};
        for (ULONG i = 0; i < set.PropertiesCount; ++i) {
            const KSPROPERTY_ITEM& item = set.PropertyItem[i];
            // The whole union: a handler or a TRUE flag both mean "supported".
            setView.items.push_back({item.PropertyId, item.GetPropertyHandler != nullptr,
                                     item.SetPropertyHandler != nullptr, item.MinProperty,
                                     item.MinData, DecodeRange(item.Values)});
        }
        views.push_back(std::move(setView));
    }
    return views;
}

}  // namespace

std::string GuidText(const GUID& g) {
    char text[40];
    std::snprintf(text, sizeof text, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X",
                  static_cast<unsigned>(g.Data1), g.Data2, g.Data3, g.Data4[0], g.Data4[1],
                  g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return text;
}

bool SameGuid(const GUID& a, const GUID& b) {
    return std::memcmp(&a, &b, sizeof(GUID)) == 0;
}

const PropertySetView* FilterView::FindPropertySet(const GUID& set) const {
    for (const PropertySetView& s : propertySets) {
        if (SameGuid(s.set, set)) {
            return &s;
        }
    }
    return nullptr;
}

const EventSetView* FilterView::FindEventSet(const GUID& set) const {
    for (const EventSetView& s : eventSets) {
        if (SameGuid(s.set, set)) {
            return &s;
        }
    }
    return nullptr;
}

VideoInfoView DecodeVideoInfo(const KS_VIDEOINFOHEADER& info) {
    VideoInfoView v;
    v.fourCC = info.bmiHeader.biCompression;
    v.bitsPerPixel = info.bmiHeader.biBitCount;
    v.width = info.bmiHeader.biWidth;
    v.topDown = info.bmiHeader.biHeight < 0;
    v.height = v.topDown ? -int64_t{info.bmiHeader.biHeight} : info.bmiHeader.biHeight;
    v.avgTimePerFrame = info.AvgTimePerFrame;
    v.bitRate = info.dwBitRate;
    v.imageSize = info.bmiHeader.biSizeImage;
    return v;
}

bool ValidateStreamDescriptor(const HW_STREAM_HEADER& header, ULONG size) {
    Checker check;
    if (header.SizeOfHwStreamInformation != sizeof(HW_STREAM_INFORMATION)) {
        check.Fail("SizeOfHwStreamInformation is " +
                   std::to_string(header.SizeOfHwStreamInformation) + ", expected " +
                   std::to_string(sizeof(HW_STREAM_INFORMATION)));
        return false;
    }
    const uint64_t needed =
        sizeof(HW_STREAM_HEADER) + uint64_t{header.NumberOfStreams} * sizeof(HW_STREAM_INFORMATION);
    if (needed != size) {
        check.Fail(
            "NumberOfStreams is " + std::to_string(header.NumberOfStreams) +
            " but the announced StreamDescriptorSize " + std::to_string(size) + " holds " +
            std::to_string((size - sizeof(HW_STREAM_HEADER)) / sizeof(HW_STREAM_INFORMATION)));
        return false;
    }
    CheckPropertySets(check, header.NumDevPropArrayEntries, header.DevicePropertiesArray, "device");
    CheckEventSets(check, header.NumDevEventArrayEntries, header.DeviceEventsArray, "device");
    if (header.Topology != nullptr) {
        const KSTOPOLOGY& t = *header.Topology;
        check.Array(t.CategoriesCount, t.Categories, "topology categories");
        check.Array(t.TopologyNodesCount, t.TopologyNodes, "topology nodes");
        check.Array(t.TopologyConnectionsCount, t.TopologyConnections, "topology connections");
    }
    const auto* streams = reinterpret_cast<const HW_STREAM_INFORMATION*>(&header + 1);
    for (ULONG s = 0; s < header.NumberOfStreams; ++s) {
        CheckStream(check, s, streams[s]);
    }
    return check.Ok();
}

FilterView DecodeStreamDescriptor(const HW_STREAM_HEADER& header) {
    FilterView view;
    const auto* streams = reinterpret_cast<const HW_STREAM_INFORMATION*>(&header + 1);
    for (ULONG s = 0; s < header.NumberOfStreams; ++s) {
        const HW_STREAM_INFORMATION& info = streams[s];
        PinView pin;
        pin.number = s;
        if (info.Name != nullptr) {
            pin.name = *info.Name;
        }
        if (info.Category != nullptr) {
            pin.category = *info.Category;
        }
        pin.possibleInstances = info.NumberOfPossibleInstances;
        pin.dataFlow = info.DataFlow;
        pin.dataAccessible = info.DataAccessible != FALSE;
        for (ULONG f = 0; f < info.NumberOfFormatArrayEntries; ++f) {
            pin.ranges.push_back(DecodeDataRange(*info.StreamFormatsArray[f]));
        }
        pin.propertySets =
            DecodePropertySets(info.NumStreamPropArrayEntries, info.StreamPropertiesArray);
        view.pins.push_back(std::move(pin));
    }
    view.propertySets =
        DecodePropertySets(header.NumDevPropArrayEntries, header.DevicePropertiesArray);
    for (ULONG s = 0; s < header.NumDevEventArrayEntries; ++s) {
        const KSEVENT_SET& set = header.DeviceEventsArray[s];
        EventSetView setView{*set.Set, {}};
        for (ULONG i = 0; i < set.EventsCount; ++i) {
            setView.eventIds.push_back(set.EventItem[i].EventId);
        }
        view.eventSets.push_back(std::move(setView));
    }
    if (header.Topology != nullptr) {
        for (ULONG c = 0; c < header.Topology->CategoriesCount; ++c) {
            view.topologyCategories.push_back(header.Topology->Categories[c]);
        }
    }
    view.hasDeviceEventRoutine = header.DeviceEventRoutine != nullptr;
    return view;
}

}  // namespace winsim
