// Pool allocations: every block is tracked with its tag, size and pool type;
// failure rules make chosen attempts return NULL. With guard pages on, blocks
// come from kernel/guarded_pool.h instead of the host's heap.
#include "kernel/pool.h"

#include "kernel/describe.h"
#include "kernel/guarded_pool.h"
#include "kernel/kernel.h"
#include "kernel/recently_freed.h"

#include <cstring>
#include <mutex>
#include <new>
#include <set>
#include <unordered_map>

namespace winsim::kernel {
namespace {

constexpr std::align_val_t kPoolAlignment{16};
// Fresh pool is not zeroed on Windows either: a driver that relies on it
// shows up at once.
constexpr unsigned char kFreshPoolFill = 0xA5;

struct Block {
    ULONG tag;
    SIZE_T size;
    POOL_TYPE type;
    bool guarded;  // a block stays what it was when the switch changes
};

struct PoolState {
    std::mutex mutex;
    std::unordered_map<void*, Block> blocks;
    RecentlyFreed freed;
    std::vector<void*> forgotten;  // outstanding at a reset; kept, never freed
    uint64_t attempts = 0;
    std::set<uint64_t> failingAttempts;
    std::set<SIZE_T> failingSizes;
    std::set<ULONG> failingTags;
};

PoolState& State() {
    static auto* state = new PoolState;
    return *state;
}

bool IsPaged(POOL_TYPE type) {
    return (type & 1) != 0;
}

void CheckIrql(POOL_TYPE type, std::string_view api, const void* block) {
    KIRQL irql = KeGetCurrentIrql();
    std::string what = std::string(api) + (block ? " of " + Hex(block) : std::string());
    if (IsPaged(type) && irql > APC_LEVEL) {
        ReportViolation("IRQL", what + " in paged pool at " + IrqlName(irql) +
                                    "; paged pool needs APC_LEVEL or below");
    } else if (irql > DISPATCH_LEVEL) {
        ReportViolation("IRQL",
                        what + " at " + IrqlName(irql) + "; pool needs DISPATCH_LEVEL or below");
    }
}

}  // namespace

bool AllocationMustFail(SIZE_T size, ULONG tag) {
    PoolState& state = State();
    std::lock_guard lock(state.mutex);
    uint64_t attempt = ++state.attempts;
    bool fail = state.failingAttempts.erase(attempt) != 0;
    fail |= state.failingSizes.count(size) != 0;
    fail |= state.failingTags.count(tag) != 0;
    return fail;
}

PVOID AllocatePoolBlock(POOL_TYPE type, SIZE_T size, ULONG tag, std::string_view api) {
    CheckIrql(type, api, nullptr);
    if (AllocationMustFail(size, tag))
        return nullptr;
    bool guarded = PoolGuardPages();
    void* block = guarded ? MapGuardedBlock(size)
                          : ::operator new(size == 0 ? 1 : size, kPoolAlignment, std::nothrow);
    if (block == nullptr)
        return nullptr;
    std::memset(block, kFreshPoolFill, size);
    PoolState& state = State();
    std::lock_guard lock(state.mutex);
    state.blocks[block] = Block{tag, size, type, guarded};
    state.freed.Remove(block);
    return block;
}

void FreePoolBlock(PVOID block, std::optional<ULONG> tag, std::string_view api) {
    PoolState& state = State();
    std::string check = "BAD_POOL_FREE";
    std::string problem;
    std::optional<Block> freed;
    {
        std::lock_guard lock(state.mutex);
        auto it = state.blocks.find(block);
        if (it == state.blocks.end()) {
            if (block == nullptr) {
                problem = std::string(api) + " of a NULL pointer";
            } else if (state.freed.Contains(block)) {
                check = "DOUBLE_FREE";
                problem =
                    std::string(api) + " of pool block " + Hex(block) + ", which was already freed";
            } else {
                problem =
                    std::string(api) + " of " + Hex(block) + ", which is no allocated pool block";
            }
        } else if (tag && *tag != it->second.tag) {
            problem = std::string(api) + " of pool block " + Hex(block) + " with tag '" +
                      TagName(*tag) + "', but it was allocated with tag '" +
                      TagName(it->second.tag) + "'";
        } else {
            freed = it->second;
            state.blocks.erase(it);
            state.freed.Add(block);
        }
    }
    if (!freed) {
        ReportViolation(check, problem);  // the block stays as it is
        return;
    }
    CheckIrql(freed->type, api, block);
    if (!freed->guarded) {
        ::operator delete(block, kPoolAlignment);
        return;
    }
    std::string damage = GuardedSlackDamage(block, freed->size);
    if (!damage.empty()) {
        ReportViolation("POOL_CORRUPTION", std::string(api) + " of pool block " + Hex(block) +
                                               " (tag '" + TagName(freed->tag) + "', " +
                                               std::to_string(freed->size) + " bytes): " + damage);
    }
    QuarantineGuardedBlock(block, freed->size);
}

bool ReportPoolLeaks(std::string_view when) {
    std::map<ULONG, PoolUsage> usage = OutstandingPool();
    for (const auto& [tag, used] : usage) {
        ReportViolation("POOL_LEAK", "pool leak at " + std::string(when) + ": tag '" +
                                         TagName(tag) + "' holds " + std::to_string(used.blocks) +
                                         (used.blocks == 1 ? " block (" : " blocks (") +
                                         std::to_string(used.bytes) + " bytes)");
    }
    return usage.empty();
}

void ResetPool() {
    PoolState& state = State();
    std::lock_guard lock(state.mutex);
    for (auto& [block, info] : state.blocks)
        state.forgotten.push_back(block);
    state.blocks.clear();
    state.freed.Clear();
    state.attempts = 0;
    state.failingAttempts.clear();
    state.failingSizes.clear();
    state.failingTags.clear();
}

}  // namespace winsim::kernel

