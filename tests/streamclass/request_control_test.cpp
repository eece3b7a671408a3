// What the class does to requests from outside their own path: an
// application's cancel reaches the minidriver's cancel routine at
// DISPATCH_LEVEL for outstanding SRBs only and never doubles or loses a
// completion it races; the once-a-second countdown calls the time-out
// handler once per sending when a counter runs out; and power changes reach
// the minidriver and the bus in the power manager's order.
#include <gtest/gtest.h>

#include <condition_variable>
#include <string>
#include <thread>

#include "fake_streaming_minidriver.h"
#include "usb/usb_stack.h"

namespace sctest {
namespace {

constexpr double kPatience = 60.0;  // real seconds; only a lost request waits this long

struct Call {
    PHW_STREAM_REQUEST_BLOCK srb = nullptr;
    KIRQL irql = 0;
};

// The minidriver's cancel and time-out routines, as a test scripts them.
struct ControlHooks {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Call> cancels, timeouts;
    // Completes whatever it is asked to cancel, queued or not: the faulty routine.
    bool cancelBlindly = false;
    // An adapter request the minidriver keeps until it is cancelled.
    ULONG holdCommand = ~0u;  // none
    PHW_STREAM_REQUEST_BLOCK held = nullptr;

    template <typename Predicate>
    bool WaitFor(Predicate done) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::duration<double>(kPatience), done);
    }
};
ControlHooks* hooks = nullptr;

void Note(std::vector<Call>& calls, PHW_STREAM_REQUEST_BLOCK srb) {
    std::lock_guard lock(hooks->mutex);
    calls.push_back({srb, KeGetCurrentIrql()});
    hooks->changed.notify_all();
}

// Takes a queued read out of the fake's queue, as the driver's cancel does.
bool Dequeue(PHW_STREAM_REQUEST_BLOCK srb) {
    std::lock_guard lock(streaming->mutex);
    auto& queue = streaming->queued[srb->StreamObject->StreamNumber];
    const auto it = std::find(queue.begin(), queue.end(), srb);
    if (it == queue.end()) {
        return false;
    }
    queue.erase(it);
    return true;
}

void STREAMAPI HookCancel(PHW_STREAM_REQUEST_BLOCK srb) {
    Note(hooks->cancels, srb);
    if (srb->StreamObject == nullptr) {
        PHW_STREAM_REQUEST_BLOCK held = nullptr;
        {
            std::lock_guard lock(hooks->mutex);
            held = std::exchange(hooks->held, nullptr);
        }
        if (held == srb) {
            CompleteAdapterSrb(srb, STATUS_CANCELLED);
        }
        return;
    }
    // The faulty routine leaves the read where the read path will find it.
    if (hooks->cancelBlindly || Dequeue(srb)) {
        srb->CommandData.DataBufferArray->DataUsed = 0;
        CompleteStreamSrb(srb, STATUS_CANCELLED);
    }
}

void STREAMAPI HookTimeout(PHW_STREAM_REQUEST_BLOCK srb) {
    Note(hooks->timeouts, srb);
}

class RequestControlTest : public StreamingTest {
  protected:
    void SetUp() override {
        StreamClassTest::SetUp();
        hooks = &hooks_;
        fake.editRegistration = [](HW_INITIALIZATION_DATA& data) {
            data.PerStreamExtensionSize = kStreamExtensionSize;
            data.HwCancelPacket = HookCancel;
            data.HwRequestTimeoutHandler = HookTimeout;
        };
        fake.onSrb = [](PHW_STREAM_REQUEST_BLOCK srb) {
            {
                std::lock_guard lock(hooks->mutex);
                if (static_cast<ULONG>(srb->Command) == hooks->holdCommand) {
                    hooks->held = srb;
                    hooks->changed.notify_all();
                    return;
                }
            }
            StreamingAdapterSrb(srb);
        };
        streaming = &state_;
        sc_.emplace(FakeDriverEntry);
        sc_->AddDevice(pdo_);
        ASSERT_EQ(sc_->Start(), STATUS_SUCCESS);
    }
    void TearDown() override {
        StreamingTest::TearDown();
        hooks = nullptr;
    }

    std::vector<Call> Cancels() {
        std::lock_guard lock(hooks_.mutex);
        return hooks_.cancels;
    }

