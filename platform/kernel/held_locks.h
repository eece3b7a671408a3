// What the calling thread holds, for the checks that need it: spin locks in
// the order taken (with the IRQL that KeAcquireSpinLock saved) and mutexes
// (one entry per level of a recursive acquisition). Thread-local, so reading
// it needs no lock.
#pragma once

#include <wdm.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace winsim::kernel {

struct HeldSpinLock {
    PKSPIN_LOCK lock;
    std::optional<KIRQL> savedIrql;  // none when taken at DPC level
};

std::vector<HeldSpinLock>& HeldSpinLocks();
std::vector<PKMUTEX>& HeldMutexes();

// Releases a spin lock that a faulty callback left held, so that the machine
// can go on after the finding.
void ForceReleaseSpinLock(PKSPIN_LOCK lock);

// The state of the calling thread when the platform calls a driver callback.
struct CallbackEntry {
    KIRQL irql;
    size_t spinLocks;
    size_t mutexes;
};

CallbackEntry EnterCallback();

// After the callback returned: a CALLBACK_RETURN finding for an IRQL other
// than `entry.irql` and for each spin lock or mutex taken and not released;
// then the thread is put back as it was at entry. `callback` names it for the
// message, e.g. "completion routine 0x... of IRP 0x...".
void CheckCallbackReturn(const CallbackEntry& entry, const std::string& callback);

// "<kind> <symbol> (0x...)", or "<kind> 0x..." when the routine has no symbol.
std::string DescribeRoutine(const char* kind, const void* routine);

}  // namespace winsim::kernel
