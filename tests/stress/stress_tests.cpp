// Both pins stream while the USB stack injects every transfer fault it has,
// the camera splits frames, the application changes stream states at random
// and the camera is pulled out at a random moment. Each round is a fresh
// machine; rounds follow each other until the run's time is used up.
//
// Checked throughout: every read comes back (the stream class reports a
// request completed twice or never; a read that never returns stops the
// pin's thread and the watchdog ends the run with every thread's state); a
// fixed-size frame comes back whole and equal to the camera's frame, or
// empty; the driver's counters agree with what the application received and
// what the camera sent (PinTally::Check); nothing is left in the pool at
// unload and the verifier found nothing (the fixture's TearDown).
//
// ORNIX_STRESS_SEED reproduces a run's decisions (not the threads'
// interleaving), ORNIX_STRESS_SECONDS makes it longer (docs/stress.md).
#include <chrono>
#include <condition_variable>
#include <cinttypes>
#include <map>
#include <string>
#include <cstdio>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <thread>

#include "stream_fixture.h"
#include "stress_settings.h"
#include "watchdog.h"

namespace ornixtest {
namespace {

using ornixstress::Settings;
using ornixstress::Watchdog;
using usbsim::FaultAction;
using usbsim::FaultRule;
using usbsim::RequestKind;
using winsim::PinFrame;

constexpr ULONG kCapture = ORNIX_CAPTURE_STREAM;
constexpr ULONG kStill = ORNIX_STILL_STREAM;

// How long a pin's thread waits for one read before it looks around (is the
// round over?) and waits again; not a limit: the watchdog is.
constexpr double kReadPoll = 0.25;

using Random = std::mt19937_64;

uint64_t Pick(Random& random, uint64_t below) {
    return std::uniform_int_distribution<uint64_t>(0, below - 1)(random);
}
bool Chance(Random& random, double probability) {
    return std::uniform_real_distribution<double>(0, 1)(random) < probability;
}

std::string Refusal(KSSTATE from, KSSTATE to, NTSTATUS status) {
    static const char* const names[] = {"STOP", "ACQUIRE", "PAUSE", "RUN"};
    char text[64];
    std::snprintf(text, sizeof text, "%s -> %s: 0x%08X", names[from], names[to],
                  static_cast<unsigned>(status));
    return text;
}

// What one pin received, as the application sees it, and what its driver
// stream counted: the statistics start afresh whenever the stream leaves
// KSSTATE_STOP, so they are read at each arrival in STOP (every read back,
// the engine idle) and added up.
struct PinTally {
    uint64_t whole = 0;    // successful reads carrying a whole, correct frame
    uint64_t empty = 0;    // successful reads with no data (a broken frame)
    uint64_t failed = 0;   // reads that came back with an error status
    uint64_t partial = 0;  // successful reads with part of a frame: never allowed
    uint64_t stateChanges = 0, stateRefusals = 0, stops = 0, cancels = 0;
    std::map<std::string, uint64_t> refusals;  // "PAUSE -> RUN: 0x...": how often
    ORNIX_STREAM_STATISTICS driver{};

    void AddDriver(const ORNIX_STREAM_STATISTICS& s) {
        driver.ActualFramesCaptured += s.ActualFramesCaptured;
        driver.ActualFramesDropped += s.ActualFramesDropped;
        driver.UsbShortErrors += s.UsbShortErrors;
        driver.UsbXactErrors += s.UsbXactErrors;
        driver.UsbBabbleErrors += s.UsbBabbleErrors;
        driver.UsbOtherErrors += s.UsbOtherErrors;
    }
    uint64_t Completed() const { return whole + empty + failed + partial; }

