#include "loader/driver_image.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>

#include "kernel/kernel.h"
#include "loader/coff_symbols.h"
#include "loader/kernel_exports.h"
#include "loader/privileged_instructions.h"

namespace winsim::loader {

namespace {

std::vector<uint8_t> ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw LoadError("cannot read " + path);
    }
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string TwinPath(const std::string& path) {
    const std::string suffix = ".sys";
    if (path.size() > suffix.size() && path.ends_with(suffix)) {
        return path.substr(0, path.size() - suffix.size()) + ".unstripped.sys";
    }
    return path + ".unstripped";
}

// The twin must be the image with symbols added: every section the image
// loads, at the same address with the same bytes.
void CheckTwin(const std::string& twinPath, const CoffSymbols& twin,
               const std::vector<uint8_t>& imageFile) {
    const CoffSymbols image = ReadCoffSymbols(imageFile);
    for (const FileSection& section : image.sections) {
        bool matched = false;
        for (const FileSection& other : twin.sections) {
            if (other.name == section.name) {
                matched = other.rva == section.rva && other.virtualSize == section.virtualSize &&
                          std::equal(section.raw.begin(), section.raw.end(), other.raw.begin(),
                                     other.raw.end());
                break;
            }
        }
        if (!matched) {
            throw LoadError(twinPath + " is not the unstripped twin of the image: section " +
                            section.name + " differs");
        }
    }
}

std::mutex choiceMutex;
std::string chosenPath;
bool choiceRead = false;
std::unique_ptr<DriverImage> chosenImage;

}  // namespace

// Called with every image loaded, for debuggers: scripts/gdb-driver-image.py
// breaks here to load the twin's symbols where the image landed.
extern "C" __attribute__((noinline, used)) void ornix_driver_image_loaded(const char* path,
                                                                          const char* twinPath,
                                                                          const void* base,
                                                                          uint64_t preferredBase) {
    asm volatile("" ::"r"(path), "r"(twinPath), "r"(base), "r"(preferredBase) : "memory");
}

std::unique_ptr<DriverImage> DriverImage::Load(const std::string& path) {
    std::unique_ptr<DriverImage> driver(new DriverImage);
    driver->path_ = path;
    const std::vector<uint8_t> file = ReadFile(path);
    driver->image_ = PeImage::Map(file);
    driver->image_->BindImports(FindKernelExport);
    driver->image_->Protect();
    const std::string twin = TwinPath(path);
    if (std::filesystem::exists(twin)) {
        driver->ReadSymbols(twin, file);
    }
    const std::string name = std::filesystem::path(path).filename().string();
    AddEmulatedImage(driver->image_->Base(), driver->image_->Size(), name);
    ornix_driver_image_loaded(path.c_str(), twin.c_str(), driver->image_->Base(),
                              driver->image_->PreferredBase());
    return driver;
}

void DriverImage::ReadSymbols(const std::string& twinPath, const std::vector<uint8_t>& file) {
    const std::vector<uint8_t> twinFile = ReadFile(twinPath);
    const CoffSymbols twin = ReadCoffSymbols(twinFile);
    CheckTwin(twinPath, twin, file);
    for (const auto& [name, rva] : twin.rvas) {
        symbols_.emplace(PortableName(name, true), rva);
    }
}

DriverImage::~DriverImage() {
    if (image_) {
        RemoveEmulatedImage(image_->Base());
    }
}

PDRIVER_INITIALIZE DriverImage::Entry() const {
    return reinterpret_cast<PDRIVER_INITIALIZE>(image_->EntryPoint());
}

void* DriverImage::Symbol(std::string_view hostSymbol) const {
    const auto found = symbols_.find(PortableName(hostSymbol, sizeof(long) == 4));
    return found == symbols_.end() ? nullptr : image_->Base() + found->second;
}

void SelectDriverImage(std::string path) {
    std::lock_guard lock(choiceMutex);
    chosenPath = std::move(path);
    choiceRead = true;
}

DriverImage* ChosenDriverImage() {
    std::lock_guard lock(choiceMutex);
    if (!choiceRead) {
        if (const char* fromEnvironment = std::getenv("ORNIX_DRIVER")) {
            chosenPath = fromEnvironment;
        }
        choiceRead = true;
    }
    if (chosenPath.empty()) {
        return nullptr;
    }
    if (!chosenImage) {
        chosenImage = DriverImage::Load(chosenPath);
        // The sanitizers do not see the binary's own accesses: its pool
        // blocks get guard pages instead, so an overrun faults where it is made.
        SetPoolGuardPages(true);
    }
    return chosenImage.get();
}

PDRIVER_INITIALIZE DriverUnderTest(PDRIVER_INITIALIZE linked) {
    DriverImage* image = ChosenDriverImage();
    return image != nullptr ? image->Entry() : linked;
}

}  // namespace winsim::loader
