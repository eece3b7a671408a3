// What the streaming tests share: a started adapter on a camera that sends
// frames as fast as they are asked for, pins opened with a negotiated
// format, and checks of delivered frames against what the camera sent.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "driver_harness.h"
#include "streamclass/data_intersection.h"
#include "streamclass/pin.h"

namespace ornixtest {

// Real seconds any single wait for the driver may take before the test fails.
inline constexpr double kPatience = 30;

class StreamingTest : public DriverTest {
  protected:
    void SetUp() override {
        DriverTest::SetUp();
        if (StartsAdapterInSetUp()) {
            Camera().SetPacing(false);
        }
    }

    // The format the intersection answers for range `range` of `pin`, at
    // another size if asked.
    Bytes Negotiate(ULONG pin, size_t range = 0,
                    std::optional<std::pair<int32_t, int32_t>> size = std::nullopt) {
        const std::vector<uint8_t>& offered = Class().Filter().pins.at(pin).ranges.at(range).bytes;
        Bytes request = offered;
        if (size) {
            request = *winsim::VideoRangeRequest(offered, size->first, size->second, std::nullopt);
        }
        winsim::IntersectionAnswer answer =
            Class().PinDataIntersection(pin, winsim::PackDataRanges({request}), 4096);
        EXPECT_EQ(answer.status, STATUS_SUCCESS);
        return answer.format;
    }

    std::unique_ptr<winsim::Pin> OpenPin(ULONG pin, Bytes format, bool masterClock = true,
                                         unsigned queuedReads = 4) {
        winsim::PinOptions options;
        options.pin = pin;
        options.format = std::move(format);
        options.masterClock = masterClock;
        options.queuedReads = queuedReads;
        NTSTATUS status = STATUS_PENDING;
        std::unique_ptr<winsim::Pin> opened = winsim::Pin::Open(Class(), options, &status);
        EXPECT_EQ(status, STATUS_SUCCESS);
        return opened;
    }
    std::unique_ptr<winsim::Pin> OpenPin(ULONG pin, size_t range = 0) {
        return OpenPin(pin, Negotiate(pin, range));
    }

    PORNIX_STREAM_CONTEXT Stream(ULONG pin) const { return Ext()->StreamContexts[pin]; }
    uint8_t Endpoint(ULONG pin) {
        return *(pin == ORNIX_STILL_STREAM ? Camera().StillEndpoint() : Camera().CaptureEndpoint());
    }
    ORNIX_STREAM_STATISTICS Statistics(ULONG pin) const {
        ORNIX_STREAM_STATISTICS statistics{};
        StreamReadStatistics(Stream(pin), &statistics);
        return statistics;
    }

    // The camera's frame number in a delivered frame; every byte matches
    // that frame except the hot samples, which the correction replaced.
    uint64_t ExpectCameraFrame(ULONG pin, const winsim::PinFrame& frame) {
        EXPECT_EQ(frame.status, STATUS_SUCCESS);
        std::optional<uint64_t> number = Camera().FrameNumberOf(Endpoint(pin), frame.data);
        if (!number) {
            ADD_FAILURE() << "no frame number in the delivered bytes";
            return 0;
        }
        if (Stream(pin)->VariableFrameSize) {
            // A point list: the correction strikes defects out of it, so
            // only its length and number can be checked here.
            EXPECT_LT(frame.data.size(), Stream(pin)->FrameSize);
            return *number;
        }
        std::vector<uint8_t> expected = Camera().ExpectedFrame(Endpoint(pin), *number);
        EXPECT_EQ(frame.data.size(), expected.size());
        size_t mismatches = 0;
        for (size_t i = 0; i < std::min(expected.size(), frame.data.size()); ++i) {
            mismatches += expected[i] != frame.data[i];
        }
        // Each hot sample is two bytes at most.
        EXPECT_LE(mismatches, 2 * Camera().HotSamples(Endpoint(pin)).size());
        return *number;
    }

    // The first `count` frames of a running pin.
    std::vector<uint64_t> TakeFrames(winsim::Pin& pin, ULONG number, int count) {
        std::vector<uint64_t> numbers;
        for (int i = 0; i < count; ++i) {
            std::optional<winsim::PinFrame> frame = pin.NextFrame(kPatience);
            if (!frame) {
                ADD_FAILURE() << "frame " << i << " never came";
                break;
            }
            numbers.push_back(ExpectCameraFrame(number, *frame));
        }
        return numbers;
    }
};

}  // namespace ornixtest
