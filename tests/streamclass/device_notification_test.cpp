// Device notifications: the stream class reads the arguments after the device
// extension by notification type, whichever way the minidriver declared the call.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "stream_class_fixture.h"
#include "streamclass/device_events.h"
#include "streamclass/stream_class.h"

namespace sctest {
namespace {

struct Signalled {
    PVOID extension;
    GUID set;
    ULONG id;
};

// mingw-w64 declares the notification with six fixed parameters.
using SixParameterNotification = void(NTAPI*)(STREAM_MINIDRIVER_DEVICE_NOTIFICATION_TYPE, PVOID,
                                              PHW_STREAM_REQUEST_BLOCK, PKSEVENT_ENTRY, GUID*,
                                              ULONG);

TEST_F(StreamClassTest, SignalMultipleDeviceEventsTakesTheSetThenTheIdFromEitherDeclaration) {
    winsim::StreamClass sc(FakeDriverEntry);
    sc.AddDevice(pdo_);
    std::vector<Signalled> seen;
    winsim::SetDeviceEventObserver([&](PVOID extension, const GUID& set, ULONG id) {
        seen.push_back({extension, set, id});
    });
    GUID set = {0x79CD8C74, 0x3E2A, 0x47B2, {0x91, 0xA0, 0xB9, 0x00, 0xBD, 0x65, 0xB4, 0x2E}};

    StreamClassDeviceNotification(SignalMultipleDeviceEvents, sc.DeviceExtension(), &set,
                                  ULONG(31));
    // As the Windows build passes them: the set and the id in the first two
    // positions after the extension, then two unused arguments.
    auto sixParameters = reinterpret_cast<SixParameterNotification>(&StreamClassDeviceNotification);
    sixParameters(SignalMultipleDeviceEvents, sc.DeviceExtension(),
                  reinterpret_cast<PHW_STREAM_REQUEST_BLOCK>(&set),
                  reinterpret_cast<PKSEVENT_ENTRY>(ULONG_PTR(2)), nullptr, 0);
    // The old positions (request block and event entry first) name no set.
    sixParameters(SignalMultipleDeviceEvents, sc.DeviceExtension(), nullptr, nullptr, &set, 5);
    winsim::SetDeviceEventObserver({});

    ASSERT_EQ(seen.size(), 2u);
    for (const Signalled& event : seen) {
        EXPECT_EQ(event.extension, sc.DeviceExtension());
        EXPECT_EQ(std::memcmp(&event.set, &set, sizeof set), 0);
    }
    EXPECT_EQ(seen[0].id, 31u);
    EXPECT_EQ(seen[1].id, 2u);
}

}  // namespace
}  // namespace sctest
