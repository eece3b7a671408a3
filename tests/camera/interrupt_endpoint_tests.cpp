// The interrupt endpoint: enabled events latched into one word per packet, NAK
// while nothing is pending, faults on demand or from the profile, the schedule.
#include <vector>

#include "camera_test_support.h"

namespace ornixcam {
namespace {

constexpr uint8_t kEndpoint = 0x83;

class EventEndpointTest : public ::testing::Test {
  protected:
    explicit EventEndpointTest(Profile profile = DefaultProfile()) : camera_(std::move(profile)) {
        camera_.SetReadyCallback([this](uint8_t address) { ready_.push_back(address); });
        EXPECT_EQ(Out(camera_, 0x00, 0x09, 1, 0), kAck);  // SET_CONFIGURATION 1
    }

    // One poll with a host buffer of `size` bytes: the handshake and the bytes sent.
    Reply Poll(size_t size = 8) {
        Reply reply{{}, Bytes(size)};
        reply.result = camera_.Transfer(kEndpoint, reply.data);
        reply.data.resize(reply.handshake() == kAck ? reply.result.actual : 0);
        return reply;
    }

    Camera camera_;
    std::vector<uint8_t> ready_;
};

// Only events the camera supports (0x7) and the host enabled are reported, each once.
TEST_F(EventEndpointTest, EnabledEventsGoOutAsOneLittleEndianWordThenTheEndpointNaks) {
    EXPECT_EQ(camera_.EventEndpoint(), kEndpoint);
    camera_.RaiseEvents(0x1);  // nothing enabled: lost
    EXPECT_EQ(Poll().handshake(), Handshake::Nak);
    ASSERT_EQ(WriteRegister(camera_, reg::kEventEnable, 0xF), kAck);
    camera_.RaiseEvents(0xC);
    camera_.RaiseEvents(0x1);
    EXPECT_EQ(ready_, (std::vector<uint8_t>{kEndpoint, kEndpoint}));
    EXPECT_EQ(Poll().data, Le32(0x5));
    EXPECT_EQ(Poll().handshake(), Handshake::Nak);
    // Disabling drops what is pending of it; a reset drops everything.
    camera_.RaiseEvents(0x7);
    ASSERT_EQ(WriteRegister(camera_, reg::kEventDisable, 0x2), kAck);
    EXPECT_EQ(Poll().data, Le32(0x5));
    camera_.RaiseEvents(0x5);
    ASSERT_EQ(WriteRegister(camera_, reg::kReset, 0xFFFFFFFF), kAck);
    EXPECT_EQ(camera_.PendingEvents(), 0u);
    EXPECT_EQ(Poll().handshake(), Handshake::Nak);
}

// Stalls and empty packets answer the next poll; a long packet waits for events
// and never exceeds the host's buffer.
TEST_F(EventEndpointTest, FaultsMisbehaveOncePacketByPacket) {
    ASSERT_EQ(WriteRegister(camera_, reg::kEventEnable, 0x7), kAck);
    camera_.InjectEventFault(EventFault::Stall);
    camera_.InjectEventFault(EventFault::ZeroLengthPacket);
    camera_.InjectEventFault(EventFault::LongPacket);
    EXPECT_EQ(Poll().handshake(), kStall);
    const Reply empty = Poll();
    EXPECT_EQ(empty.handshake(), kAck);
    EXPECT_TRUE(empty.data.empty());
    EXPECT_EQ(Poll().handshake(), Handshake::Nak);  // the long packet waits for events
    camera_.RaiseEvents(0x2);
    EXPECT_EQ(Poll(6).data, (Bytes{0x02, 0, 0, 0, 0xA5, 0xA5}));
    camera_.RaiseEvents(0x4);
    EXPECT_EQ(Poll(6).data, Le32(0x4));
}

class ScheduledEventsTest : public EventEndpointTest {
  protected:
    ScheduledEventsTest()
        : EventEndpointTest(ParseProfile(R"({"events": {
              "every": {"ms": 10, "mask": "0x1"},
              "at": [{"ms": 25, "mask": "0x4"}, {"ms": 25, "mask": "0x8"}],
              "faults": ["longPacket"], "longPacketBytes": 5}})")) {}
};

// Periods missed merge into one report; listed events come once, at their time;
// profile faults are armed from power-up.
TEST_F(ScheduledEventsTest, ScheduleRaisesWhatIsDueAndFaultsComeFromTheProfile) {
    ASSERT_EQ(WriteRegister(camera_, reg::kEventEnable, 0x7), kAck);
    EXPECT_EQ(camera_.RunEventSchedule(5 * 10'000), 10 * 10'000);
    EXPECT_EQ(camera_.PendingEvents(), 0u);
    EXPECT_EQ(camera_.RunEventSchedule(32 * 10'000), 40 * 10'000);
    EXPECT_EQ(Poll().data, (Bytes{0x05, 0, 0, 0, 0xA5}));  // 0x8 is not supported
    EXPECT_EQ(camera_.RunEventSchedule(41 * 10'000), 50 * 10'000);
    EXPECT_EQ(Poll().data, Le32(0x1));
}

}  // namespace
}  // namespace ornixcam