    PinTally& operator+=(const PinTally& other) {
        whole += other.whole;
        empty += other.empty;
        failed += other.failed;
        partial += other.partial;
        stateChanges += other.stateChanges;
        stateRefusals += other.stateRefusals;
        stops += other.stops;
        cancels += other.cancels;
        for (const auto& [what, count] : other.refusals) {
            refusals[what] += count;
        }
        AddDriver(other.driver);
        return *this;
    }
};

// Faults injected on one endpoint during a round.
struct FaultTally {
    uint64_t babble = 0, xact = 0, cancelled = 0, shortData = 0, stall = 0, outOfOrder = 0,
             synchronous = 0, splits = 0;
    uint64_t Total() const {
        return babble + xact + cancelled + shortData + stall + outOfOrder + synchronous + splits;
    }
    FaultTally& operator+=(const FaultTally& other) {
        babble += other.babble;
        xact += other.xact;
        cancelled += other.cancelled;
        shortData += other.shortData;
        stall += other.stall;
        outOfOrder += other.outOfOrder;
        synchronous += other.synchronous;
        splits += other.splits;
        return *this;
    }
};

// Figures of the whole run, printed at its end.
struct RunTally {
    uint64_t rounds = 0, removals = 0, stillTriggers = 0, powerCycles = 0;
    uint64_t fpgaReloads = 0, timeouts = 0;
    PinTally pins[2];
    FaultTally faults[2];
};

class StressTest : public StreamingTest {
  protected:
    // Every other round the camera loses its FPGA configuration in D3, so
    // that the driver's way back to D0 reloads it while the pins stream.
    ornixcam::Profile CameraProfile() const override {
        ornixcam::Profile profile = StreamingTest::CameraProfile();
        profile.power.losesFpgaInD3 = losesFpga_;
        return profile;
    }

    void TearDown() override {
        StreamingTest::TearDown();
        uint64_t blocks = 0;
        for (const auto& [tag, usage] : winsim::OutstandingPool()) {
            blocks += usage.blocks;
        }
        PrintSummary(blocks);
    }

    void RunRound(uint64_t round, Watchdog& watchdog);

    RunTally run_;
    bool losesFpga_ = false;

  private:
    // One round's shared state between the controller and the pins' threads.
    struct Round {
        std::atomic<bool> over{false};
        std::atomic<bool> removed{false};
        // State changes and the removal exclude each other: the statistics
        // must be read before a request made after the removal clears them.
        std::shared_mutex stateChanges;
        // Device power cycles so far: after one the camera streams no more
        // until the host starts it again, so each pin stops and restarts.
        std::atomic<uint64_t> powerCycles{0};
        // Frames the pins took, so that faults follow the frames rather than
        // the clock: a slow build gets as many frames between faults as a
        // fast one.
        std::mutex framesMutex;
        std::condition_variable framesTaken;
        uint64_t frames[2] = {};

        void NoteFrame(ULONG pin) {
            {
                std::lock_guard lock(framesMutex);
                ++frames[pin];
            }
            framesTaken.notify_all();
        }
        // Waits for a frame of `pin` after its `seen`-th, a short real time
        // at most (a paused or stopped pin takes none); returns its frames.
        uint64_t AwaitFrameAfter(ULONG pin, uint64_t seen) {
            std::unique_lock lock(framesMutex);
            framesTaken.wait_for(lock, std::chrono::milliseconds(10),
                                 [&] { return frames[pin] > seen; });
            return frames[pin];
        }
    };

    void DrivePin(ULONG number, winsim::Pin& pin, size_t ring, Round& round, Random random,
                  Watchdog::Party& party, PinTally& tally);
    void TakeFrame(ULONG number, const PinFrame& frame, PinTally& tally, uint64_t round);
    void Control(Round& round, Random& random, uint64_t actions, std::optional<uint64_t> removeAt,
                 Watchdog::Party& party);
    void InjectFault(Random& random, ULONG pin);
    void Remove(Round& round);
    void PowerCycle(Round& round);
    void CheckRound(uint64_t round, const PinTally (&tallies)[2], const FaultTally (&faults)[2],
                    const uint64_t (&framesStarted)[2]);
    void PrintSummary(uint64_t poolBlocks) const;

