// Binds the stand-ins of a test binary run against a driver binary (see
// scripts/make-image-stubs.py): before any test runs, each routine's slot
// gets the binary's routine and each object its contents.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unordered_map>

#include "loader/driver_image.h"

struct OrnixImageStub {
    const char* name;
    void* target;         // a routine's slot, or an object's storage
    size_t size;          // 0 for a routine
    const void* standIn;  // the routine's stand-in, or the object's copy
};

extern "C" const OrnixImageStub ornix_image_stubs[];
extern "C" const size_t ornix_image_stub_count;

extern "C" [[noreturn]] void ornix_stub_unbound() {
    std::fputs("image stubs: a driver routine was called before the binary was bound\n", stderr);
    std::abort();
}

namespace {

// Each stand-in's original in the binary (filled before static
// initialisation reaches this file, hence on first use).
std::unordered_map<const void*, void*>& Originals() {
    static std::unordered_map<const void*, void*> originals;
    return originals;
}

[[noreturn]] void Fail(const std::string& why) {
    std::fprintf(stderr, "image stubs: %s\n", why.c_str());
    std::exit(2);
}

void Bind() {
    winsim::loader::DriverImage* image = nullptr;
    try {
        image = winsim::loader::ChosenDriverImage();
    } catch (const std::exception& e) {
        Fail(std::string("cannot load the driver binary: ") + e.what());
    }
    if (image == nullptr) {
        Fail("this test binary runs a driver binary: set ORNIX_DRIVER to its path");
    }
    if (!image->HasSymbols()) {
        Fail(image->Path() + " has no unstripped twin to take its symbols from");
    }
    std::string missing;
    for (size_t i = 0; i < ornix_image_stub_count; ++i) {
        const OrnixImageStub& stub = ornix_image_stubs[i];
        void* address = image->Symbol(stub.name);
        if (address == nullptr) {
            missing += std::string(" ") + stub.name;
        } else if ((Originals()[stub.standIn] = address), stub.size == 0) {
            *static_cast<void**>(stub.target) = address;
        } else {
            std::memcpy(stub.target, address, stub.size);
        }
    }
    if (!missing.empty()) {
        Fail("the binary lacks these symbols of the linked driver:" + missing);
    }
}

// Before main: test tables may copy driver objects during their own
// initialisation, so this binding runs first (init_priority).
struct Binding {
    Binding() { Bind(); }
};
__attribute__((init_priority(101))) Binding binding;

}  // namespace

// The binary's routine or object for a stand-in's address (see
// DriverAddress in driver_harness.h).
extern "C" const void* ornix_image_address_of(const void* linked) {
    const auto found = Originals().find(linked);
    return found == Originals().end() ? linked : found->second;
}
