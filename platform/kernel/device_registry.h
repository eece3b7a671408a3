// Registry internals used by device objects and the machine's checks.
#pragma once

#include <wdm.h>

#include <string_view>

namespace winsim::kernel {

// HANDLE_LEAK for keys opened and never closed; true when none is open.
bool ReportHandleLeaks(std::string_view when);

void ResetRegistry();

}  // namespace winsim::kernel
