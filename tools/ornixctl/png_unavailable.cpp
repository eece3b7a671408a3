// The PNG writer of builds without libpng.
#include "ornixctl/png_writer.h"

namespace ornixctl {

bool PngAvailable() {
    return false;
}

std::string WritePng(const std::string&, const Image&) {
    return "this build of ornixctl has no PNG support (libpng was not found); use --raw";
}

}  // namespace ornixctl