    ControlHooks hooks_;
};

TEST_F(RequestControlTest, CancelCallsTheRoutineAtDispatchLevelForOutstandingReadsOnly) {
    auto pin = winsim::Pin::Open(*sc_, Options(0));
    ASSERT_NE(pin, nullptr);
    auto first = pin->SubmitRead(), second = pin->SubmitRead(), third = pin->SubmitRead();

    EXPECT_TRUE(pin->CancelRead(1));
    std::optional<winsim::PinFrame> cancelled = second->Wait(kPatience);
    ASSERT_TRUE(cancelled.has_value());
    EXPECT_EQ(cancelled->status, STATUS_CANCELLED);
    EXPECT_EQ(cancelled->dataUsed, 0u);
    ASSERT_EQ(Cancels().size(), 1u);
    EXPECT_EQ(Cancels()[0].srb, second->Srb());
    EXPECT_EQ(Cancels()[0].irql, DISPATCH_LEVEL);

    // Complete requests are not the minidriver's any more.
    EXPECT_FALSE(second->Cancel());
    CompleteRead(TakeRead(0), STATUS_SUCCESS, 100);
    ASSERT_TRUE(first->Wait(kPatience).has_value());
    EXPECT_FALSE(first->Cancel());
    EXPECT_EQ(Cancels().size(), 1u);
    EXPECT_FALSE(pin->CancelRead(1));  // only the third is left
    EXPECT_TRUE(pin->CancelRead(0));
    EXPECT_EQ(third->Wait(kPatience)->status, STATUS_CANCELLED);
    EXPECT_EQ(Cancels().size(), 2u);
}

TEST_F(RequestControlTest, ACancelledStreamingReadIsHandedOutAndSentAgainRearmed) {
    auto pin = winsim::Pin::Open(*sc_, Options(0));
    ASSERT_NE(pin, nullptr);
    ASSERT_EQ(pin->Run(), STATUS_SUCCESS);
    ASSERT_EQ(state_.reads.size(), 4u);
    const PHW_STREAM_REQUEST_BLOCK oldest = state_.reads[0].srb;
    EXPECT_EQ(state_.reads[0].timeoutCounter, 15u);
    oldest->TimeoutCounter = 0;  // the minidriver may take the time-out off

    ASSERT_TRUE(pin->CancelRead(0));
    std::optional<winsim::PinFrame> frame = pin->NextFrame(kPatience);
    ASSERT_TRUE(frame.has_value());
    EXPECT_EQ(frame->status, STATUS_CANCELLED);
    EXPECT_EQ(frame->sequence, 0u);
    CompleteRead(TakeRead(0), STATUS_SUCCESS, 64);
    frame = pin->NextFrame(kPatience);
    ASSERT_TRUE(frame.has_value());
    EXPECT_EQ(frame->status, STATUS_SUCCESS);
    EXPECT_EQ(frame->sequence, 1u);
    // The cancelled read went out again, armed afresh.
    ASSERT_EQ(state_.reads.size(), 5u);
    EXPECT_EQ(state_.reads[4].srb, oldest);
    EXPECT_EQ(state_.reads[4].timeoutCounter, 15u);
}

TEST_F(RequestControlTest, AnOutstandingAdapterRequestIsCancelledToo) {
    winsim::SetTimeScale(1.0);  // the sender waits long enough for the cancel
    hooks_.holdCommand = SRB_PAGING_OUT_DRIVER;
    winsim::SrbResult result;
    std::thread sender([&] { result = sc_->PageOutDriver(); });
    ASSERT_TRUE(hooks_.WaitFor([&] { return hooks_.held != nullptr; }));
    PHW_STREAM_REQUEST_BLOCK held = hooks_.held;
    EXPECT_TRUE(sc_->CancelSrb(held));
    sender.join();
    EXPECT_TRUE(result.completed);
    EXPECT_EQ(result.status, STATUS_CANCELLED);
    ASSERT_EQ(Cancels().size(), 1u);
    EXPECT_EQ(Cancels()[0].srb, held);
    EXPECT_EQ(Cancels()[0].irql, DISPATCH_LEVEL);
    EXPECT_FALSE(sc_->CancelSrb(held));
}

