#include "loader/coff_symbols.h"

#include <cxxabi.h>

#include <cstdlib>
#include <cstring>
#include <regex>

#include "loader/pe_image.h"
#include "loader/pe_fields.h"

namespace winsim::loader {

namespace {

constexpr size_t kSymbolSize = 18;
constexpr size_t kSectionHeaderSize = 40;
constexpr uint8_t kClassExternal = 2;

std::string FixedName(std::span<const uint8_t> file, size_t offset) {
    const char* text = reinterpret_cast<const char*>(file.data() + offset);
    return std::string(text, strnlen(text, 8));
}

}  // namespace

CoffSymbols ReadCoffSymbols(std::span<const uint8_t> file) {
    const size_t coff = Field<uint32_t>(file, 0x3C, "the DOS header") + 4;
    const unsigned sectionCount = Field<uint16_t>(file, coff + 2, "the file header");
    const size_t symbolTable = Field<uint32_t>(file, coff + 8, "the file header");
    const size_t symbolCount = Field<uint32_t>(file, coff + 12, "the file header");
    const size_t sectionTable = coff + 20 + Field<uint16_t>(file, coff + 16, "the file header");

    CoffSymbols result;
    const size_t stringTable = symbolTable + symbolCount * kSymbolSize;
    for (unsigned i = 0; i < sectionCount; ++i) {
        const size_t header = sectionTable + i * kSectionHeaderSize;
        FileSection section;
        section.name = FixedName(file, header);
        // Long section names (debug sections) are "/offset" into the string table.
        if (section.name.starts_with('/') && symbolTable != 0) {
            const size_t at = stringTable + std::strtoul(section.name.c_str() + 1, nullptr, 10);
            Field<char>(file, at, "a section name");
            section.name = reinterpret_cast<const char*>(file.data() + at);
        }
        section.virtualSize = Field<uint32_t>(file, header + 8, "a section header");
        section.rva = Field<uint32_t>(file, header + 12, "a section header");
        const size_t rawSize = Field<uint32_t>(file, header + 16, "a section header");
        const size_t rawAt = Field<uint32_t>(file, header + 20, "a section header");
        if (rawAt > file.size() || file.size() - rawAt < rawSize) {
            throw LoadError("truncated image: section " + section.name + " lies past the end");
        }
        section.raw = file.subspan(rawAt, rawSize);
        result.sections.push_back(std::move(section));
    }
    if (symbolTable == 0) {
        return result;
    }
    for (size_t i = 0; i < symbolCount; ++i) {
        const size_t record = symbolTable + i * kSymbolSize;
        const int16_t sectionNumber = Field<int16_t>(file, record + 12, "a symbol");
        const uint8_t storageClass = Field<uint8_t>(file, record + 16, "a symbol");
        const uint8_t auxCount = Field<uint8_t>(file, record + 17, "a symbol");
        if (storageClass == kClassExternal && sectionNumber > 0 &&
            static_cast<size_t>(sectionNumber) <= result.sections.size()) {
            std::string name;
            if (Field<uint32_t>(file, record, "a symbol") == 0) {
                const size_t at = stringTable + Field<uint32_t>(file, record + 4, "a symbol");
                Field<char>(file, at, "a symbol name");
                const char* text = reinterpret_cast<const char*>(file.data() + at);
                name.assign(text, strnlen(text, file.size() - at));
            } else {
                name = FixedName(file, record);
            }
            const uint32_t value = Field<uint32_t>(file, record + 8, "a symbol");
            result.rvas.emplace(std::move(name), result.sections[sectionNumber - 1].rva + value);
        }
        i += auxCount;
    }
    return result;
}

std::string PortableName(std::string_view symbol, bool longIs32Bits) {
    if (!symbol.starts_with("_Z")) {
        return std::string(symbol);
    }
    int status = 0;
    char* demangled = abi::__cxa_demangle(std::string(symbol).c_str(), nullptr, nullptr, &status);
    if (status != 0 || demangled == nullptr) {
        std::free(demangled);
        return std::string(symbol);
    }
    std::string name = demangled;
    std::free(demangled);
    // Order matters: the two-word spellings go first.
    static const std::regex unsignedLong(R"(\bunsigned long\b(?! long))");
    static const std::regex plainLong(R"(\blong\b(?! long|\s+double))");
    static const std::regex longLong(R"(\blong long\b)");
    name = std::regex_replace(name, longLong, "LONGLONG");
    name =
        std::regex_replace(name, unsignedLong, longIs32Bits ? "unsigned int" : "unsigned LONGLONG");
    name = std::regex_replace(name, plainLong, longIs32Bits ? "int" : "LONGLONG");
    name = std::regex_replace(name, std::regex("LONGLONG"), "long long");
    name = std::regex_replace(name, std::regex(R"(\bchar16_t\b)"), "wchar_t");
    // This host spells the Windows convention of a routine pointer into its
    // type; on Windows it is the only convention there is.
    name = std::regex_replace(name, std::regex(R"( ms_abi\b)"), "");
    return name;
}

}  // namespace winsim::loader
