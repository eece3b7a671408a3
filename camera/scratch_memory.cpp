#include "camera/scratch_memory.h"

#include <algorithm>

namespace ornixcam {

usbsim::TransferResult ScratchMemory::Handle(const usbsim::SetupPacket& setup,
                                             std::span<uint8_t> data) {
    const size_t first = setup.wValue;
    if (bytes_.empty() || first > bytes_.size() || data.size() > bytes_.size() - first) {
        return usbsim::TransferResult::Stall();
    }
    const auto at = bytes_.begin() + static_cast<std::ptrdiff_t>(first);
    if (setup.DeviceToHost()) {
        std::copy_n(at, data.size(), data.begin());
    } else {
        std::copy(data.begin(), data.end(), at);
    }
    return usbsim::TransferResult::Ack(static_cast<uint32_t>(data.size()));
}

}  // namespace ornixcam
