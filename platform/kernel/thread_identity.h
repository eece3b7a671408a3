// The kernel's identity for host threads: the KTHREAD that owns mutexes and
// the name the verifier uses in its messages.
#pragma once

#include <wdm.h>

#include <string>

namespace winsim::kernel {

// "thread 'name'" for named threads, "thread #N" otherwise.
std::string ThreadName(PKTHREAD thread);
std::string CurrentThreadName();

// What the calling thread blocks on, for DescribeThreads: set for the span of
// a wait, a delay or a spin on a taken spin lock. `what` is a static string
// ("KeWaitForSingleObject", "KeAcquireSpinLock" ...), `object` the object or
// null; for mutexes and spin locks the description names the holder.
enum class BlockedOn { Nothing, Event, Mutex, Semaphore, SpinLock };
class BlockedScope {
  public:
    BlockedScope(const char* what, BlockedOn kind, const void* object);
    ~BlockedScope();
    BlockedScope(const BlockedScope&) = delete;
    BlockedScope& operator=(const BlockedScope&) = delete;
};

}  // namespace winsim::kernel
