// The routines the platform exports to a loaded driver image, by module and
// name, as ntoskrnl.exe and stream.sys export them on Windows x64.
#pragma once

#include <string_view>

namespace winsim::loader {

// The platform's routine for `name` imported from `module` (compared without
// regard to case, as Windows does), or null when the platform has none.
void* FindKernelExport(std::string_view module, std::string_view name);

}  // namespace winsim::loader
