// Property requests as KS and the stream class handle them: checked against
// the property sets the minidriver published, then handed to it as
// SRB_GET/SET_DEVICE_PROPERTY or SRB_GET_STREAM_PROPERTY with a guard behind
// the data buffer and behind the property record.
#include <algorithm>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>

#include "streamclass/stream_class_impl.h"

namespace winsim {
namespace {

using PropertyRequest = StreamClass::PropertyRequest;
using PropertyAnswer = StreamClass::PropertyAnswer;

// Room for a whole record of the largest video properties.
constexpr size_t kPropertyGuardBytes = 256;
constexpr uint8_t kPropertyGuardFill = 0xCD;

// What one request hands the minidriver.
struct PropertyBuffers {
    std::vector<uint8_t> property;  // KSPROPERTY and the extra input, then the guard
    std::vector<uint8_t> data;      // the data buffer, then the guard
    STREAM_PROPERTY_DESCRIPTOR descriptor{};
};

// A request the minidriver never completed may still be written into.
void KeepAlive(std::unique_ptr<PropertyBuffers> buffers) {
    static std::mutex mutex;
    static std::list<std::unique_ptr<PropertyBuffers>> kept;
    std::lock_guard lock(mutex);
    kept.push_back(std::move(buffers));
}

bool GuardIntact(const std::vector<uint8_t>& buffer, size_t used) {
    return std::all_of(buffer.begin() + static_cast<std::ptrdiff_t>(used), buffer.end(),
                       [](uint8_t b) { return b == kPropertyGuardFill; });
}

// KS answers these itself, in this order, before the class sees the request:
// - a set GUID not published: STATUS_PROPSET_NOT_FOUND; an id not in the
//   set: STATUS_NOT_FOUND;
// - an operation the item has no handler for (GetSupported/SetSupported
//   FALSE): STATUS_INVALID_DEVICE_REQUEST, the answer to a request its target
//   does not serve. It comes before the size checks, so that a size query
//   never tells an application a size for something it cannot do;
// - a property record (the IOCTL's input) below MinProperty:
//   STATUS_INVALID_BUFFER_SIZE. The record is malformed, not too small to
//   receive an answer: STATUS_BUFFER_TOO_SMALL and STATUS_BUFFER_OVERFLOW
//   speak of the output, the data buffer, whose size the caller chooses;
// - a data buffer below MinData: empty, a size query answered with
//   STATUS_BUFFER_OVERFLOW and Information = MinData; else
//   STATUS_BUFFER_TOO_SMALL.
// Gets and sets are checked alike. nullopt: the request goes on.
std::optional<PropertyAnswer> Refusal(const std::vector<PropertySetView>& sets,
                                      const PropertyRequest& request, bool isSet, ULONG& setIndex) {
    PropertyAnswer refused;
    const auto set = std::find_if(sets.begin(), sets.end(), [&](const PropertySetView& s) {
        return SameGuid(s.set, request.set);
    });
    if (set == sets.end()) {
        refused.status = STATUS_PROPSET_NOT_FOUND;
        return refused;
    }
    setIndex = static_cast<ULONG>(set - sets.begin());
    const auto item = std::find_if(set->items.begin(), set->items.end(),
                                   [&](const PropertyItemView& i) { return i.id == request.id; });
    if (item == set->items.end()) {
        refused.status = STATUS_NOT_FOUND;
    } else if (isSet ? !item->set : !item->get) {
        refused.status = STATUS_INVALID_DEVICE_REQUEST;
    } else if (sizeof(KSPROPERTY) + request.propertyExtra.size() < item->minProperty) {
        refused.status = STATUS_INVALID_BUFFER_SIZE;
    } else if (request.dataSize < item->minData) {
        refused.status = request.dataSize == 0 ? STATUS_BUFFER_OVERFLOW : STATUS_BUFFER_TOO_SMALL;
        refused.actualBytesTransferred = request.dataSize == 0 ? item->minData : 0;
    } else {
        return std::nullopt;
    }
    return refused;
}

using SendSrb = std::function<SrbResult(STREAM_PROPERTY_DESCRIPTOR& descriptor, ULONG bytes)>;

// `check` names the verifier's findings, `what` the SRB in them.
PropertyAnswer SendProperty(const std::vector<PropertySetView>& sets,
                            const PropertyRequest& request, bool isSet, const char* check,
                            const std::string& what, const SendSrb& send) {
    if (request.data.size() > request.dataSize) {
        throw std::invalid_argument("StreamClass: property data longer than its buffer");
    }
    ULONG setIndex = 0;
    if (std::optional<PropertyAnswer> refused = Refusal(sets, request, isSet, setIndex)) {
        return *refused;
    }

    auto buffers = std::make_unique<PropertyBuffers>();
    const size_t propertySize = sizeof(KSPROPERTY) + request.propertyExtra.size();
    buffers->property.assign(propertySize + kPropertyGuardBytes, kPropertyGuardFill);
    KSPROPERTY header{};
    header.Set = request.set;
    header.Id = request.id;
    header.Flags = isSet ? KSPROPERTY_TYPE_SET : KSPROPERTY_TYPE_GET;
    std::memcpy(buffers->property.data(), &header, sizeof header);
    std::copy(request.propertyExtra.begin(), request.propertyExtra.end(),
              buffers->property.begin() + sizeof header);
    buffers->data.assign(request.dataSize + kPropertyGuardBytes, kPropertyGuardFill);
    std::fill_n(buffers->data.begin(), request.dataSize, uint8_t{0});
    std::copy(request.data.begin(), request.data.end(), buffers->data.begin());

    STREAM_PROPERTY_DESCRIPTOR& descriptor = buffers->descriptor;
    descriptor.Property = reinterpret_cast<PKSPROPERTY>(buffers->property.data());
    descriptor.PropertySetID = setIndex;
    // Never NULL, not even for a size query: a write through it meets the guard.
    descriptor.PropertyInfo = buffers->data.data();
    descriptor.PropertyInputSize = static_cast<ULONG>(propertySize);
    descriptor.PropertyOutputSize = request.dataSize;

    const SrbResult result = send(descriptor, request.dataSize);
    PropertyAnswer answer;
    answer.reachedMinidriver = true;
    answer.status = result.completed ? result.status : STATUS_IO_TIMEOUT;
    answer.actualBytesTransferred = result.actualBytesTransferred;
    if (!result.completed) {
        // Still the minidriver's: neither looked at nor freed.
        KeepAlive(std::move(buffers));
        return answer;
    }
    const std::string named = what + " (set index " + std::to_string(setIndex) + ", id " +
                              std::to_string(request.id) + ")";
    if (!GuardIntact(buffers->data, request.dataSize)) {
        ReportViolation(check, named + " wrote past the " + std::to_string(request.dataSize) +
                                   "-byte data buffer");
        answer.status = STATUS_BUFFER_OVERFLOW;
    } else if (NT_SUCCESS(answer.status) && answer.actualBytesTransferred > request.dataSize) {
        ReportViolation(check, named + " claims " + std::to_string(answer.actualBytesTransferred) +
                                   " bytes returned in a " + std::to_string(request.dataSize) +
                                   "-byte data buffer");
    }
    if (!GuardIntact(buffers->property, propertySize)) {
        ReportViolation(check, named + " wrote past the " + std::to_string(propertySize) +
                                   "-byte property record");
    }
    answer.data.assign(buffers->data.begin(),
                       buffers->data.begin() + static_cast<std::ptrdiff_t>(request.dataSize));
    return answer;
}

}  // namespace

StreamClass::PropertyAnswer StreamClass::GetDeviceProperty(const PropertyRequest& request) {
    return SendDeviceProperty(request, false);
}

StreamClass::PropertyAnswer StreamClass::SetDeviceProperty(const PropertyRequest& request) {
    return SendDeviceProperty(request, true);
}

StreamClass::PropertyAnswer StreamClass::SendDeviceProperty(const PropertyRequest& request,
                                                            bool isSet) {
    if (StreamHeader() == nullptr) {
        throw std::logic_error("StreamClass: no started adapter to send a property request to");
    }
    const SRB_COMMAND command = isSet ? SRB_SET_DEVICE_PROPERTY : SRB_GET_DEVICE_PROPERTY;
    return SendProperty(impl_->filter.propertySets, request, isSet, "DEVICE_PROPERTY",
                        SrbCommandName(command),
                        [&](STREAM_PROPERTY_DESCRIPTOR& descriptor, ULONG bytes) {
                            return impl_->Send(command, &descriptor, bytes, nullptr, false, 0);
                        });
}

StreamClass::PropertyAnswer StreamClass::GetStreamProperty(PHW_STREAM_OBJECT stream,
                                                           const PropertyRequest& request) {
    StreamRecord* record = impl_->FindStream(stream);
    if (record == nullptr) {
        throw std::logic_error("StreamClass: property request for a stream that is not open");
    }
    return SendProperty(record->propertySets, request, false, "STREAM_PROPERTY",
                        "SRB_GET_STREAM_PROPERTY on stream " + std::to_string(record->number),
                        [&](STREAM_PROPERTY_DESCRIPTOR& descriptor, ULONG bytes) -> SrbResult {
                            return SendStreamControl(stream, SRB_GET_STREAM_PROPERTY,
                                                     [&](HW_STREAM_REQUEST_BLOCK& srb) {
                                                         srb.CommandData.PropertyInfo = &descriptor;
                                                         srb.NumberOfBytesToTransfer = bytes;
                                                     });
                        });
}

StreamPropertyAnswer StreamClass::GetStreamProperty(PHW_STREAM_OBJECT stream, const GUID& set,
                                                    ULONG id, ULONG outputLength) {
    PropertyRequest request;
    request.set = set;
    request.id = id;
    request.dataSize = outputLength;
    PropertyAnswer answer = GetStreamProperty(stream, request);
    return {answer.status, answer.actualBytesTransferred, std::move(answer.data)};
}

}  // namespace winsim
