// Writing controls: each value checked against what the control takes, then
// sent as the control's property record.
#include <charconv>
#include <cstring>
#include <fstream>
#include <iterator>

#include "ornix.h"
#include "ornixctl/control_values.h"
#include "ornixctl/names.h"

namespace ornixctl {
namespace {

[[noreturn]] void Invalid(const ControlRef& control, const std::string& value,
                          const std::string& valid) {
    throw UsageError(control.Name() + ": '" + value + "' is not valid; give " + valid);
}

// A decimal or 0x-prefixed number, whole text only.
template <typename T>
std::optional<T> Number(std::string_view text) {
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    T value{};
    const char* end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, value, base);
    if (text.empty() || ec != std::errc() || ptr != end) {
        return std::nullopt;
    }
    return value;
}

// "A<sep>B" as two numbers of at most `maximum`, at least `minimum`.
std::optional<std::pair<uint16_t, uint16_t>> Pair(std::string_view text, char separator,
                                                  uint32_t minimum, uint32_t maximum) {
    const size_t at = text.find(separator);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    const auto a = Number<uint32_t>(text.substr(0, at));
    const auto b = Number<uint32_t>(text.substr(at + 1));
    if (!a || !b || *a < minimum || *b < minimum || *a > maximum || *b > maximum) {
        return std::nullopt;
    }
    return std::pair{static_cast<uint16_t>(*a), static_cast<uint16_t>(*b)};
}

// The property record a standard control's request carries: the header,
// then Value, Flags and Capabilities.
Bytes StandardRecord(const ControlRef& control, int32_t value, uint32_t flags) {
    Bytes record(40, 0);
    KSPROPERTY header{};
    header.Set = control.info->set;
    header.Id = control.propertyId;
    header.Flags = KSPROPERTY_TYPE_SET;
    std::memcpy(record.data(), &header, sizeof header);
    PutWord(record, 24, static_cast<uint32_t>(value));
    PutWord(record, 28, flags);
    return record;
}

void Standard(Session& session, const ControlRef& control, const std::string& value,
              bool autoMode) {
    const winsim::PropertyItemView* item = PublishedItem(session, control);
    std::string valid = control.info->values;
    if (item && item->range) {
        valid = "a whole number from " + std::to_string(item->range->minimum) + " to " +
                std::to_string(item->range->maximum) + " in steps of " +
                std::to_string(item->range->step);
    }
    const auto number = Number<int32_t>(value);
    if (!number) {
        Invalid(control, value, valid);
    }
    if (item && item->range) {
        const auto& range = *item->range;
        const int64_t offset = int64_t{*number} - range.minimum;
        if (*number < range.minimum || *number > range.maximum ||
            (range.step > 1 && offset % range.step != 0)) {
            throw UsageError(control.Name() + ": " + value + " is out of range; give " + valid);
        }
    }
    const uint32_t flags =
        autoMode ? KSPROPERTY_VIDEOPROCAMP_FLAGS_AUTO : KSPROPERTY_VIDEOPROCAMP_FLAGS_MANUAL;
    const Bytes record = StandardRecord(control, *number, flags);
    SetProperty(session, Address(control), record, Bytes(record.begin() + 24, record.end()));
}

void Position(Session& session, const ControlRef& control, const std::string& value) {
    const auto xy = Pair(value, ',', 0, 0xFFFF);
    if (!xy) {
        Invalid(control, value, control.info->values);
    }
    Bytes data(8, 0);
    PutHalf(data, 4, xy->first);
    PutHalf(data, 6, xy->second);
    SetProperty(session, Address(control), data);
}

void Binning(Session& session, const ControlRef& control, const std::string& value) {
    auto factors = Pair(value, 'x', 1, 255);
    if (!factors) {
        factors = Pair(value, ',', 1, 255);
    }
    if (!factors) {
        Invalid(control, value, control.info->values);
    }
    Bytes data(8, 0);
    PutHalf(data, 4, factors->first);
    PutHalf(data, 6, factors->second);
    SetProperty(session, Address(control), data);
}

void LookUpTable(Session& session, const ControlRef& control, const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw UsageError(control.Name() + ": cannot read the file '" + path + "'; give " +
                         control.info->values);
    }
    const Bytes table{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (table.empty() || table.size() > 65536) {
        throw UsageError(control.Name() + ": '" + path + "' holds " + std::to_string(table.size()) +
                         " bytes; give " + control.info->values);
    }
    SetProperty(session, Address(control), table);
}

void PixelCorrection(Session& session, const ControlRef& control, const std::string& value) {
    bool on = false;
    if (value == "on" || value == "1") {
        on = true;
    } else if (value != "off" && value != "0") {
        Invalid(control, value, control.info->values);
    }
    Bytes data(16, 0);
    PutWord(data, 0, on ? 0x8000 : 0);
    SetProperty(session, Address(control), data);
}

void TriggerMode(Session& session, const ControlRef& control, const std::string& value) {
    uint32_t mode = 0;
    if (const auto number = Number<uint32_t>(value)) {
        if ((*number & ~uint32_t{KS_VideoControlFlag_Trigger |
                                 KS_VideoControlFlag_ExternalTriggerEnable}) != 0) {
            Invalid(control, value, std::string(control.info->values) + ", or flags 0, 4, 8, 12");
        }
        mode = *number;
    } else if (value != "none") {
        std::string_view rest = value;
        while (!rest.empty()) {
            const size_t comma = rest.find(',');
            const std::string_view word = rest.substr(0, comma);
            if (word == "trigger") {
                mode |= KS_VideoControlFlag_Trigger;
            } else if (word == "external") {
                mode |= KS_VideoControlFlag_ExternalTriggerEnable;
            } else {
                Invalid(control, value, control.info->values);
            }
            rest = comma == std::string_view::npos ? std::string_view{} : rest.substr(comma + 1);
        }
    }
    Bytes extra(8, 0);
    PutWord(extra, 0, 1);  // the still stream
    PutWord(extra, 4, mode);
    Bytes data(32, 0);  // the same record as data, as KS applications send it
    PutWord(data, 24, 1);
    PutWord(data, 28, mode);
    SetProperty(session, Address(control), data, extra);
}

void Record(Session& session, const ControlRef& control, const std::string& value) {
    Bytes data(8, 0);
    const size_t comma = value.find(',');
    if (comma == std::string::npos) {
        const auto number = Number<int32_t>(value);
        if (!number) {
            Invalid(control, value, control.info->values);
        }
        // Keep the automatic-mode bit as the camera has it.
        const Bytes current = GetProperty(session, Address(control), 4);
        PutWord(data, 0, WordAt(current, 0) & 0x4000);
        PutWord(data, 4, static_cast<uint32_t>(*number));
    } else {
        const auto word = Number<uint32_t>(std::string_view(value).substr(0, comma));
        const auto number = Number<int32_t>(std::string_view(value).substr(comma + 1));
        if (!word || !number) {
            Invalid(control, value, control.info->values);
        }
        PutWord(data, 0, *word);
        PutWord(data, 4, static_cast<uint32_t>(*number));
    }
    SetProperty(session, Address(control), data);
}

void ProductData(Session& session, const ControlRef& control, const std::string& value) {
    if (value != "reload") {
        Invalid(control, value, control.info->values);
    }
    SetProperty(session, Address(control), {}, Bytes(8, 0));
}

}  // namespace

void WriteControl(Session& session, const ControlRef& control, const std::string& value,
                  bool autoMode) {
    RequireOffered(session, control);
    if (!control.info->canSet) {
        throw UsageError(control.Name() + " is read-only");
    }
    if (autoMode && control.info->kind != ControlKind::Standard) {
        throw UsageError(control.Name() + ": --auto applies to the standard controls only");
    }
    switch (control.info->kind) {
        case ControlKind::Standard:
            return Standard(session, control, value, autoMode);
        case ControlKind::StartPosition:
            return Position(session, control, value);
        case ControlKind::Binning:
            return Binning(session, control, value);
        case ControlKind::LookUpTable:
            return LookUpTable(session, control, value);
        case ControlKind::PixelCorrection:
            return PixelCorrection(session, control, value);
        case ControlKind::TriggerMode:
            return TriggerMode(session, control, value);
        case ControlKind::Record:
            return Record(session, control, value);
        case ControlKind::ProductData:
            return ProductData(session, control, value);
        default:
            throw UsageError(control.Name() + " is read-only");
    }
}

}  // namespace ornixctl
