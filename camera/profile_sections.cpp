#include "camera/profile_sections.h"

#include <array>
#include <fstream>
#include <iterator>
#include <limits>
#include <set>
#include <span>
#include <string>

#include "camera/json_values.h"
#include "camera/product_data_layout.h"
#include "camera/property_records.h"
#include "camera/register_map.h"

namespace ornixcam {
namespace {

using json_values::Fail;
using json_values::Path;
using nlohmann::json;

// The standard controls' records; the others are known by number only.
constexpr std::array<std::pair<std::string_view, uint8_t>, 14> kPropertyNames = {{
    {"brightness", 0},
    {"contrast", 1},
    {"hue", 2},
    {"saturation", 3},
    {"sharpness", 4},
    {"gamma", 5},
    {"pan", 6},
    {"tilt", 7},
    {"roll", 8},
    {"zoom", 9},
    {"exposure", 10},
    {"iris", 11},
    {"focus", 12},
    {"gain", 15},
}};

template <typename T>
void ReadUnsigned(const json& object, const char* key, const std::string& path, T& out) {
    if (auto it = object.find(key); it != object.end()) {
        out = static_cast<T>(
            json_values::Unsigned(*it, Path(path, key), std::numeric_limits<T>::max()));
    }
}

void ReadBool(const json& object, const char* key, const std::string& path, bool& out) {
    if (auto it = object.find(key); it != object.end()) {
        out = json_values::Bool(*it, Path(path, key));
    }
}

// [first, second], each within 0..max or min..max when signed.
std::pair<int64_t, int64_t> ReadPair(const json& value, const std::string& path, int64_t min,
                                     int64_t max) {
    json_values::RequireArray(value, path);
    if (value.size() != 2) {
        Fail(path, "expected two numbers, [x, y]");
    }
    return {json_values::Signed(value[0], Path(path, size_t{0}), min, max),
            json_values::Signed(value[1], Path(path, size_t{1}), min, max)};
}

void ReadSize(const json& object, const char* key, const std::string& path, Size16& out) {
    if (auto it = object.find(key); it != object.end()) {
        auto [width, height] = ReadPair(*it, Path(path, key), 0, 0xFFFF);
        out = {static_cast<uint16_t>(width), static_cast<uint16_t>(height)};
    }
}

uint8_t CheckedBusAddress(uint64_t address, const std::string& path) {
    if (address != 0xA0 && address != 0xA2 && address != 0xA8) {
        Fail(path, "expected EEPROM bus address 0xA0, 0xA2 or 0xA8");
    }
    return static_cast<uint8_t>(address);
}

std::vector<uint8_t> DefectList(const json& array, const std::string& path) {
    json_values::RequireArray(array, path);
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < array.size(); ++i) {
        auto [x, y] = ReadPair(array[i], Path(path, i), 0, 0xFFFF);
        for (int64_t coordinate : {x, y}) {
            bytes.push_back(static_cast<uint8_t>(coordinate));
            bytes.push_back(static_cast<uint8_t>(coordinate >> 8));
        }
    }
    return bytes;
}

ProductDataSection ParseSection(const json& object, const std::string& path) {
    json_values::RequireFields(object, path, {"id", "defects", "bytes"});
    if (!object.contains("id")) {
        Fail(Path(path, "id"), "missing");
    }
    ProductDataSection section;
    ReadUnsigned(object, "id", path, section.id);
    if (object.contains("defects") && object.contains("bytes")) {
        Fail(path, "give either \"defects\" or \"bytes\", not both");
    }
    if (auto it = object.find("defects"); it != object.end()) {
        section.payload = DefectList(*it, Path(path, "defects"));
    } else if (auto bytes = object.find("bytes"); bytes != object.end()) {
        section.payload = json_values::HexBytes(*bytes, Path(path, "bytes"));
    }
    if (section.payload.size() > 0xFFFFF) {
        Fail(path, "a section holds at most 0xFFFFF bytes");
    }
    return section;
}

std::vector<uint8_t> EepromImage(const json& value, const std::string& path,
                                 const std::filesystem::path& baseDirectory) {
    const std::string& text = json_values::Text(value, path);
    std::vector<uint8_t> bytes;
    if (!text.empty() && text[0] == '@') {
        const std::filesystem::path file = baseDirectory / text.substr(1);
        std::ifstream in(file, std::ios::binary);
        if (!in) {
            Fail(path, "cannot open " + file.string());
        }
        bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    } else {
        bytes = json_values::HexBytes(value, path);
    }
    if (bytes.size() > kEepromSize) {
        Fail(path, "an EEPROM holds at most 65536 bytes");
    }
    return bytes;
}

uint32_t ColorInquiry(const json& value, const std::string& path, uint8_t colorId) {
    if (!value.is_object()) {
        return static_cast<uint32_t>(json_values::Unsigned(value, path, 0xFFFFFFFF));
    }
    json_values::RequireFields(value, path, {"base", "extra", "interlaced"});
    uint8_t base = colorId;
    uint16_t extra = 0;
    bool interlaced = false;
    ReadUnsigned(value, "base", path, base);
    ReadUnsigned(value, "extra", path, extra);
    ReadBool(value, "interlaced", path, interlaced);
    return base | uint32_t{extra} << 8 | (interlaced ? 1u << 24 : 0);
}

template <typename T>
using Choices = std::span<const std::pair<std::string_view, T>>;

constexpr std::pair<std::string_view, ValidateMode> kValidateModes[] = {
    {"keep", ValidateMode::Keep},
    {"clamp", ValidateMode::Clamp},
    {"centre", ValidateMode::Centre},
    {"align", ValidateMode::Align}};
constexpr std::pair<std::string_view, ColorIdReadBack> kColorIdReadBacks[] = {
    {"written", ColorIdReadBack::Written},
    {"zeroAfterFrequency", ColorIdReadBack::ZeroAfterFrequency},
    {"zero", ColorIdReadBack::Zero}};

// One of the names in `choices`.
template <typename T>
T Choice(const json& value, const std::string& path, Choices<T> choices) {
    const std::string& text = json_values::Text(value, path);
    std::string names;
    for (const auto& [name, choice] : choices) {
        if (text == name) {
            return choice;
        }
        names += (names.empty() ? "\"" : ", \"") + std::string(name) + "\"";
    }
    Fail(path, "expected one of " + names + ", got \"" + text + "\"");
}

std::vector<uint8_t> BinningFactors(const json& array, const std::string& path) {
    json_values::RequireArray(array, path);
    std::vector<uint8_t> factors;
    for (size_t i = 0; i < array.size(); ++i) {
        const std::string factorPath = Path(path, i);
        const auto factor = static_cast<uint8_t>(json_values::Unsigned(array[i], factorPath, 0xFF));
        if (factor == 0) {
            Fail(factorPath, "a binning factor is 1 or more");
        }
        factors.push_back(factor);
    }
    return factors;
}

FormatBankProfile ParseFormatBank(const json& object, const std::string& path) {
    json_values::RequireFields(object, path,
                               {"maxSize", "unitSize", "size", "position", "colorId", "interlaced",
                                "bottomUp", "colorInquiry", "binning", "frequency", "chart",
                                "chartCount", "binnings", "validate", "colorIdReadBack"});
    FormatBankProfile bank;
    ReadSize(object, "maxSize", path, bank.maxSize);
    bank.size = bank.maxSize;
    ReadSize(object, "unitSize", path, bank.unitSize);
    ReadSize(object, "size", path, bank.size);
    ReadSize(object, "binning", path, bank.binning);
    if (auto it = object.find("position"); it != object.end()) {
        auto [x, y] = ReadPair(*it, Path(path, "position"), -0x8000, 0x7FFF);
        bank.startX = static_cast<int16_t>(x);
        bank.startY = static_cast<int16_t>(y);
    }
    ReadUnsigned(object, "colorId", path, bank.colorId);
    ReadBool(object, "interlaced", path, bank.interlaced);
    ReadBool(object, "bottomUp", path, bank.bottomUp);
    bank.colorInquiry = bank.colorId;
    if (auto it = object.find("colorInquiry"); it != object.end()) {
        bank.colorInquiry = ColorInquiry(*it, Path(path, "colorInquiry"), bank.colorId);
    }
    if (auto it = object.find("frequency"); it != object.end()) {
        const std::string frequencyPath = Path(path, "frequency");
        json_values::RequireFields(*it, frequencyPath, {"min", "max", "current"});
        ReadUnsigned(*it, "min", frequencyPath, bank.frequencyMin);
        ReadUnsigned(*it, "max", frequencyPath, bank.frequencyMax);
        bank.frequencyCurrent = bank.frequencyMin;
        ReadUnsigned(*it, "current", frequencyPath, bank.frequencyCurrent);
    }
    if (auto it = object.find("chart"); it != object.end()) {
        const std::string chartPath = Path(path, "chart");
        json_values::RequireArray(*it, chartPath);
        for (size_t i = 0; i < it->size(); ++i) {
            bank.chart.push_back(
                static_cast<uint16_t>(json_values::Unsigned((*it)[i], Path(chartPath, i), 0xFFFF)));
        }
    }
    if (auto it = object.find("chartCount"); it != object.end()) {
        bank.chartCount =
            static_cast<uint32_t>(json_values::Unsigned(*it, Path(path, "chartCount"), 0xFFFFFFFF));
    }
    if (auto it = object.find("binnings"); it != object.end()) {
        bank.binnings = BinningFactors(*it, Path(path, "binnings"));
    }
    if (auto it = object.find("validate"); it != object.end()) {
        bank.validate = Choice<ValidateMode>(*it, Path(path, "validate"), kValidateModes);
    }
    if (auto it = object.find("colorIdReadBack"); it != object.end()) {
        bank.colorIdReadBack =
            Choice<ColorIdReadBack>(*it, Path(path, "colorIdReadBack"), kColorIdReadBacks);
    }
    return bank;
}

uint32_t RecordWord(const json& object, const char* key, const std::string& path) {
    return static_cast<uint32_t>(json_values::Signed(object[key], Path(path, key),
                                                     std::numeric_limits<int32_t>::min(),
                                                     std::numeric_limits<uint32_t>::max()));
}

PropertyRecordProfile ParsePropertyRecord(const json& object, const std::string& path) {
    json_values::RequireFields(
        object, path,
        {"present", "autoAvailable", "auto", "control", "value", "min", "max", "clamp"});
    bool present = true;
    bool autoAvailable = false;
    bool autoOn = false;
    ReadBool(object, "present", path, present);
    ReadBool(object, "autoAvailable", path, autoAvailable);
    ReadBool(object, "auto", path, autoOn);
    PropertyRecordProfile record;
    record.control = (present ? kControlPresent : 0) |
                     (autoAvailable || autoOn ? kControlAutoAvailable : 0) |
                     (autoOn ? kControlAutoOn : 0);
    if (object.contains("control")) {
        record.control = RecordWord(object, "control", path);
    }
    if (object.contains("value")) {
        record.value = RecordWord(object, "value", path);
    }
    if (object.contains("min")) {
        record.minimum = RecordWord(object, "min", path);
    }
    if (object.contains("max")) {
        record.maximum = RecordWord(object, "max", path);
    }
    ReadBool(object, "clamp", path, record.clamp);
    return record;
}

}  // namespace

