// Property requests against a started adapter with both streams open and
// the capture stream running: the set, id, property record, data size and
// data of each request come from the input, as do get or set and device or
// stream. Most requests name a published set and item, so that they pass
// the stream class's own checks and reach the driver's handlers; some name
// anything at all. Any verifier finding (a write past a buffer, a success
// claiming more bytes than the buffer holds, a leak at unload), sanitizer
// report or crash is a failure.
//
// Input: a 16-bit length L, then L bytes of camera (see camera_input.h),
// then the requests.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "camera_input.h"
#include "kernel/kernel.h"
#include "rig/rig.h"
#include "streamclass/data_intersection.h"
#include "streamclass/pin.h"

namespace {

constexpr unsigned kMaxRequests = 12;
constexpr unsigned kMaxPropertyExtra = 64;
constexpr unsigned kMaxDataSize = 700;

// A data size near the item's minimum, where the size rules change, or any.
ULONG DataSize(ornixfuzz::Input& in, ULONG minData) {
    switch (in.Pick(6)) {
        case 0:
            return 0;
        case 1:
            return 1;
        case 2:
            return minData > 0 ? minData - 1 : 0;
        case 3:
            return minData;
        case 4:
            return minData + 1;
        default:
            return in.U16() % (kMaxDataSize + 1);
    }
}

// A set and item of `sets`, or an arbitrary GUID or id now and then.
winsim::StreamClass::PropertyRequest MakeRequest(ornixfuzz::Input& in,
                                                 const std::vector<winsim::PropertySetView>& sets) {
    winsim::StreamClass::PropertyRequest request;
    ULONG minProperty = sizeof(KSPROPERTY);
    ULONG minData = 0;
    if (!sets.empty() && in.Pick(8) != 0) {
        const winsim::PropertySetView& set = sets[in.Pick(static_cast<unsigned>(sets.size()))];
        request.set = set.set;
        if (!set.items.empty() && in.Pick(8) != 0) {
            const winsim::PropertyItemView& item =
                set.items[in.Pick(static_cast<unsigned>(set.items.size()))];
            request.id = item.id;
            minProperty = std::max<ULONG>(item.minProperty, minProperty);
            minData = item.minData;
        } else {
            request.id = in.Byte();
        }
    } else {
        const std::vector<uint8_t> guid = in.Bytes(sizeof(GUID));
        std::memcpy(&request.set, guid.data(), sizeof(GUID));
        request.id = in.U32();
    }
    // Mostly a record as long as the item asks for, now and then shorter or longer.
    ULONG extra = minProperty - sizeof(KSPROPERTY);
    if (in.Pick(4) == 0) {
        extra = in.Pick(kMaxPropertyExtra + 1);
    }
    request.propertyExtra = in.Bytes(extra);
    request.dataSize = DataSize(in, minData);
    request.data = in.Bytes(std::min<size_t>(request.dataSize, in.U16()));
    request.data.resize(request.dataSize);
    return request;
}

std::unique_ptr<winsim::Pin> OpenPin(winsim::StreamClass& sc, ULONG number) {
    const winsim::FilterView& filter = sc.Filter();
    if (number >= filter.pins.size() || filter.pins[number].ranges.empty()) {
        return nullptr;
    }
    const winsim::IntersectResult negotiated =
        winsim::Intersect(sc, number, filter.pins[number].ranges.front().bytes);
    if (!NT_SUCCESS(negotiated.status)) {
        return nullptr;
    }
    winsim::PinOptions options;
    options.pin = number;
    options.format = negotiated.format;
    options.queuedReads = 2;
    return winsim::Pin::Open(sc, std::move(options));
}

void SendRequests(ornixfuzz::Input& in, ornixrig::Rig& rig) {
    winsim::StreamClass& sc = rig.StreamClass();
    // Streams open while the properties change; the capture stream runs,
    // so that a product-data reload meets frames being corrected. The still
    // stream stays stopped: a still wait without time-out on a running still
    // stream waits, by design, for a read that the fuzzer would never send.
    std::unique_ptr<winsim::Pin> capture = OpenPin(sc, 0);
    std::unique_ptr<winsim::Pin> still = OpenPin(sc, 1);
    if (capture) {
        capture->Run();
    }
    const unsigned count = 1 + in.Pick(kMaxRequests);
    for (unsigned n = 0; n < count; ++n) {
        const unsigned kind = in.Pick(4);
        if (kind < 3) {
            const winsim::StreamClass::PropertyRequest request =
                MakeRequest(in, sc.Filter().propertySets);
            if (kind == 0) {
                sc.GetDeviceProperty(request);
            } else {
                sc.SetDeviceProperty(request);
            }
        } else {
            winsim::Pin* pin = in.Bool() ? capture.get() : still.get();
            if (pin == nullptr) {
                continue;
            }
            const auto number = static_cast<ULONG>(pin == capture.get() ? 0 : 1);
            sc.GetStreamProperty(pin->StreamObject(),
                                 MakeRequest(in, sc.Filter().pins[number].propertySets));
        }
        if (capture && in.Pick(4) == 0) {
            capture->NextFrame(0.01);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    winsim::SetDebugSink([](std::string_view) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return ornixfuzz::RunOnCamera(data, size, nullptr, SendRequests,
                                  "end of the property requests");
}
