// Guard-page pool blocks: one mapping per block, laid out as
//   [inaccessible page][slack | block | slack to the alignment][inaccessible page]
// and, once freed, kept inaccessible in a quarantine of the latest frees.
#include "kernel/guarded_pool.h"

#include "kernel/kernel.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define WINSIM_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define WINSIM_ASAN 1
#endif
#endif
#ifdef WINSIM_ASAN
#include <sanitizer/lsan_interface.h>
#endif

namespace winsim::kernel {
namespace {

// Freed ranges kept inaccessible: the latest frees up to both bounds. They
// cost address space and one kernel mapping each, no memory.
constexpr size_t kQuarantinedFrees = 4096;
constexpr size_t kQuarantinedBytes = size_t{64} << 20;
constexpr unsigned char kSlackFill = 0x5A;
constexpr int kAnonymous = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;

size_t PageSize() {
    static const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return page;
}

size_t RoundedSize(size_t size) {
    return ((size == 0 ? 1 : size) + kGuardedAlignment - 1) & ~(kGuardedAlignment - 1);
}

// The accessible pages of a block and the whole mapping around them.
struct Layout {
    char* pages;
    size_t pagesLength;
    char* mapping;
    size_t mappingLength;
};

size_t PagesLength(size_t size) {
    return (RoundedSize(size) + PageSize() - 1) / PageSize() * PageSize();
}

Layout LayoutOf(const void* block, size_t size) {
    size_t page = PageSize();
    size_t pagesLength = PagesLength(size);
    char* pages = static_cast<char*>(const_cast<void*>(block)) + RoundedSize(size) - pagesLength;
    return {pages, pagesLength, pages - page, pagesLength + 2 * page};
}

class Quarantine {
  public:
    void Add(char* mapping, size_t length) {
        std::vector<Range> expired;
        {
            std::lock_guard lock(mutex_);
            ranges_.push_back({mapping, length});
            bytes_ += length;
            while (ranges_.size() > kQuarantinedFrees || bytes_ > kQuarantinedBytes)
                expired.push_back(PopOldest());
        }
        Unmap(expired);
    }

    // Gives every range back, when the address space runs out.
    void Flush() {
        std::vector<Range> expired;
        {
            std::lock_guard lock(mutex_);
            while (!ranges_.empty())
                expired.push_back(PopOldest());
        }
        Unmap(expired);
    }

  private:
    struct Range {
        char* start;
        size_t length;
    };

    Range PopOldest() {
        Range oldest = ranges_.front();
        ranges_.pop_front();
        bytes_ -= oldest.length;
        return oldest;
    }

    static void Unmap(const std::vector<Range>& ranges) {
        for (const Range& range : ranges)
            munmap(range.start, range.length);
    }

    std::mutex mutex_;
    std::deque<Range> ranges_;
    size_t bytes_ = 0;
};

Quarantine& Quarantined() {
    static auto* quarantine = new Quarantine;
    return *quarantine;
}

// The whole mapping inaccessible, then its middle pages opened.
char* MapPages(size_t pagesLength) {
    size_t page = PageSize();
    void* mapping = mmap(nullptr, pagesLength + 2 * page, PROT_NONE, kAnonymous, -1, 0);
    if (mapping == MAP_FAILED)
        return nullptr;
    char* pages = static_cast<char*>(mapping) + page;
    if (mprotect(pages, pagesLength, PROT_READ | PROT_WRITE) != 0) {
        munmap(mapping, pagesLength + 2 * page);
        return nullptr;
    }
    return pages;
}

std::string Bytes(ptrdiff_t count) {
    return std::to_string(count) + (count == 1 ? " byte" : " bytes");
}

bool EnvironmentAsksForGuardPages() {
    const char* value = std::getenv("ORNIX_POOL_GUARD");
    return value != nullptr && std::strcmp(value, "1") == 0;
}

std::atomic<bool>& GuardPagesSwitch() {
    static std::atomic<bool> on{EnvironmentAsksForGuardPages()};
    return on;
}

}  // namespace

void* MapGuardedBlock(SIZE_T size) {
    if (size > SIZE_MAX / 2)
        return nullptr;
    size_t pagesLength = PagesLength(size);
    char* pages = MapPages(pagesLength);
    if (pages == nullptr) {
        // Out of address space or kernel mappings: the quarantine goes first.
        Quarantined().Flush();
        pages = MapPages(pagesLength);
        if (pages == nullptr)
            return nullptr;
    }
    char* block = pages + pagesLength - RoundedSize(size);
    std::memset(pages, kSlackFill, static_cast<size_t>(block - pages));
    std::memset(block + size, kSlackFill, RoundedSize(size) - size);
#ifdef WINSIM_ASAN
    // Leak checking looks for heap pointers the driver keeps in its pool.
    __lsan_register_root_region(pages, pagesLength);
#endif
    return block;
}

std::string GuardedSlackDamage(const void* block, SIZE_T size) {
    Layout layout = LayoutOf(block, size);
    const auto* start = static_cast<const unsigned char*>(block);
    const auto* pages = reinterpret_cast<const unsigned char*>(layout.pages);
    std::string damage;
    for (const unsigned char* byte = pages; byte < start; ++byte) {
        if (*byte != kSlackFill) {
            damage = "written up to " + Bytes(start - byte) + " before its start";
            break;
        }
    }
    for (const unsigned char* byte = start + RoundedSize(size); byte > start + size; --byte) {
        if (byte[-1] != kSlackFill) {
            damage += (damage.empty() ? "written up to " : " and up to ") +
                      Bytes(byte - (start + size)) + " past its end";
            break;
        }
    }
    return damage;
}

void QuarantineGuardedBlock(void* block, SIZE_T size) {
    Layout layout = LayoutOf(block, size);
#ifdef WINSIM_ASAN
    __lsan_unregister_root_region(layout.pages, layout.pagesLength);
#endif
    // Fresh inaccessible pages in place of the used ones: the memory goes
    // back, the addresses stay taken.
    if (mmap(layout.pages, layout.pagesLength, PROT_NONE, kAnonymous | MAP_FIXED, -1, 0) ==
        MAP_FAILED) {
        mprotect(layout.pages, layout.pagesLength, PROT_NONE);
    }
    Quarantined().Add(layout.mapping, layout.mappingLength);
}

}  // namespace winsim::kernel

namespace winsim {

void SetPoolGuardPages(bool on) {
    kernel::GuardPagesSwitch().store(on, std::memory_order_relaxed);
}

bool PoolGuardPages() {
    return kernel::GuardPagesSwitch().load(std::memory_order_relaxed);
}

}  // namespace winsim
