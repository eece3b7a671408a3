// A Windows x64 driver image (PE32+) mapped into this process the way the
// kernel's loader maps it: headers and sections at their virtual addresses,
// base relocations applied for where the image landed, every import bound
// by module and name, and each section given its own protection.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace winsim::loader {

// A file that is not a loadable x64 image, or an import nobody provides;
// the message names what is wrong and where.
class LoadError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct ImageSection {
    std::string name;
    uint32_t rva = 0;
    uint32_t virtualSize = 0;
    uint32_t characteristics = 0;  // IMAGE_SCN_MEM_*
};

struct ImageImport {
    std::string module;
    std::string name;
    uint32_t slotRva = 0;  // its entry in the import address table
};

class PeImage {
  public:
    // Maps `file` at an address of its own choosing (never the preferred
    // base, so the relocations are always exercised). Throws LoadError.
    static std::unique_ptr<PeImage> Map(std::span<const uint8_t> file);
    ~PeImage();
    PeImage(const PeImage&) = delete;
    PeImage& operator=(const PeImage&) = delete;

    uint8_t* Base() const { return base_; }
    size_t Size() const { return size_; }
    uint64_t PreferredBase() const { return preferredBase_; }
    void* EntryPoint() const { return base_ + entryRva_; }
    const std::vector<ImageSection>& Sections() const { return sections_; }
    const std::vector<ImageImport>& Imports() const { return imports_; }

    // Writes into each import's slot what `resolve` gives for it; an import
    // for which it gives null fails the load naming every such import.
    using Resolver = std::function<void*(std::string_view module, std::string_view name)>;
    void BindImports(const Resolver& resolve);
    // Gives every section its protection (headers read-only); after this the
    // import table is as read-only as its section says.
    void Protect();

  private:
    PeImage() = default;
    void MapSections(std::span<const uint8_t> file, uint32_t headersSize, size_t sectionTable,
                     unsigned sectionCount);
    void Relocate(uint32_t rva, uint32_t size);
    void ReadImports(uint32_t rva, uint32_t size);
    // `count` bytes at `rva`, inside the image, or a LoadError naming `what`.
    uint8_t* At(uint32_t rva, size_t count, const char* what) const;
    std::string StringAt(uint32_t rva, const char* what) const;

    uint8_t* base_ = nullptr;
    size_t size_ = 0;  // mapped, whole pages
    uint64_t preferredBase_ = 0;
    uint32_t entryRva_ = 0;
    uint32_t headersSize_ = 0;
    std::vector<ImageSection> sections_;
    std::vector<ImageImport> imports_;
};

}  // namespace winsim::loader
