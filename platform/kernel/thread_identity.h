// The kernel's identity for host threads: the KTHREAD that owns mutexes and
// the name the verifier uses in its messages.
#pragma once

#include <wdm.h>

#include <string>

namespace winsim::kernel {

// "thread 'name'" for named threads, "thread #N" otherwise.
std::string ThreadName(PKTHREAD thread);
std::string CurrentThreadName();

}  // namespace winsim::kernel
