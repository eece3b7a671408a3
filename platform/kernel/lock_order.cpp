#include "kernel/lock_order.h"

#include "kernel/describe.h"
#include "kernel/kernel.h"
#include "kernel/thread_identity.h"
#include "kernel/untraced.h"

#include <algorithm>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

namespace winsim::kernel {
namespace {

struct HeldLock {
    const void* lock;
    uint64_t sequence;  // acquisition order, for semaphore claims
};

// Untraced: the table is the verifier's, not a lock Windows takes.
struct LockOrderState {
    UntracedMutex mutex;
    std::unordered_map<const void*, LockKind> kinds;
    std::unordered_map<const void*, std::string> names;
    std::unordered_map<const void*, std::set<const void*>> acquiredWhileHolding;
    std::set<std::pair<const void*, const void*>> reported;
    std::map<PKTHREAD, std::vector<HeldLock>> held;
    uint64_t nextSequence = 0;
};

LockOrderState& State() {
    static auto* state = new LockOrderState;
    return *state;
}

const char* KindName(LockKind kind) {
    switch (kind) {
        case LockKind::Mutex:
            return "mutex";
        case LockKind::Semaphore:
            return "semaphore";
        case LockKind::SpinLock:
            return "spin lock";
    }
    return "lock";
}

std::string Label(const LockOrderState& state, const void* lock) {
    auto kind = state.kinds.find(lock);
    std::string label = kind == state.kinds.end() ? "lock" : KindName(kind->second);
    label += " " + Hex(lock);
    if (auto name = state.names.find(lock); name != state.names.end()) {
        label += " (" + name->second + ")";
    }
    return label;
}

// The chain of recorded edges from `from` to `to`, both included; empty when
// there is none.
std::vector<const void*> FindPath(const LockOrderState& state, const void* from, const void* to) {
    std::unordered_map<const void*, const void*> cameFrom{{from, nullptr}};
    std::deque<const void*> frontier{from};
    while (!frontier.empty()) {
        const void* lock = frontier.front();
        frontier.pop_front();
        if (lock == to) {
            std::vector<const void*> path;
            for (const void* step = to; step != nullptr; step = cameFrom[step])
                path.push_back(step);
            std::reverse(path.begin(), path.end());
            return path;
        }
        auto edges = state.acquiredWhileHolding.find(lock);
        if (edges == state.acquiredWhileHolding.end())
            continue;
        for (const void* next : edges->second) {
            if (cameFrom.emplace(next, lock).second)
                frontier.push_back(next);
        }
    }
    return {};
}

bool Holds(const std::vector<HeldLock>& held, const void* lock) {
    return std::any_of(held.begin(), held.end(), [&](const HeldLock& h) { return h.lock == lock; });
}

void EraseLast(std::vector<HeldLock>& held, const void* lock) {
    for (auto it = held.rbegin(); it != held.rend(); ++it) {
        if (it->lock == lock) {
            held.erase(std::next(it).base());
            return;
        }
    }
}

}  // namespace

void NoteAcquiring(const void* lock, LockKind kind) {
    LockOrderState& state = State();
    PKTHREAD self = KeGetCurrentThread();
    std::vector<std::string> inversions;
    {
        std::lock_guard guard(state.mutex);
        state.kinds[lock] = kind;
        const std::vector<HeldLock>& mine = state.held[self];
        if (Holds(mine, lock))
            return;  // recursive acquisition of an owned mutex
        for (const HeldLock& holding : mine) {
            std::vector<const void*> path = FindPath(state, lock, holding.lock);
            if (path.empty()) {
                state.acquiredWhileHolding[holding.lock].insert(lock);
                continue;
            }
            if (!state.reported.emplace(holding.lock, lock).second)
                continue;
            std::string chain;
            for (const void* step : path)
                chain += (chain.empty() ? "" : " -> ") + Label(state, step);
            inversions.push_back("lock order inversion: " + CurrentThreadName() + " acquires " +
                                 Label(state, lock) + " while holding " +
                                 Label(state, holding.lock) +
                                 ", but the opposite order was taken before: " + chain);
        }
    }
    for (std::string& message : inversions)
        ReportViolation("LOCK_ORDER", std::move(message));
}

void NoteAcquired(const void* lock, LockKind kind) {
    LockOrderState& state = State();
    PKTHREAD self = KeGetCurrentThread();
    std::lock_guard guard(state.mutex);
    state.kinds[lock] = kind;
    state.held[self].push_back(HeldLock{lock, state.nextSequence++});
}

void NoteReleased(const void* lock, LockKind kind) {
    LockOrderState& state = State();
    PKTHREAD self = KeGetCurrentThread();
    std::lock_guard guard(state.mutex);
    std::vector<HeldLock>& mine = state.held[self];
    if (kind != LockKind::Semaphore || Holds(mine, lock)) {
        EraseLast(mine, lock);
        return;
    }
    // Another thread's claim: the oldest one ends.
    std::vector<HeldLock>* oldestOwner = nullptr;
    std::vector<HeldLock>::iterator oldest;
    for (auto& [thread, held] : state.held) {
        for (auto it = held.begin(); it != held.end(); ++it) {
            if (it->lock == lock && (oldestOwner == nullptr || it->sequence < oldest->sequence)) {
                oldestOwner = &held;
                oldest = it;
            }
        }
    }
    if (oldestOwner != nullptr)
        oldestOwner->erase(oldest);
}

void ForgetLock(const void* lock) {
    LockOrderState& state = State();
    std::lock_guard guard(state.mutex);
    state.kinds.erase(lock);
    state.names.erase(lock);  // a later lock at this address is another lock
    state.acquiredWhileHolding.erase(lock);
    for (auto& [holder, acquired] : state.acquiredWhileHolding)
        acquired.erase(lock);
    std::erase_if(state.reported,
                  [&](const auto& pair) { return pair.first == lock || pair.second == lock; });
    for (auto& [thread, held] : state.held) {
        std::erase_if(held, [&](const HeldLock& h) { return h.lock == lock; });
    }
}

std::string LockLabel(const void* lock) {
    LockOrderState& state = State();
    std::lock_guard guard(state.mutex);
    return Label(state, lock);
}

void NameLock(const void* lock, std::string name) {
    LockOrderState& state = State();
    std::lock_guard guard(state.mutex);
    state.names[lock] = std::move(name);
}

void ResetLockOrder() {
    LockOrderState& state = State();
    std::lock_guard guard(state.mutex);
    state.kinds.clear();
    state.acquiredWhileHolding.clear();
    state.reported.clear();
    state.held.clear();
}

}  // namespace winsim::kernel
