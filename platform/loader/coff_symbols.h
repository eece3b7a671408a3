// The symbol table of an unstripped image (COFF symbols, as GNU ld leaves
// them in a PE file), read to find a driver routine or object by name.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace winsim::loader {

struct FileSection {
    std::string name;
    uint32_t rva = 0;
    uint32_t virtualSize = 0;
    std::span<const uint8_t> raw;  // its bytes in the file
};

struct CoffSymbols {
    std::vector<FileSection> sections;
    // External symbols by their name in the image, as relative addresses.
    std::unordered_map<std::string, uint32_t> rvas;
};

// Reads the section table and the external symbols of `file`; throws
// LoadError when the file is damaged (a stripped image reads as no symbols).
CoffSymbols ReadCoffSymbols(std::span<const uint8_t> file);

// A C++ name in the form both builds of the driver agree on: demangled, with
// `long` spelled by its width (`int` where it is 32 bits, as on Windows;
// `long long` where it is 64, as on this host) and WCHAR's character type
// spelled one way. C names come back unchanged.
std::string PortableName(std::string_view symbol, bool longIs32Bits);

}  // namespace winsim::loader
