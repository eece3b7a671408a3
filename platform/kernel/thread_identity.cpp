// Each host thread lazily gets a KTHREAD. They are never freed, so that a
// mutex owned by a thread that has exited never matches a new thread.
#include "kernel/thread_identity.h"

#include "kernel/describe.h"
#include "kernel/dispatcher.h"
#include "kernel/kernel.h"
#include "kernel/lock_order.h"
#include "kernel/untraced.h"

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

// The blocking fields are read by DescribeThreads from another thread while
// the owner changes them; relaxed, so that they order no driver threads for
// ThreadSanitizer.
struct _KTHREAD {
    uint64_t serial = 0;
    std::string name;  // guarded by the registry mutex
    long hostId = 0;   // the Linux thread id
    std::atomic<const char*> blockedIn{nullptr};
    std::atomic<const void*> blockedOn{nullptr};
    std::atomic<winsim::kernel::BlockedOn> blockedKind{winsim::kernel::BlockedOn::Nothing};
    std::atomic<bool> exited{false};
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
    thread->hostId = static_cast<long>(gettid());
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

BlockedScope::BlockedScope(const char* what, BlockedOn kind, const void* object) {
    PKTHREAD self = KeGetCurrentThread();
    self->blockedOn.store(object, std::memory_order_relaxed);
    self->blockedKind.store(kind, std::memory_order_relaxed);
    self->blockedIn.store(what, std::memory_order_relaxed);
}

BlockedScope::~BlockedScope() {
    PKTHREAD self = KeGetCurrentThread();
    self->blockedIn.store(nullptr, std::memory_order_relaxed);
    self->blockedOn.store(nullptr, std::memory_order_relaxed);
}

}  // namespace winsim::kernel

namespace {

// Marks the calling thread's KTHREAD when the host thread ends.
struct ExitMark {
    PKTHREAD thread;
    ~ExitMark() { thread->exited.store(true, std::memory_order_relaxed); }
};

}  // namespace

PKTHREAD NTAPI KeGetCurrentThread(void) {
    thread_local PKTHREAD self = winsim::kernel::RegisterCurrentThread();
    thread_local ExitMark mark{self};
    return mark.thread;
}

namespace winsim {

void NameCurrentThread(std::string_view name) {
    PKTHREAD self = KeGetCurrentThread();
    kernel::ThreadRegistry& registry = kernel::Registry();
    std::lock_guard lock(registry.mutex);
    self->name = name;
}

}  // namespace winsim

namespace winsim {

std::string DescribeThreads() {
    kernel::ThreadRegistry& registry = kernel::Registry();
    std::vector<PKTHREAD> threads;
    {
        std::lock_guard lock(registry.mutex);
        for (const auto& thread : registry.threads) {
            threads.push_back(thread.get());
        }
    }
    std::string text;
    for (PKTHREAD thread : threads) {
        if (thread->exited.load(std::memory_order_relaxed)) {
            continue;
        }
        text +=
            kernel::ThreadName(thread) + " (Linux thread " + std::to_string(thread->hostId) + "): ";
        const char* what = thread->blockedIn.load(std::memory_order_relaxed);
        const void* object = thread->blockedOn.load(std::memory_order_relaxed);
        if (what == nullptr) {
            text += "running, or blocked outside the kernel\n";
            continue;
        }
        text += std::string("blocked in ") + what;
        switch (thread->blockedKind.load(std::memory_order_relaxed)) {
            case kernel::BlockedOn::Nothing:
                break;
            case kernel::BlockedOn::Event:
                text += " on event " + kernel::Hex(object);
                break;
            case kernel::BlockedOn::Semaphore:
                text += " on " + kernel::LockLabel(object);
                break;
            case kernel::BlockedOn::Mutex: {
                PKTHREAD owner;
                {
                    std::lock_guard lock(kernel::LockOf(object).mutex);
                    owner = static_cast<const KMUTEX*>(object)->OwnerThread;
                }
                text +=
                    " on " + kernel::LockLabel(object) + ", held by " + kernel::ThreadName(owner);
                break;
            }
            case kernel::BlockedOn::SpinLock: {
                auto word =
                    __atomic_load_n(static_cast<const KSPIN_LOCK*>(object), __ATOMIC_RELAXED);
                text += " on " + kernel::LockLabel(object) + ", held by " +
                        kernel::ThreadName(reinterpret_cast<PKTHREAD>(word));
                break;
            }
        }
        text += "\n";
    }
    return text;
}

}  // namespace winsim
