// Hosts that cannot run an x64 image run the linked driver only.
#include <cstdlib>

#include "loader/driver_choice.h"
#include "loader/pe_image.h"

namespace winsim::loader {

namespace {
std::string chosen;
}

void SelectDriverImage(std::string path) {
    chosen = std::move(path);
}

PDRIVER_INITIALIZE DriverUnderTest(PDRIVER_INITIALIZE linked) {
    const char* fromEnvironment = std::getenv("ORNIX_DRIVER");
    if (!chosen.empty() || (fromEnvironment != nullptr && *fromEnvironment != '\0')) {
        throw LoadError(
            "this build runs only the driver linked into it: driver binaries load "
            "in 64-bit x86 builds");
    }
    return linked;
}

}  // namespace winsim::loader
