// Readable names for what the filter reports: property and event sets and
// their items, pins, format subtypes, FourCCs.
#pragma once

#include <ntstatus.h>

#include <cstdint>
#include <string>

namespace ornixctl {

// The set's short name (VideoProcAmp, CameraControl, VideoControl, OxCustom,
// TevrinSgl, ...); the GUID text for a set we do not know.
std::string PropertySetName(const GUID& set);
// The item's name within its set, e.g. "Brightness"; "Record 20" for a custom
// item that reaches a camera property record; "" when unknown.
std::string PropertyItemName(const GUID& set, uint32_t id);
std::string EventSetName(const GUID& set);
// Pin names and categories (Capture, Still, Video, ...).
std::string PinName(const GUID& guid);
// RAW8, RAW16, RAW16B, IYRB, CNT, FLTR, or the GUID text.
std::string SubtypeName(const GUID& subtype);
// The four bytes in memory order ("RGGB"), "" for 0; other bytes as \xNN.
std::string FourCCText(uint32_t fourCC);
std::string HexText(uint32_t value, int digits);
// A frame interval in 100 ns units with its rate: "266666 (37.50 fps)"; the
// number alone when it is not positive.
std::string IntervalText(int64_t interval100ns);
// "STATUS_NO_MATCH (0xC0000272)"; the number alone for a status we do not name.
std::string NtStatusName(NTSTATUS status);

}  // namespace ornixctl
