// Instructions a kernel image executes that user mode may not: the loaded
// driver image reads CR8 where KeGetCurrentIrql is inlined, and gs:[0x188]
// where KeGetCurrentThread is. The CPU refuses them here, and a fault handler
// performs them from the platform's per-thread state, so the verifier's IRQL
// model holds inside the image too. Any other fault inside an image is
// reported with its place in the image before the process dies as it would
// have.
#pragma once

#include <cstddef>
#include <string>

namespace winsim::loader {

// Code in [base, base + size) is emulated from now on and its faults are
// reported under `name`. Installs the fault handlers on first use.
void AddEmulatedImage(const void* base, size_t size, const std::string& name);
void RemoveEmulatedImage(const void* base);

// How an instruction at `code` is emulated, for the tests: its length in
// bytes, or 0 when it is not one the platform emulates.
size_t EmulatedInstructionLength(const unsigned char* code);

}  // namespace winsim::loader
