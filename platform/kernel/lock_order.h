// Lock-order checking across mutexes, semaphores and spin locks.
//
// Every blocking acquisition records "held while acquiring" edges from the
// locks the thread holds to the new one; acquiring B while holding A when B
// already leads to A is an inversion, reported as LOCK_ORDER.
#pragma once

#include <string>

namespace winsim::kernel {

enum class LockKind { Mutex, Semaphore, SpinLock };

// Before a blocking acquisition: checks and records the order against the
// locks the calling thread holds.
void NoteAcquiring(const void* lock, LockKind kind);

// After any successful acquisition, blocking or not.
void NoteAcquired(const void* lock, LockKind kind);

// A mutex or spin lock is released by its holder. A semaphore release by any
// thread ends the oldest claim on it, the releasing thread's own first.
void NoteReleased(const void* lock, LockKind kind);

// The lock was (re)initialised: its history no longer applies.
void ForgetLock(const void* lock);

// "spin lock 0x... (the cancel spin lock)", for messages.
std::string LockLabel(const void* lock);

// A name for messages, e.g. "the cancel spin lock"; survives resets.
void NameLock(const void* lock, std::string name);

void ResetLockOrder();

}  // namespace winsim::kernel
