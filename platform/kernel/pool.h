// Pool internals shared with the other allocators of the kernel (MDLs, IRPs).
#pragma once

#include <wdm.h>

#include <optional>
#include <string_view>

namespace winsim::kernel {

constexpr ULONG kTagNone = MAKEFOURCC('N', 'o', 'n', 'e');  // ExAllocatePool
constexpr ULONG kTagIrp = MAKEFOURCC('I', 'r', 'p', ' ');
constexpr ULONG kTagMdl = MAKEFOURCC('M', 'd', 'l', ' ');

// Counts one allocation attempt; true when a failure rule matches it.
bool AllocationMustFail(SIZE_T size, ULONG tag);

// A tracked pool block, after the IRQL checks and the failure rules.
PVOID AllocatePoolBlock(POOL_TYPE type, SIZE_T size, ULONG tag, std::string_view api);

// Frees a tracked block; `tag` is checked when given.
void FreePoolBlock(PVOID block, std::optional<ULONG> tag, std::string_view api);

// POOL_LEAK per tag; true when no block is left.
bool ReportPoolLeaks(std::string_view when);

void ResetPool();

}  // namespace winsim::kernel