std::optional<uint8_t> PropertyRecordByName(std::string_view name) {
    for (const auto& [known, record] : kPropertyNames) {
        if (name == known) {
            return record;
        }
    }
    constexpr std::string_view kPrefix = "record";
    if (name.starts_with(kPrefix) && name.size() > kPrefix.size() &&
        name.size() <= kPrefix.size() + 2) {
        unsigned number = 0;
        for (char c : name.substr(kPrefix.size())) {
            if (c < '0' || c > '9') {
                return std::nullopt;
            }
            number = number * 10 + static_cast<unsigned>(c - '0');
        }
        if (number < reg::kPropertyRecordCount) {
            return static_cast<uint8_t>(number);
        }
    }
    return std::nullopt;
}

void ParseFpga(const json& object, FpgaProfile& fpga) {
    const std::string path = "fpga";
    json_values::RequireFields(object, path,
                               {"present", "startsConfigured", "busyPolls", "version", "image"});
    ReadBool(object, "present", path, fpga.present);
    ReadBool(object, "startsConfigured", path, fpga.startsConfigured);
    ReadUnsigned(object, "busyPolls", path, fpga.busyPolls);
    ReadUnsigned(object, "version", path, fpga.version);
    if (auto it = object.find("image"); it != object.end()) {
        const std::string& text = json_values::Text(*it, Path(path, "image"));
        if (text == "expected") {
            fpga.image = FpgaImageCheck::Expected;
        } else if (text == "any") {
            fpga.image = FpgaImageCheck::Any;
        } else {
            Fail(Path(path, "image"), "expected \"expected\" or \"any\", got \"" + text + "\"");
        }
    }
}