TEST_F(RequestControlTest, ACancelRacingTheCompletionCompletesEachReadExactlyOnce) {
    auto pin = winsim::Pin::Open(*sc_, Options(0));
    ASSERT_NE(pin, nullptr);
    int cancelled = 0, completed = 0;
    for (int i = 0; i < 200; ++i) {
        auto read = pin->SubmitRead(256);
        std::thread completer([] {
            winsim::NameCurrentThread("test host controller");
            winsim::RunAtIrql(DISPATCH_LEVEL, [] {
                if (PHW_STREAM_REQUEST_BLOCK srb = TakeRead(0)) {
                    srb->CommandData.DataBufferArray->DataUsed = 256;
                    CompleteStreamSrb(srb, STATUS_SUCCESS);
                }
            });
        });
        read->Cancel();
        completer.join();
        std::optional<winsim::PinFrame> frame = read->Wait(kPatience);
        ASSERT_TRUE(frame.has_value()) << "read " << i << " never came back";
        (frame->status == STATUS_CANCELLED ? cancelled : completed) += 1;
        EXPECT_EQ(frame->dataUsed, frame->status == STATUS_CANCELLED ? 0u : 256u);
    }
    EXPECT_EQ(cancelled + completed, 200);
    EXPECT_EQ(pin->ReadsOutstanding(), 0u);
}

TEST_F(RequestControlTest, ACancelRoutineThatCompletesWhatItDoesNotHoldIsCaught) {
    hooks_.cancelBlindly = true;
    auto pin = winsim::Pin::Open(*sc_, Options(0));
    ASSERT_NE(pin, nullptr);
    auto read = pin->SubmitRead();
    ASSERT_TRUE(read->Cancel());
    ASSERT_TRUE(read->Wait(kPatience).has_value());
    CompleteRead(TakeRead(0), STATUS_SUCCESS, 10);  // the read path still had it
    kerneltest::KernelTest::ExpectViolation("SRB_COMPLETED_TWICE", {"SRB_READ_DATA"});
}

TEST_F(RequestControlTest, TheTimeoutHandlerRunsOncePerSendingWhenItsCounterRunsOut) {
    // The clock crawls until `done` is completed, however slow this machine,
    // then a second becomes 100 ms.
    auto pin = winsim::Pin::Open(*sc_, Options(0));
    ASSERT_NE(pin, nullptr);
    winsim::SetTimeScale(0.001);
    auto off = pin->SubmitRead(), two = pin->SubmitRead(), fifteen = pin->SubmitRead(),
         done = pin->SubmitRead(), twenty = pin->SubmitRead();
    off->Srb()->TimeoutCounter = 0;
    two->Srb()->TimeoutCounter = 2;
    twenty->Srb()->TimeoutCounter = 20;
    done->Srb()->TimeoutCounter = 10;
    // Completed reads are not counted down.
    ASSERT_EQ(TakeRead(0), off->Srb());
    ASSERT_EQ(TakeRead(0), two->Srb());
    ASSERT_EQ(TakeRead(0), fifteen->Srb());
    CompleteRead(TakeRead(0), STATUS_SUCCESS, 10);
    ASSERT_TRUE(done->Wait(kPatience).has_value());
    winsim::SetTimeScale(10.0);

    ASSERT_TRUE(hooks_.WaitFor([&] { return hooks_.timeouts.size() >= 3; }));
    std::vector<PHW_STREAM_REQUEST_BLOCK> order;
    {
        std::lock_guard lock(hooks_.mutex);
        for (const Call& call : hooks_.timeouts) {
            order.push_back(call.srb);
            EXPECT_EQ(call.irql, DISPATCH_LEVEL);
        }
    }
    // By the 20-second one, the others had five and eighteen seconds more.
    EXPECT_EQ(order, (std::vector{two->Srb(), fifteen->Srb(), twenty->Srb()}));
    EXPECT_EQ(sc_->TimeoutsReported(), 3u);
    EXPECT_EQ(two->Srb()->TimeoutCounter, 0u);
    EXPECT_FALSE(two->Completed());  // the handler decides; the class only reports

    // The reads are still the minidriver's until it completes them.
    for (auto* read : {off->Srb(), two->Srb(), fifteen->Srb(), TakeRead(0)}) {
        CompleteRead(read, STATUS_SUCCESS, 10);
    }
}

