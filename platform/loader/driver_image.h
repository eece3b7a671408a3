// A driver binary (the mingw-built x64 ornix.sys) hosted in this process:
// mapped, bound to the platform's exports, its privileged instructions
// emulated. From DriverEntry on, the stream class cannot tell it from the
// driver linked into the program.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <ntddk.h>

#include "loader/driver_choice.h"
#include "loader/pe_image.h"

namespace winsim::loader {

class DriverImage {
  public:
    // Loads the image at `path`. Its symbols come from the unstripped twin
    // next to it (NAME.unstripped.sys for NAME.sys) when there is one, which
    // must hold the same sections byte for byte. Throws LoadError.
    static std::unique_ptr<DriverImage> Load(const std::string& path);
    ~DriverImage();
    DriverImage(const DriverImage&) = delete;
    DriverImage& operator=(const DriverImage&) = delete;

    PDRIVER_INITIALIZE Entry() const;
    const std::string& Path() const { return path_; }
    const PeImage& Image() const { return *image_; }
    bool HasSymbols() const { return !symbols_.empty(); }
    // The image's routine or object that this host's build of the driver
    // calls `hostSymbol` (its mangled name here), or null.
    void* Symbol(std::string_view hostSymbol) const;

  private:
    DriverImage() = default;
    void ReadSymbols(const std::string& twinPath, const std::vector<uint8_t>& file);

    std::string path_;
    std::unique_ptr<PeImage> image_;
    std::unordered_map<std::string, uint32_t> symbols_;  // portable name to RVA
};

// The binary chosen for this process, loaded on first use; null when none
// is chosen (see driver_choice.h). Throws LoadError.
DriverImage* ChosenDriverImage();

}  // namespace winsim::loader