void ParseProductData(const json& object, ProductDataProfile& data,
                      const std::filesystem::path& baseDirectory) {
    const std::string path = "productData";
    json_values::RequireFields(object, path,
                               {"mappingType", "refuseMappingQuery", "sections", "end", "eeproms",
                                "eepromImages", "probeByte"});
    ReadUnsigned(object, "mappingType", path, data.mappingType);
    ReadBool(object, "refuseMappingQuery", path, data.refuseMappingQuery);
    ReadBool(object, "end", path, data.end);
    if (auto it = object.find("sections"); it != object.end()) {
        const std::string sectionsPath = Path(path, "sections");
        json_values::RequireArray(*it, sectionsPath);
        data.sections.clear();
        for (size_t i = 0; i < it->size(); ++i) {
            data.sections.push_back(ParseSection((*it)[i], Path(sectionsPath, i)));
        }
    }
    if (auto it = object.find("eeproms"); it != object.end()) {
        const std::string eepromsPath = Path(path, "eeproms");
        json_values::RequireArray(*it, eepromsPath);
        std::set<uint8_t> present;
        for (size_t i = 0; i < it->size(); ++i) {
            const std::string addressPath = Path(eepromsPath, i);
            present.insert(
                CheckedBusAddress(json_values::Unsigned((*it)[i], addressPath, 0xFF), addressPath));
        }
        data.eeproms.assign(present.begin(), present.end());
    }
    if (auto it = object.find("eepromImages"); it != object.end()) {
        const std::string imagesPath = Path(path, "eepromImages");
        json_values::RequireObject(*it, imagesPath);
        for (const auto& [key, value] : it->items()) {
            const std::string imagePath = Path(imagesPath, key);
            const uint8_t address =
                CheckedBusAddress(json_values::UnsignedKey(key, imagePath, 0xFF), imagePath);
            if (value.is_null()) {
                data.eepromImages.erase(address);
            } else {
                data.eepromImages[address] = EepromImage(value, imagePath, baseDirectory);
            }
        }
    }
    if (auto it = object.find("probeByte"); it != object.end()) {
        if (it->is_null()) {
            data.probeByte.reset();
        } else {
            data.probeByte =
                static_cast<uint8_t>(json_values::Unsigned(*it, Path(path, "probeByte"), 0xFF));
        }
    }
    // Reject sections that cannot be laid out now rather than when a camera is built.
    BuildEepromContents(data);
}

std::vector<FormatBankProfile> ParseFormatBanks(const json& array) {
    const std::string path = "formatBanks";
    json_values::RequireArray(array, path);
    if (array.size() > reg::kMaxFormatBanks) {
        Fail(path, "at most 32 format banks fit the register map");
    }
    std::vector<FormatBankProfile> banks;
    for (size_t i = 0; i < array.size(); ++i) {
        banks.push_back(ParseFormatBank(array[i], Path(path, i)));
    }
    return banks;
}

void ParseProperties(const json& object, std::map<uint8_t, PropertyRecordProfile>& properties) {
    json_values::RequireObject(object, "properties");
    for (const auto& [key, value] : object.items()) {
        const std::string path = Path("properties", key);
        const std::optional<uint8_t> record = PropertyRecordByName(key);
        if (!record) {
            Fail(path, "not a property name or record0..record56");
        }
        if (value.is_null()) {
            properties.erase(*record);
        } else {
            properties[*record] = ParsePropertyRecord(value, path);
        }
    }
}

}  // namespace ornixcam
