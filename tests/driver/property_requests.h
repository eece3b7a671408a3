// Adapter property requests as the stream class hands them to the driver:
// SRB_GET_DEVICE_PROPERTY / SRB_SET_DEVICE_PROPERTY with a property
// descriptor, a property record (the KSPROPERTY header and any extra input)
// in a block of exactly its size, and a data buffer followed by guard bytes
// that must come back untouched.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {

inline constexpr uint8_t kGuardByte = 0xA5;
inline constexpr size_t kGuardBytes = 32;

// Little-endian 32-bit words, and words, halves and quads read back.
Bytes Words(std::initializer_list<uint32_t> words);
uint32_t WordAt(const Bytes& bytes, size_t offset);
uint16_t HalfAt(const Bytes& bytes, size_t offset);
int64_t QuadAt(const Bytes& bytes, size_t offset);

// A KSPROPERTY header for (set, id) followed by `extra`.
Bytes PropertyRecord(const GUID& set, ULONG id, ULONG flags, const Bytes& extra = {});

struct PropertyAnswer {
    NTSTATUS status = STATUS_PENDING;
    ULONG returned = 0;    // ActualBytesTransferred
    ULONG outputSize = 0;  // PropertyOutputSize as the driver left it
    Bytes data;            // the data buffer (its size as sent) afterwards
    bool guardIntact = false;
};

// Sends one request. With `guarded` false the data buffer is a block of
// exactly its size, so that the sanitizer builds see any access past it.
PropertyAnswer SendProperty(winsim::StreamClass& streamClass, SRB_COMMAND command,
                            const Bytes& record, const Bytes& data, bool guarded = true);

// Gets and sets by set and id; the record's extra input follows the header.
class PropertyClient {
  public:
    explicit PropertyClient(winsim::StreamClass& streamClass) : class_(streamClass) {}

    // A get into a zero-filled buffer of `size` bytes.
    PropertyAnswer Get(const GUID& set, ULONG id, ULONG size, const Bytes& extra = {}) {
        return SendProperty(class_, SRB_GET_DEVICE_PROPERTY,
                            PropertyRecord(set, id, KSPROPERTY_TYPE_GET, extra), Bytes(size, 0));
    }
    PropertyAnswer Set(const GUID& set, ULONG id, const Bytes& data, const Bytes& extra = {},
                       bool guarded = true) {
        return SendProperty(class_, SRB_SET_DEVICE_PROPERTY,
                            PropertyRecord(set, id, KSPROPERTY_TYPE_SET, extra), data, guarded);
    }

  private:
    winsim::StreamClass& class_;
};

// Register writes (request 0x12 out) as (index, first word) pairs, in order.
std::vector<std::pair<uint16_t, uint32_t>> RegisterWrites(const std::vector<WireRequest>& requests);

}  // namespace ornixtest
