// DbgPrint formatting for the kernel's own use.
#pragma once

#include <string>

#include "kernel/win_var_args.h"

namespace winsim::kernel {

// As winsim::FormatDbgPrint; `unicode` receives the first conversion that read
// a 16-bit string or character (e.g. "%ws"), or stays empty.
std::string FormatDbgPrintNotingUnicode(const char* format, WinVarArgs& args, std::string& unicode);

}  // namespace winsim::kernel