    FaultTally roundFaults_[2];
    ULONG frameSize_[2] = {};
};

void StressTest::TakeFrame(ULONG number, const PinFrame& frame, PinTally& tally, uint64_t round) {
    if (frame.status != STATUS_SUCCESS) {
        ++tally.failed;
        EXPECT_EQ(frame.dataUsed, 0u)
            << "round " << round << ", pin " << number << ", status 0x" << std::hex << frame.status;
    } else if (frame.dataUsed == 0) {
        ++tally.empty;
    } else if (frame.dataUsed == frameSize_[number]) {
        ++tally.whole;
        ExpectCameraFrame(number, frame);
    } else {
        ++tally.partial;
        ADD_FAILURE() << "round " << round << ", pin " << number << ": a frame of "
                      << frame.dataUsed << " bytes out of " << frameSize_[number];
    }
}

// The application's side of one pin, on a thread of its own: frames, and
// now and then a state change an application could ask for.
void StressTest::DrivePin(ULONG number, winsim::Pin& pin, size_t ring, Round& round, Random random,
                          Watchdog::Party& party, PinTally& tally) {
    winsim::NameCurrentThread(number == kCapture ? "stress capture pin" : "stress still pin");
    const uint64_t roundNumber = run_.rounds;
    KSSTATE state = KSSTATE_RUN;  // as the pin's last accepted request left it
    bool holding = false;         // NextFrame handed out a frame not yet given back
    bool settled = false;         // stopped, and this run's statistics added up

    auto changeState = [&](KSSTATE to) {
        ++tally.stateChanges;
        party.Doing("changing the stream state");
        const NTSTATUS status = pin.SetState(to);
        party.Progress("changed the stream state");
        if (!NT_SUCCESS(status)) {
            ++tally.stateRefusals;
            ++tally.refusals[Refusal(state, to, status)];
            return false;
        }
        state = to;
        return true;
    };
    // In STOP: every read is back; the frames not yet seen are taken and the
    // statistics of the run that ended are added up.
    auto settleStopped = [&] {
        party.Doing("waiting for every read after a stop");
        while (!pin.WaitReadsBack(kReadPoll)) {
        }
        const size_t unseen = holding ? ring - 1 : ring;
        for (size_t i = 0; i < unseen; ++i) {
            std::optional<PinFrame> frame = pin.NextFrame(kPatience);
            ASSERT_TRUE(frame) << "a stopped stream's read is not back";
            TakeFrame(number, *frame, tally, roundNumber);
        }
        holding = true;
        // The release of the last frame went to the stopped stream and came
        // back at once, empty: not a frame, and not seen here.
        ++tally.stops;
        tally.AddDriver(Statistics(number));
        settled = true;
        party.Progress("stopped");
    };

    // RUN -> PAUSE -> STOP. A stop that had to wait for a late transfer
    // reports failure and leaves the stream in RUN; the next request repeats
    // it and then finds nothing pending.
    auto stopFully = [&] {
        for (int attempt = 0; attempt < 3 && state != KSSTATE_STOP; ++attempt) {
            if (state == KSSTATE_RUN) {
                changeState(KSSTATE_PAUSE);
            }
            if (state != KSSTATE_RUN) {
                changeState(KSSTATE_STOP);
            }
        }
        if (state == KSSTATE_STOP) {
            settleStopped();
        }
    };
    // STOP -> ACQUIRE -> PAUSE (the reads) -> RUN.
    auto restart = [&] {
        party.Doing("starting the stream");
        const NTSTATUS status = pin.Run();
        ++tally.stateChanges;
        state = NT_SUCCESS(status) ? KSSTATE_RUN : pin.GetState();
        if (!NT_SUCCESS(status)) {
            ++tally.stateRefusals;
            ++tally.refusals[Refusal(KSSTATE_STOP, KSSTATE_RUN, status)];
        }
        // Run sends the reads once the stream is in PAUSE; refused before,
        // it touched neither the reads nor the statistics.
        if (state != KSSTATE_STOP) {
            holding = false;
            settled = false;
        }
        party.Progress("started the stream");
    };
    uint64_t powerSeen = 0;

    // After a removal the reads still out must come back by themselves.
    while (!round.over.load() && !round.removed.load()) {
        if (state == KSSTATE_RUN) {
            party.Doing("waiting for a frame");
            std::optional<PinFrame> frame = pin.NextFrame(kReadPoll);
            if (frame) {
                holding = true;
                TakeFrame(number, *frame, tally, roundNumber);
                round.NoteFrame(number);
                party.Progress("took a frame");
            }
        }
        if (Settings().cancels && state == KSSTATE_RUN && Chance(random, 0.02)) {
            // The application cancels one of its reads: in the driver's queue
            // it comes back at once; held by the bulk engine, the stream is
            // aborted and restarted.
            party.Doing("cancelling a read");
            tally.cancels += pin.CancelRead(Pick(random, ring)) ? 1 : 0;
            party.Progress("cancelled a read");
        }
        if (powerSeen != round.powerCycles.load() && !round.removed.load()) {
            std::shared_lock lock(round.stateChanges);
            powerSeen = round.powerCycles.load();
            if (round.removed.load()) {
                continue;  // removed meanwhile: the removal stopped the stream
            }
            if (state != KSSTATE_STOP) {
                stopFully();
            }
            if (state == KSSTATE_STOP) {
                restart();
            }
            continue;
        }
        if (state != KSSTATE_RUN) {
            // A paused or stopped pin stays so for a little while.
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        if (!Chance(random, number == kCapture ? 0.03 : 0.1)) {
            continue;
        }
        std::shared_lock lock(round.stateChanges);
        if (round.removed.load()) {
            continue;  // the removal took the stream down; only reads go on
        }
        switch (state) {
            case KSSTATE_RUN:
                if (Chance(random, 0.5)) {
                    changeState(KSSTATE_PAUSE);
                } else if (changeState(Chance(random, 0.5) ? KSSTATE_PAUSE : KSSTATE_STOP) &&
                           state == KSSTATE_PAUSE) {
                    changeState(KSSTATE_STOP);
                }
                if (state == KSSTATE_STOP) {
                    settleStopped();
                }
                break;
            case KSSTATE_PAUSE:
                if (Chance(random, 0.7)) {
                    changeState(KSSTATE_RUN);
                } else if (changeState(KSSTATE_STOP)) {
                    settleStopped();
                }
                break;
            case KSSTATE_STOP:
                restart();
                break;
            default:
                break;
        }
    }

    // The end of the round: a running stream is stopped the way an
    // application stops it; a removed one has nothing more to do, and every
    // read must come back all the same.
    {
        std::shared_lock lock(round.stateChanges);
        if (!round.removed.load()) {
            if (settled) {
                return;
            }
            stopFully();
            ASSERT_EQ(state, KSSTATE_STOP) << "the stream does not stop";
            return;
        }
    }
    if (settled) {
        party.Progress("finished");
        return;  // stopped before the removal: nothing was out
    }
    party.Doing("waiting for every read after the removal");
    while (!pin.WaitReadsBack(kReadPoll)) {
    }
    const size_t unseen = holding ? ring - 1 : ring;
    for (size_t i = 0; i < unseen && state != KSSTATE_STOP; ++i) {
        std::optional<PinFrame> frame = pin.NextFrame(kPatience);
        ASSERT_TRUE(frame);
        TakeFrame(number, *frame, tally, roundNumber);
    }
    tally.AddDriver(Statistics(number));
    party.Progress("finished");
}

void StressTest::InjectFault(Random& random, ULONG pin) {
    FaultTally& tally = roundFaults_[pin];
    const uint32_t count = static_cast<uint32_t>(1 + Pick(random, 3));
    FaultRule rule{.kind = RequestKind::BulkOrInterrupt,
                   .occurrence = static_cast<uint32_t>(1 + Pick(random, 4)),
                   .count = count,
                   .endpoint = Endpoint(pin)};
    switch (Pick(random, 8)) {
        case 0:
            rule.action = FaultAction::FailWithStatus;
            rule.usbdStatus = USBD_STATUS_BABBLE_DETECTED;
            tally.babble += count;
            break;
        case 1:
            rule.action = FaultAction::FailWithStatus;
            rule.usbdStatus = USBD_STATUS_XACT_ERROR;
            tally.xact += count;
            break;
        case 2:
            rule.action = FaultAction::FailWithStatus;
            rule.usbdStatus = USBD_STATUS_CANCELED;
            tally.cancelled += count;
            break;
        case 3:
            rule.action = FaultAction::ShortData;
            rule.shortLength = static_cast<uint32_t>(512 * Pick(random, 3));
            tally.shortData += count;
            break;
        case 4:
            rule.action = FaultAction::Stall;
            tally.stall += count;
            break;
        case 5:
            rule.action = FaultAction::CompleteOutOfOrder;
            tally.outOfOrder += count;
            break;
        case 6:
            rule.action = FaultAction::CompleteSynchronously;
            tally.synchronous += count;
            break;
        default:
            // The camera ends a frame early and goes on in the next transfer.
            Camera().SplitNextFrame(Endpoint(pin),
                                    static_cast<uint32_t>(1 + Pick(random, frameSize_[pin] - 1)));
            ++tally.splits;
            return;
    }
    Stack().AddFault(rule);
}

// Pulled out as bulk_fault_tests.cpp does it: the bus first, then the
// class's surprise-removal request.
void StressTest::Remove(Round& round) {
    std::unique_lock lock(round.stateChanges);
    Stack().Remove();
    EXPECT_EQ(Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL).status, STATUS_SUCCESS);
    round.removed = true;
    ++run_.removals;
}

// The power manager sends the device to sleep and wakes it, while the pins
// may be streaming (state changes wait: the class does not run both at once
// here). The camera stops streaming without power; the pins then restart.
void StressTest::PowerCycle(Round& round) {
    std::unique_lock lock(round.stateChanges);
    EXPECT_EQ(Class().SetDevicePowerState(PowerDeviceD3).status, STATUS_SUCCESS);
    EXPECT_EQ(Class().SetDevicePowerState(PowerDeviceD0).status, STATUS_SUCCESS);
    ++round.powerCycles;
    ++run_.powerCycles;
}

// The controller: faults, splits, still triggers and the removal, paced by
// short real-time pauses so that the pins' threads get between them.
void StressTest::Control(Round& round, Random& random, uint64_t actions,
                         std::optional<uint64_t> removeAt, Watchdog::Party& party) {
    uint64_t framesSeen[2] = {};
    for (uint64_t action = 0; action < actions; ++action) {
        std::this_thread::sleep_for(std::chrono::microseconds(Pick(random, 3000)));
        party.Progress("acting on the round");
        if (removeAt && action == *removeAt) {
            party.Doing("removing the camera");
            Remove(round);
            party.Progress("removed the camera");
        }
        if (round.removed.load()) {
            continue;
        }
        const uint64_t choice = Pick(random, 10);
        if (choice < 4) {
            Camera().TriggerStill();
            ++run_.stillTriggers;
        } else if (choice < 9) {
            const ULONG pin = Pick(random, 3) == 0 ? kStill : kCapture;
            party.Doing("waiting for a frame before the next fault");
            framesSeen[pin] = round.AwaitFrameAfter(pin, framesSeen[pin]);
            InjectFault(random, pin);
        } else if (Settings().powerCycles > (losesFpga_ ? 1 : 0) && Chance(random, 0.1)) {
            // In a round whose camera loses its FPGA, the reload on the way
            // back to D0 selects interfaces while the stream engines may
            // restart on their own.
            party.Doing("power cycling the device");
            PowerCycle(round);
            party.Progress("power cycled the device");
        }
    }
}

// The counters of one round add up. For each pin:
// - every read handed out was whole, empty or failed; never part of a frame;
// - the driver counts a frame captured exactly when it completes a read
//   successfully from the bulk engine: a whole frame, or one found broken
//   and returned empty. So whole <= captured <= whole + empty (the empty
//   reads also include reads returned by a stopped or removed stream, which
//   it does not count);
// - each frame counted captured or dropped came out of a frame the camera
//   started; a split adds one more piece the driver may count. So
//   captured + dropped <= started + splits;
// - the driver counts no more bus errors of a kind than were injected.
void StressTest::CheckRound(uint64_t round, const PinTally (&tallies)[2],
                            const FaultTally (&faults)[2], const uint64_t (&framesStarted)[2]) {
    for (ULONG pin : {kCapture, kStill}) {
        SCOPED_TRACE(testing::Message()
                     << "seed " << Settings().seed << ", round " << round << ", pin " << pin);
        const PinTally& t = tallies[pin];
        EXPECT_EQ(t.partial, 0u);
        EXPECT_LE(t.whole, t.driver.ActualFramesCaptured);
        EXPECT_LE(t.driver.ActualFramesCaptured, t.whole + t.empty);
        EXPECT_LE(t.driver.ActualFramesCaptured + t.driver.ActualFramesDropped,
                  framesStarted[pin] + faults[pin].splits);
        EXPECT_LE(t.driver.UsbXactErrors, faults[pin].xact);
        EXPECT_LE(t.driver.UsbBabbleErrors, faults[pin].babble);
    }
}

void StressTest::RunRound(uint64_t round, Watchdog& watchdog) {
    Random random(Settings().seed ^ (round * 0x9E3779B97F4A7C15ull));
    for (FaultTally& f : roundFaults_) {
        f = {};
    }
    // A format of one transfer per frame or of 16-bit frames over two, at a
    // small size so that sanitizer builds get through many frames.
    const size_t range = Chance(random, 0.5) ? 0 : 4;
    const std::pair<int32_t, int32_t> sizes[] = {{160, 120}, {320, 240}, {640, 480}};
    const auto size = sizes[Pick(random, 3)];
    std::unique_ptr<winsim::Pin> pins[2];
    size_t rings[2] = {};
    for (ULONG number : {kCapture, kStill}) {
        rings[number] = 2 + Pick(random, 3);
        pins[number] = OpenPin(number, Negotiate(number, range, size), true,
                               static_cast<unsigned>(rings[number]));
        ASSERT_TRUE(pins[number]);
        ASSERT_FALSE(Stream(number)->VariableFrameSize);
        frameSize_[number] = Stream(number)->FrameSize;
        ASSERT_EQ(pins[number]->Run(), STATUS_SUCCESS);
    }
    const uint64_t actions = 100 + Pick(random, 400);
    std::optional<uint64_t> removeAt;
    if (Chance(random, 0.6)) {
        removeAt = Pick(random, actions);
    }
    std::printf(
        "[stress] round %" PRIu64 ": range %zu, %dx%d, %" PRIu64 " actions, %s\n", round, range,
        size.first, size.second, actions,
        removeAt ? ("removal at action " + std::to_string(*removeAt)).c_str() : "no removal");
    std::fflush(stdout);

    Round shared;
    PinTally tallies[2];
    std::vector<std::thread> threads;
    for (ULONG number : {kCapture, kStill}) {
        Watchdog::Party& party =
            watchdog.Watch(number == kCapture ? "capture pin thread" : "still pin thread");
        threads.emplace_back([&, number, seed = random()] {
            DrivePin(number, *pins[number], rings[number], shared, Random(seed), party,
                     tallies[number]);
            watchdog.Release(party);
        });
    }
    Watchdog::Party& controller = watchdog.Watch("controller");
    Control(shared, random, actions, removeAt, controller);
    shared.over = true;
    controller.Doing("waiting for the pins' threads");
    for (std::thread& thread : threads) {
        thread.join();
    }
    watchdog.Release(controller);

    const uint64_t framesStarted[2] = {Camera().FramesStarted(Endpoint(kCapture)),
                                       Camera().FramesStarted(Endpoint(kStill))};
    CheckRound(round, tallies, roundFaults_, framesStarted);
    pins[kCapture].reset();
    pins[kStill].reset();
    Stack().ClearFaults();
    // The download at bring-up is the first configuration; any more are
    // reloads after a power loss.
    run_.fpgaReloads += Camera().FpgaConfigurations() - 1;
    run_.timeouts += Class().TimeoutsReported();

    for (ULONG pin : {kCapture, kStill}) {
        run_.pins[pin] += tallies[pin];
        run_.faults[pin] += roundFaults_[pin];
    }
    ++run_.rounds;
}

void StressTest::PrintSummary(uint64_t poolBlocks) const {
    std::printf("[stress] seed %" PRIu64 ": %" PRIu64 " rounds, %" PRIu64 " removals, %" PRIu64
                " still triggers, %" PRIu64 " power cycles, %" PRIu64 " FPGA reloads, %" PRIu64
                " request time-outs\n",
                Settings().seed, run_.rounds, run_.removals, run_.stillTriggers, run_.powerCycles,
                run_.fpgaReloads, run_.timeouts);
    for (ULONG pin : {kCapture, kStill}) {
        const PinTally& t = run_.pins[pin];
        const FaultTally& f = run_.faults[pin];
        std::printf("[stress] %s pin: reads completed %" PRIu64 " (whole frames %" PRIu64
                    ", empty %" PRIu64 ", failed %" PRIu64 ", partial %" PRIu64
                    "); state changes %" PRIu64 " (refused %" PRIu64 ", stops %" PRIu64
                    "); cancels %" PRIu64 "\n",
                    pin == kCapture ? "capture" : "still", t.Completed(), t.whole, t.empty,
                    t.failed, t.partial, t.stateChanges, t.stateRefusals, t.stops, t.cancels);
        for (const auto& [what, count] : t.refusals) {
            std::printf("[stress]   refused %s: %" PRIu64 " times\n", what.c_str(), count);
        }
        std::printf("[stress]   driver: captured %" PRIu64 ", dropped %" PRIu64 ", short %" PRIu64
                    ", xact %" PRIu64 ", babble %" PRIu64 ", other %" PRIu64 "\n",
                    uint64_t(t.driver.ActualFramesCaptured), uint64_t(t.driver.ActualFramesDropped),
                    uint64_t(t.driver.UsbShortErrors), uint64_t(t.driver.UsbXactErrors),
                    uint64_t(t.driver.UsbBabbleErrors), uint64_t(t.driver.UsbOtherErrors));
        std::printf("[stress]   faults injected %" PRIu64 ": babble %" PRIu64 ", xact %" PRIu64
                    ", cancelled %" PRIu64 ", short %" PRIu64 ", stall %" PRIu64
                    ", out-of-order %" PRIu64 ", synchronous %" PRIu64 ", splits %" PRIu64 "\n",
                    f.Total(), f.babble, f.xact, f.cancelled, f.shortData, f.stall, f.outOfOrder,
                    f.synchronous, f.splits);
    }
    std::printf("[stress] pool blocks left at the end: %" PRIu64 "\n", poolBlocks);
    std::fflush(stdout);
}

TEST_F(StressTest, BothPinsSurviveFaultsStateChangesAndRemoval) {
    const ornixstress::StressSettings& settings = Settings();
    std::printf("[stress] seed %" PRIu64 " (ORNIX_STRESS_SEED), %.0f s (ORNIX_STRESS_SECONDS)\n",
                settings.seed, settings.seconds);
    std::fflush(stdout);
    Watchdog watchdog(settings.watchdogSeconds, "stress seed " + std::to_string(settings.seed));
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::nanoseconds(static_cast<int64_t>(settings.seconds * 1e9));
    for (uint64_t round = 0;; ++round) {
        if (round > 0) {
            // A fresh machine for each round; the old one is checked as any
            // test's is (verifier findings, pool left at unload).
            StreamingTest::TearDown();
            losesFpga_ = round % 2 == 1;
            StreamingTest::SetUp();
        }
        RunRound(round, watchdog);
        if (HasFatalFailure() || std::chrono::steady_clock::now() >= end) {
            break;
        }
    }
}

}  // namespace
}  // namespace ornixtest
