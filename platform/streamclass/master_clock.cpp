#include "streamclass/master_clock.h"

#include <map>
#include <mutex>

namespace winsim {
namespace {

struct ClockTable {
    std::mutex mutex;
    std::map<HANDLE, std::function<int64_t()>> clocks;
    uintptr_t lastHandle = 0;
};

ClockTable& Table() {
    static ClockTable table;
    return table;
}

}  // namespace

HANDLE MasterClocks::Create(std::function<int64_t()> streamTime) {
    ClockTable& table = Table();
    std::lock_guard lock(table.mutex);
    // Handles look like kernel handles (multiples of 4) and are never reused,
    // so a stale handle stays unknown.
    table.lastHandle += 4;
    auto handle = reinterpret_cast<HANDLE>(0x7C000000 + table.lastHandle);
    table.clocks.emplace(handle, std::move(streamTime));
    return handle;
}

void MasterClocks::Destroy(HANDLE clock) {
    ClockTable& table = Table();
    std::lock_guard lock(table.mutex);
    table.clocks.erase(clock);
}

std::optional<int64_t> MasterClocks::StreamTime(HANDLE clock) {
    ClockTable& table = Table();
    std::lock_guard lock(table.mutex);
    auto it = table.clocks.find(clock);
    if (it == table.clocks.end()) {
        return std::nullopt;
    }
    return it->second();
}

}  // namespace winsim
