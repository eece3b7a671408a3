// Master clocks as the stream class hands them to minidrivers: an opaque
// handle in SRB_INDICATE_MASTER_CLOCK that StreamClassQueryMasterClockSync
// turns into the clock's stream time. Queries may come at DISPATCH_LEVEL
// from any thread, so the table is guarded by a plain host mutex.
#pragma once

#include <strmini.h>

#include <cstdint>
#include <functional>
#include <optional>

namespace winsim {

class MasterClocks {
  public:
    // A new clock whose stream time (100 ns units) `streamTime` reads; the
    // function is called under the table's lock and must not block.
    static HANDLE Create(std::function<int64_t()> streamTime);
    static void Destroy(HANDLE clock);
    // nullopt for a handle that names no clock.
    static std::optional<int64_t> StreamTime(HANDLE clock);
};

}  // namespace winsim
