// Pool blocks on pages of their own, as in Driver Verifier's special pool: a
// block ends where an inaccessible page begins and has another one before its
// first page, so code that is not instrumented (the driver's Windows binary)
// faults on the instruction that steps outside it.
#pragma once

#include <wdm.h>

#include <string>

namespace winsim::kernel {

// What Windows' pool guarantees for a block's address: 16 bytes on 64-bit
// hosts, 8 on 32-bit ones. A block's end is rounded up to it, no further.
constexpr SIZE_T kGuardedAlignment = 2 * sizeof(void*);

// A block of `size` bytes on fresh pages; NULL when no mapping can be had.
// The bytes of its pages outside the block hold a pattern.
void* MapGuardedBlock(SIZE_T size);

// How the block's owner wrote outside it on its own pages (the pattern
// changed), e.g. "written up to 3 bytes past its end"; empty when untouched.
std::string GuardedSlackDamage(const void* block, SIZE_T size);

// Makes the block's pages inaccessible and gives their memory back. The
// address range stays reserved until later frees push it out of a bounded
// quarantine, so a use after free faults too.
void QuarantineGuardedBlock(void* block, SIZE_T size);

}  // namespace winsim::kernel
