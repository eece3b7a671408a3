#include "ornixctl/device_properties.h"

#include <algorithm>

#include "ornixctl/names.h"

namespace ornixctl {
namespace {

winsim::StreamClass::PropertyRequest Request(const PropertyAddress& address, ULONG size,
                                             const Bytes& extra, const Bytes& data) {
    winsim::StreamClass::PropertyRequest request;
    request.set = address.set;
    request.id = address.id;
    request.propertyExtra = extra;
    request.dataSize = size;
    request.data = data;
    return request;
}

}  // namespace

PropertyFailure::PropertyFailure(const std::string& what, NTSTATUS status)
    : std::runtime_error(what + ": " + NtStatusName(status)), status_(status) {}

Bytes GetProperty(Session& session, const PropertyAddress& address, ULONG size,
                  const Bytes& extra) {
    const auto answer =
        session.Rig().StreamClass().GetDeviceProperty(Request(address, size, extra, {}));
    if (!NT_SUCCESS(answer.status)) {
        throw PropertyFailure(address.what, answer.status);
    }
    Bytes data = answer.data;
    data.resize(std::min<size_t>(answer.actualBytesTransferred, data.size()));
    return data;
}

Bytes GetSizedProperty(Session& session, const PropertyAddress& address, const Bytes& extra) {
    const auto query =
        session.Rig().StreamClass().GetDeviceProperty(Request(address, 0, extra, {}));
    if (query.status != STATUS_BUFFER_OVERFLOW && !NT_SUCCESS(query.status)) {
        throw PropertyFailure(address.what, query.status);
    }
    if (query.actualBytesTransferred == 0) {
        return {};
    }
    return GetProperty(session, address, query.actualBytesTransferred, extra);
}

void SetProperty(Session& session, const PropertyAddress& address, const Bytes& data,
                 const Bytes& extra) {
    const auto answer = session.Rig().StreamClass().SetDeviceProperty(
        Request(address, static_cast<ULONG>(data.size()), extra, data));
    if (!NT_SUCCESS(answer.status)) {
        throw PropertyFailure(address.what, answer.status);
    }
}

uint32_t WordAt(const Bytes& bytes, size_t offset) {
    uint32_t word = 0;
    for (size_t i = 4; i-- > 0;) {
        word = word << 8 | (offset + i < bytes.size() ? bytes[offset + i] : 0);
    }
    return word;
}

uint16_t HalfAt(const Bytes& bytes, size_t offset) {
    return static_cast<uint16_t>(WordAt(bytes, offset) & 0xFFFF);
}

int64_t QuadAt(const Bytes& bytes, size_t offset) {
    return static_cast<int64_t>(WordAt(bytes, offset) | uint64_t{WordAt(bytes, offset + 4)} << 32);
}

void PutWord(Bytes& bytes, size_t offset, uint32_t word) {
    if (bytes.size() < offset + 4) {
        bytes.resize(offset + 4);
    }
    for (size_t i = 0; i < 4; ++i) {
        bytes[offset + i] = static_cast<uint8_t>(word >> (8 * i));
    }
}

void PutHalf(Bytes& bytes, size_t offset, uint16_t half) {
    if (bytes.size() < offset + 2) {
        bytes.resize(offset + 2);
    }
    bytes[offset] = static_cast<uint8_t>(half);
    bytes[offset + 1] = static_cast<uint8_t>(half >> 8);
}

}  // namespace ornixctl
