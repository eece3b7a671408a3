#include "property_requests.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace ornixtest {

Bytes Words(std::initializer_list<uint32_t> words) {
    Bytes bytes;
    for (uint32_t word : words) {
        for (int i = 0; i < 4; ++i) {
            bytes.push_back(static_cast<uint8_t>(word >> (8 * i)));
        }
    }
    return bytes;
}

uint32_t WordAt(const Bytes& bytes, size_t offset) {
    uint32_t word = 0;
    for (int i = 3; i >= 0; --i) {
        word = word << 8 | bytes.at(offset + i);
    }
    return word;
}

uint16_t HalfAt(const Bytes& bytes, size_t offset) {
    return static_cast<uint16_t>(bytes.at(offset) | bytes.at(offset + 1) << 8);
}

int64_t QuadAt(const Bytes& bytes, size_t offset) {
    return static_cast<int64_t>(WordAt(bytes, offset) | uint64_t{WordAt(bytes, offset + 4)} << 32);
}

Bytes PropertyRecord(const GUID& set, ULONG id, ULONG flags, const Bytes& extra) {
    KSPROPERTY header{};
    header.Set = set;
    header.Id = id;
    header.Flags = flags;
    Bytes record(sizeof(header) + extra.size());
    std::memcpy(record.data(), &header, sizeof(header));
    std::copy(extra.begin(), extra.end(), record.begin() + sizeof(header));
    return record;
}

PropertyAnswer SendProperty(winsim::StreamClass& streamClass, SRB_COMMAND command,
                            const Bytes& record, const Bytes& data, bool guarded) {
    // Blocks of exactly the sizes the descriptor gives (plus the guard), so
    // that the sanitizers see every access past them. KSPROPERTY is read as
    // a record: new[] aligns it.
    std::unique_ptr<uint8_t[]> recordBlock(new uint8_t[std::max<size_t>(record.size(), 1)]);
    std::copy(record.begin(), record.end(), recordBlock.get());
    const size_t guard = guarded ? kGuardBytes : 0;
    std::unique_ptr<uint8_t[]> dataBlock(new uint8_t[std::max<size_t>(data.size() + guard, 1)]);
    std::copy(data.begin(), data.end(), dataBlock.get());
    std::fill_n(dataBlock.get() + data.size(), guard, kGuardByte);

    STREAM_PROPERTY_DESCRIPTOR descriptor{};
    descriptor.Property = reinterpret_cast<PKSPROPERTY>(recordBlock.get());
    descriptor.PropertyInfo = dataBlock.get();
    descriptor.PropertyInputSize = static_cast<ULONG>(record.size());
    descriptor.PropertyOutputSize = static_cast<ULONG>(data.size());
    const SrbResult result = streamClass.SendAdapterSrb(command, &descriptor);

    PropertyAnswer answer;
    answer.status = result.status;
    answer.returned = result.actualBytesTransferred;
    answer.outputSize = descriptor.PropertyOutputSize;
    answer.data.assign(dataBlock.get(), dataBlock.get() + data.size());
    answer.guardIntact =
        std::all_of(dataBlock.get() + data.size(), dataBlock.get() + data.size() + guard,
                    [](uint8_t byte) { return byte == kGuardByte; });
    EXPECT_TRUE(result.completed);
    return answer;
}

std::vector<std::pair<uint16_t, uint32_t>> RegisterWrites(
    const std::vector<WireRequest>& requests) {
    std::vector<std::pair<uint16_t, uint32_t>> writes;
    for (const WireRequest& r : requests) {
        if (r.bmRequestType == 0x40 && r.bRequest == ORNIX_REQUEST_REGISTER && r.data.size() >= 4) {
            writes.emplace_back(r.wIndex, WordAt(r.data, 0));
        }
    }
    return writes;
}

}  // namespace ornixtest
