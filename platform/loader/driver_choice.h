// Which driver a program runs: the one linked into it (the Linux build) or a
// driver binary. A program names a binary with SelectDriverImage (ornixctl
// --driver) or the environment variable ORNIX_DRIVER. A binary is loaded
// once per process, on first use, as Windows loads a driver once for all its
// devices, and stays loaded until the process ends.
#pragma once

#include <string>

#include <ntddk.h>

namespace winsim::loader {

void SelectDriverImage(std::string path);
// The entry to call: the chosen binary's, or `linked` when none is chosen.
// Throws LoadError (pe_image.h) when the binary cannot be loaded, and on
// hosts that cannot run x64 code at all.
PDRIVER_INITIALIZE DriverUnderTest(PDRIVER_INITIALIZE linked);

}  // namespace winsim::loader
