// A bounded memory of freed addresses, to tell a second free from a free of
// something that was never allocated.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <unordered_map>
#include <utility>

namespace winsim::kernel {

class RecentlyFreed {
  public:
    void Add(const void* address) {
        uint64_t generation = ++generation_;
        addresses_[address] = generation;
        order_.emplace_back(address, generation);
        if (order_.size() > kCapacity) {
            auto [oldest, oldestGeneration] = order_.front();
            order_.pop_front();
            auto it = addresses_.find(oldest);
            if (it != addresses_.end() && it->second == oldestGeneration)
                addresses_.erase(it);
        }
    }
    // The address was handed out again.
    void Remove(const void* address) { addresses_.erase(address); }
    bool Contains(const void* address) const { return addresses_.count(address) != 0; }
    void Clear() {
        addresses_.clear();
        order_.clear();
    }

  private:
    static constexpr size_t kCapacity = 1 << 16;
    uint64_t generation_ = 0;
    std::unordered_map<const void*, uint64_t> addresses_;
    std::deque<std::pair<const void*, uint64_t>> order_;
};

}  // namespace winsim::kernel