namespace winsim {

std::map<ULONG, PoolUsage> OutstandingPool() {
    kernel::PoolState& state = kernel::State();
    std::lock_guard lock(state.mutex);
    std::map<ULONG, PoolUsage> usage;
    for (const auto& [block, info] : state.blocks) {
        usage[info.tag].blocks++;
        usage[info.tag].bytes += info.size;
    }
    return usage;
}

uint64_t AllocationAttempts() {
    kernel::PoolState& state = kernel::State();
    std::lock_guard lock(state.mutex);
    return state.attempts;
}

void FailNthAllocation(uint64_t n) {
    kernel::PoolState& state = kernel::State();
    std::lock_guard lock(state.mutex);
    state.failingAttempts.insert(state.attempts + n);
}

void FailAllocationsOfSize(SIZE_T size) {
    kernel::PoolState& state = kernel::State();
    std::lock_guard lock(state.mutex);
    state.failingSizes.insert(size);
}

void FailAllocationsWithTag(ULONG tag) {
    kernel::PoolState& state = kernel::State();
    std::lock_guard lock(state.mutex);
    state.failingTags.insert(tag);
}

void ClearAllocationFailures() {
    kernel::PoolState& state = kernel::State();
    std::lock_guard lock(state.mutex);
    state.failingAttempts.clear();
    state.failingSizes.clear();
    state.failingTags.clear();
}

std::string TagName(ULONG tag) {
    std::string name;
    for (int i = 0; i < 4; ++i) {
        char c = static_cast<char>((tag >> (8 * i)) & 0xFF);
        name += (c >= 0x20 && c < 0x7F) ? c : '?';
    }
    return name;
}

}  // namespace winsim

PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
    return winsim::kernel::AllocatePoolBlock(PoolType, NumberOfBytes, Tag, "ExAllocatePoolWithTag");
}

PVOID NTAPI ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes) {
    return winsim::kernel::AllocatePoolBlock(PoolType, NumberOfBytes, winsim::kernel::kTagNone,
                                             "ExAllocatePool");
}

void NTAPI ExFreePool(PVOID P) {
    winsim::kernel::FreePoolBlock(P, std::nullopt, "ExFreePool");
}

void NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag) {
    winsim::kernel::FreePoolBlock(P, Tag, "ExFreePoolWithTag");
}
