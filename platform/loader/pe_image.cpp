#include "loader/pe_image.h"
#include "loader/pe_fields.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace winsim::loader {
namespace {

constexpr uint16_t kMachineAmd64 = 0x8664;
constexpr uint16_t kMagicPe32Plus = 0x20B;
constexpr unsigned kDirectoryImport = 1;
constexpr unsigned kDirectoryBaseReloc = 5;
constexpr uint16_t kRelocAbsolute = 0;
constexpr uint16_t kRelocDir64 = 10;
constexpr uint32_t kScnExecute = 0x20000000;
constexpr uint32_t kScnRead = 0x40000000;
constexpr uint32_t kScnWrite = 0x80000000;
constexpr uint64_t kImportByOrdinal = uint64_t{1} << 63;

size_t PageSize() {
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

size_t RoundUp(size_t value, size_t to) {
    return (value + to - 1) / to * to;
}

}  // namespace

std::unique_ptr<PeImage> PeImage::Map(std::span<const uint8_t> file) {
    if (Field<uint16_t>(file, 0, "the DOS header") != 0x5A4D) {
        throw LoadError("not an image: no MZ signature");
    }
    const size_t pe = Field<uint32_t>(file, 0x3C, "the DOS header");
    if (Field<uint32_t>(file, pe, "the PE signature") != 0x00004550) {
        throw LoadError("not an image: no PE signature");
    }
    const size_t coff = pe + 4;
    if (Field<uint16_t>(file, coff, "the file header") != kMachineAmd64) {
        throw LoadError("not an x64 image");
    }
    const unsigned sectionCount = Field<uint16_t>(file, coff + 2, "the file header");
    const size_t optionalSize = Field<uint16_t>(file, coff + 16, "the file header");
    const size_t optional = coff + 20;
    if (Field<uint16_t>(file, optional, "the optional header") != kMagicPe32Plus) {
        throw LoadError("not a PE32+ image");
    }
    if (optionalSize < 112) {
        throw LoadError("the optional header is too short");
    }

    auto image = std::unique_ptr<PeImage>(new PeImage);
    image->entryRva_ = Field<uint32_t>(file, optional + 16, "the optional header");
    image->preferredBase_ = Field<uint64_t>(file, optional + 24, "the optional header");
    const uint32_t imageSize = Field<uint32_t>(file, optional + 56, "the optional header");
    const uint32_t headersSize = Field<uint32_t>(file, optional + 60, "the optional header");
    const uint32_t directoryCount = Field<uint32_t>(file, optional + 108, "the optional header");
    if (imageSize == 0 || headersSize > imageSize || headersSize > file.size()) {
        throw LoadError("the image and header sizes do not fit");
    }
    auto directory = [&](unsigned index) -> std::pair<uint32_t, uint32_t> {
        if (index >= directoryCount || 112 + 8 * size_t{index} + 8 > optionalSize) {
            return {0, 0};
        }
        const size_t at = optional + 112 + 8 * size_t{index};
        return {Field<uint32_t>(file, at, "a data directory"),
                Field<uint32_t>(file, at + 4, "a data directory")};
    };

    image->size_ = RoundUp(imageSize, PageSize());
    void* mapped =
        mmap(nullptr, image->size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) {
        throw LoadError("cannot map " + std::to_string(imageSize) + " bytes");
    }
    image->base_ = static_cast<uint8_t*>(mapped);
    if (reinterpret_cast<uint64_t>(image->base_) == image->preferredBase_) {
        // Landing at the preferred base would leave the relocations untried.
        throw LoadError("mapped at the preferred base");
    }
    image->MapSections(file, headersSize, optional + optionalSize, sectionCount);
    if (image->entryRva_ != 0) {
        image->At(image->entryRva_, 1, "the entry point");
    }
    const auto [relocRva, relocSize] = directory(kDirectoryBaseReloc);
    image->Relocate(relocRva, relocSize);
    const auto [importRva, importSize] = directory(kDirectoryImport);
    image->ReadImports(importRva, importSize);
    return image;
}

PeImage::~PeImage() {
    if (base_ != nullptr) {
        munmap(base_, size_);
    }
}

uint8_t* PeImage::At(uint32_t rva, size_t count, const char* what) const {
    if (rva > size_ || size_ - rva < count) {
        throw LoadError(std::string(what) + " lies outside the image");
    }
    return base_ + rva;
}

std::string PeImage::StringAt(uint32_t rva, const char* what) const {
    const uint8_t* start = At(rva, 1, what);
    const auto* end = static_cast<const uint8_t*>(std::memchr(start, 0, size_ - rva));
    if (end == nullptr) {
        throw LoadError(std::string(what) + " has no end inside the image");
    }
    return std::string(reinterpret_cast<const char*>(start), static_cast<size_t>(end - start));
}

void PeImage::MapSections(std::span<const uint8_t> file, uint32_t headersSize, size_t sectionTable,
                          unsigned sectionCount) {
    headersSize_ = headersSize;
    std::memcpy(base_, file.data(), headersSize);
    for (unsigned i = 0; i < sectionCount; ++i) {
        const size_t at = sectionTable + 40 * size_t{i};
        ImageSection section;
        char name[9] = {};
        for (size_t c = 0; c < 8; ++c) {
            name[c] = static_cast<char>(Field<uint8_t>(file, at + c, "the section table"));
        }
        section.name = name;
        section.virtualSize = Field<uint32_t>(file, at + 8, "the section table");
        section.rva = Field<uint32_t>(file, at + 12, "the section table");
        const uint32_t rawSize = Field<uint32_t>(file, at + 16, "the section table");
        const uint32_t rawOffset = Field<uint32_t>(file, at + 20, "the section table");
        section.characteristics = Field<uint32_t>(file, at + 36, "the section table");
        if (section.virtualSize == 0) {
            section.virtualSize = rawSize;
        }
        const std::string what = "section " + section.name;
        At(section.rva, section.virtualSize, what.c_str());
        const uint32_t copied = std::min(rawSize, section.virtualSize);
        if (copied != 0) {
            if (rawOffset > file.size() || file.size() - rawOffset < copied) {
                throw LoadError("the data of section " + section.name +
                                " lies past the end of the file");
            }
            std::memcpy(base_ + section.rva, file.data() + rawOffset, copied);
        }
        sections_.push_back(std::move(section));
    }
}

void PeImage::Relocate(uint32_t rva, uint32_t size) {
    const uint64_t delta = reinterpret_cast<uint64_t>(base_) - preferredBase_;
    const uint8_t* table = At(rva, size, "the relocation table");
    for (uint32_t offset = 0; offset + 8 <= size;) {
        uint32_t page, blockSize;
        std::memcpy(&page, table + offset, 4);
        std::memcpy(&blockSize, table + offset + 4, 4);
        if (blockSize < 8 || blockSize > size - offset) {
            throw LoadError("a relocation block has a bad size");
        }
        for (uint32_t entry = 8; entry + 2 <= blockSize; entry += 2) {
            uint16_t word;
            std::memcpy(&word, table + offset + entry, 2);
            const uint16_t type = word >> 12;
            if (type == kRelocAbsolute) {
                continue;
            }
            if (type != kRelocDir64) {
                throw LoadError("relocation type " + std::to_string(type) + " is not supported");
            }
            uint8_t* target = At(page + (word & 0xFFF), 8, "a relocation target");
            uint64_t value;
            std::memcpy(&value, target, 8);
            value += delta;
            std::memcpy(target, &value, 8);
        }
        offset += blockSize;
    }
}

void PeImage::ReadImports(uint32_t rva, uint32_t size) {
    if (size == 0) {
        return;
    }
    for (uint32_t descriptor = rva;; descriptor += 20) {
        const uint8_t* d = At(descriptor, 20, "the import directory");
        uint32_t lookup, nameRva, slots;
        std::memcpy(&lookup, d, 4);
        std::memcpy(&nameRva, d + 12, 4);
        std::memcpy(&slots, d + 16, 4);
        if (nameRva == 0 && slots == 0) {
            break;
        }
        const std::string module = StringAt(nameRva, "an import's module name");
        const uint32_t names = lookup != 0 ? lookup : slots;
        for (uint32_t i = 0;; ++i) {
            uint64_t thunk;
            std::memcpy(&thunk, At(names + 8 * i, 8, "an import lookup table"), 8);
            if (thunk == 0) {
                break;
            }
            if (thunk & kImportByOrdinal) {
                throw LoadError("an import of " + module + " is by ordinal");
            }
            ImageImport import{module,
                               StringAt(static_cast<uint32_t>(thunk) + 2, "an import's name"),
                               slots + 8 * i};
            At(import.slotRva, 8, "an import address table");
            imports_.push_back(std::move(import));
        }
    }
}

void PeImage::BindImports(const Resolver& resolve) {
    std::string missing;
    for (const ImageImport& import : imports_) {
        void* address = resolve(import.module, import.name);
        if (address == nullptr) {
            missing += (missing.empty() ? "" : ", ") + import.module + "!" + import.name;
            continue;
        }
        std::memcpy(base_ + import.slotRva, &address, sizeof address);
    }
    if (!missing.empty()) {
        throw LoadError("imports the platform does not provide: " + missing);
    }
}

void PeImage::Protect() {
    const size_t page = PageSize();
    mprotect(base_, RoundUp(headersSize_, page), PROT_READ);
    for (const ImageSection& section : sections_) {
        // Sections start on page boundaries in images aligned as drivers
        // are (0x1000); a shared page keeps the protection set last.
        const size_t start = section.rva / page * page;
        const size_t end = RoundUp(size_t{section.rva} + section.virtualSize, page);
        int protection = 0;
        protection |= (section.characteristics & kScnRead) ? PROT_READ : 0;
        protection |= (section.characteristics & kScnWrite) ? PROT_WRITE : 0;
        protection |= (section.characteristics & kScnExecute) ? PROT_EXEC : 0;
        if (end > start && mprotect(base_ + start, end - start, protection) != 0) {
            throw LoadError("cannot protect section " + section.name);
        }
    }
}

}  // namespace winsim::loader
