// A small x64 driver image built byte by byte for the loader's tests.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

namespace ornixtest {

using Bytes = std::vector<uint8_t>;

constexpr uint64_t kPreferredBase = 0x140000000;

// headers | .text (ret) | .data (a pointer to .text, its relocation) |
// .idata (ntoskrnl.exe: DbgPrint, IoFreeIrp)
class ImageBuilder {
  public:
    ImageBuilder() : bytes_(0x800, 0) {
        Put16(0, 0x5A4D);
        Put32(0x3C, 0x40);
        Put32(0x40, 0x00004550);
        Put16(0x44, 0x8664);  // x64
        Put16(0x46, 3);       // sections
        Put16(0x54, 240);     // optional header size
        const size_t opt = 0x58;
        Put16(opt, 0x20B);
        Put32(opt + 16, 0x1000);  // entry point
        Put64(opt + 24, kPreferredBase);
        Put32(opt + 32, 0x1000);           // section alignment
        Put32(opt + 36, 0x200);            // file alignment
        Put32(opt + 56, 0x4000);           // image size
        Put32(opt + 60, 0x200);            // headers size
        Put32(opt + 108, 16);              // data directories
        Put32(opt + 112 + 8 * 1, 0x3000);  // imports
        Put32(opt + 112 + 8 * 1 + 4, 40);
        Put32(opt + 112 + 8 * 5, 0x2100);  // base relocations
        Put32(opt + 112 + 8 * 5 + 4, 12);
        Section(0, ".text", 0x1000, 0x200, 0x60000020);
        Section(1, ".data", 0x2000, 0x400, 0xC0000040);
        Section(2, ".idata", 0x3000, 0x600, 0xC0000040);
        bytes_[0x200] = 0xC3;                   // ret
        Put64(0x400, kPreferredBase + 0x1000);  // a pointer to .text
        Put32(0x500, 0x2000);                   // relocation block: page, size,
        Put32(0x504, 12);                       // one DIR64 and padding
        Put16(0x508, 0xA000);
        // Import descriptor, then an empty one; lookup table at 0x3040,
        // address table at 0x3060, names from 0x3080.
        Put32(0x600, 0x3040);
        Put32(0x600 + 12, 0x30B0);
        Put32(0x600 + 16, 0x3060);
        for (size_t table : {0x640, 0x660}) {
            Put64(table, 0x3080);
            Put64(table + 8, 0x3090);
        }
        std::memcpy(&bytes_[0x682], "DbgPrint", 8);
        std::memcpy(&bytes_[0x692], "IoFreeIrp", 9);
        std::memcpy(&bytes_[0x6B0], "ntoskrnl.exe", 12);
    }
    void Put16(size_t at, uint16_t v) { std::memcpy(&bytes_[at], &v, 2); }
    void Put32(size_t at, uint32_t v) { std::memcpy(&bytes_[at], &v, 4); }
    void Put64(size_t at, uint64_t v) { std::memcpy(&bytes_[at], &v, 8); }
    Bytes& Bytes_() { return bytes_; }
    // Appends a COFF symbol table with one external symbol at the start of .text.
    void AddTextSymbol(const char* name) {
        const size_t table = bytes_.size();
        bytes_.resize(table + 18 + 4, 0);
        std::memcpy(&bytes_[table], name, std::strlen(name));  // up to 8 characters
        Put16(table + 12, 1);                                  // section .text
        bytes_[table + 16] = 2;                                // external
        Put32(table + 18, 4);                                  // empty string table
        Put32(0x44 + 8, static_cast<uint32_t>(table));
        Put32(0x44 + 12, 1);
    }

  private:
    void Section(int index, const char* name, uint32_t rva, uint32_t raw, uint32_t flags) {
        const size_t at = 0x58 + 240 + 40 * size_t(index);
        std::memcpy(&bytes_[at], name, std::strlen(name));
        Put32(at + 8, 0x200);
        Put32(at + 12, rva);
        Put32(at + 16, 0x200);
        Put32(at + 20, raw);
        Put32(at + 36, flags);
    }
    Bytes bytes_;
};

}  // namespace ornixtest
