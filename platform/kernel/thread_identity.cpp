// Each host thread lazily gets a KTHREAD. They are never freed, so that a
// mutex owned by a thread that has exited never matches a new thread.
#include "kernel/thread_identity.h"

#include "kernel/kernel.h"
#include "kernel/untraced.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

struct _KTHREAD {
    uint64_t serial = 0;
    std::string name;  // guarded by the registry mutex
};

namespace winsim::kernel {
namespace {

struct ThreadRegistry {
    UntracedMutex mutex;
    std::vector<std::unique_ptr<_KTHREAD>> threads;
};

ThreadRegistry& Registry() {
    static auto* registry = new ThreadRegistry;
    return *registry;
}

PKTHREAD RegisterCurrentThread() {
    ThreadRegistry& registry = Registry();
    std::lock_guard lock(registry.mutex);
    auto thread = std::make_unique<_KTHREAD>();
    thread->serial = registry.threads.size() + 1;
    registry.threads.push_back(std::move(thread));
    return registry.threads.back().get();
}

}  // namespace

std::string ThreadName(PKTHREAD thread) {
    if (thread == nullptr)
        return "no thread";
    ThreadRegistry& registry = Registry();
    std::lock_guard lock(registry.mutex);
    if (!thread->name.empty())
        return "thread '" + thread->name + "'";
    return "thread #" + std::to_string(thread->serial);
}

std::string CurrentThreadName() {
    return ThreadName(KeGetCurrentThread());
}

}  // namespace winsim::kernel

PKTHREAD NTAPI KeGetCurrentThread(void) {
    thread_local PKTHREAD self = winsim::kernel::RegisterCurrentThread();
    return self;
}

namespace winsim {

void NameCurrentThread(std::string_view name) {
    PKTHREAD self = KeGetCurrentThread();
    kernel::ThreadRegistry& registry = kernel::Registry();
    std::lock_guard lock(registry.mutex);
    self->name = name;
}

}  // namespace winsim