// A device model that notes its power changes in the log the minidriver
// writes its power SRBs to, so that their order shows.
std::mutex powerLogMutex;
std::vector<std::string> powerLog;

void LogPower(std::string entry) {
    std::lock_guard lock(powerLogMutex);
    powerLog.push_back(std::move(entry));
}

class PoweredDevice final : public usbsim::UsbDevice {
  public:
    usbsim::TransferResult Control(const usbsim::SetupPacket&, std::span<uint8_t>) override {
        return usbsim::TransferResult::Stall();
    }
    usbsim::TransferResult Transfer(uint8_t, std::span<uint8_t>) override {
        return usbsim::TransferResult::Stall();
    }
    void SetReadyCallback(std::function<void(uint8_t)>) override {}
    usbsim::BusSpeed Speed() const override { return usbsim::BusSpeed::High; }
    void SetPowered(bool powered) override { LogPower(powered ? "device on" : "device off"); }
};

class DevicePowerTest : public StreamClassTest {
  protected:
    void SetUp() override {
        StreamClassTest::SetUp();
        powerLog.clear();
        fake.onSrb = [this](PHW_STREAM_REQUEST_BLOCK srb) {
            if (srb->Command == SRB_CHANGE_POWER_STATE) {
                LogPower("SRB " + std::to_string(static_cast<ULONG>(srb->CommandData.DeviceState)));
                CompleteAdapterSrb(srb, minidriverAnswer_);
                return;
            }
            StreamingAdapterSrb(srb);
        };
        stack_ = std::make_unique<usbsim::UsbStack>(device_);
        sc_.emplace(FakeDriverEntry);
        sc_->AddDevice(stack_->PhysicalDeviceObject());
        ASSERT_EQ(sc_->Start(), STATUS_SUCCESS);
    }
    void TearDown() override {
        sc_.reset();
        stack_.reset();
        StreamClassTest::TearDown();
    }

    // The log of one power change, and its SRB's status.
    std::vector<std::string> Change(ULONG state, NTSTATUS* status = nullptr) {
        powerLog.clear();
        const winsim::SrbResult result =
            sc_->SetDevicePowerState(static_cast<DEVICE_POWER_STATE>(state));
        EXPECT_TRUE(result.completed);
        if (status != nullptr) {
            *status = result.status;
        }
        std::lock_guard lock(powerLogMutex);
        return powerLog;
    }

    using Log = std::vector<std::string>;
    PoweredDevice device_;
    std::unique_ptr<usbsim::UsbStack> stack_;
    std::optional<winsim::StreamClass> sc_;
    NTSTATUS minidriverAnswer_ = STATUS_SUCCESS;
};

// The device loses power whatever the minidriver answers; values outside the
// device states reach only the minidriver.
TEST_F(DevicePowerTest, DownTellsTheMinidriverFirstAndUpPowersTheDeviceFirst) {
    const struct {
        ULONG state;
        NTSTATUS answer;  // the minidriver's, and so the SRB's
        Log log;
        bool powered;  // afterwards
    } steps[] = {
        {PowerDeviceD3, STATUS_SUCCESS, {"SRB 4", "device off"}, false},
        {PowerDeviceD0, STATUS_SUCCESS, {"device on", "SRB 1"}, true},
        {PowerDeviceD1, STATUS_SUCCESS, {"SRB 2"}, true},  // D1 and D2 keep the power
        {PowerDeviceD2, STATUS_SUCCESS, {"SRB 3"}, true},
        {0, STATUS_INVALID_PARAMETER, {"SRB 0"}, true},
        {5, STATUS_SUCCESS, {"SRB 5"}, true},
        {PowerDeviceD3, STATUS_UNSUCCESSFUL, {"SRB 4", "device off"}, false},
        {PowerDeviceD0, STATUS_SUCCESS, {"device on", "SRB 1"}, true},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(::testing::Message() << "state " << step.state);
        minidriverAnswer_ = step.answer;
        NTSTATUS status = STATUS_PENDING;
        EXPECT_EQ(Change(step.state, &status), step.log);
        EXPECT_EQ(status, step.answer);
        EXPECT_EQ(stack_->DevicePowered(), step.powered);
    }
}

}  // namespace
}  // namespace sctest
