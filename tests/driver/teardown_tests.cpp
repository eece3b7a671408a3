// Adapter teardown and surprise removal: what teardown releases, what it tells the
// camera, that running it again finds nothing left to do, and how both deal with the
// driver's work items (deferred pipe resets and vendor requests) still queued or on
// the bus. The bring-up fault sweep covers failed bring-ups.
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using TeardownTest = DriverTest;

PVOID DriverBlock(SIZE_T size) {
    return ExAllocatePoolWithTag(NonPagedPool, size, kDriverTag);
}

const WireRequest kUnconfigure{0x00, kSetConfiguration, 0, 0, 0, {}};
const WireRequest kStopCapture{0x40,        ORNIX_REQUEST_REGISTER, 0, ORNIX_STREAM_CONTROL, 4,
                               {0, 0, 0, 0}};
const WireRequest kClearCaptureHalt{0x02, kClearFeature, 0, 0x81, 0, {}};

// The first run frees every table and reference; the second finds nothing to free.
TEST_F(TeardownTest, RunningTwiceFreesEachBlockOnceAndClearsEveryReference) {
    PORNIX_DEVICE_CONTEXT ext = Ext();
    ASSERT_GE(ext->CaptureFormatCount, 2u);
    ext->CaptureFormat = ext->NextCaptureFormat =
        CONTAINING_RECORD(ext->CaptureFormats[0], ORNIX_FORMAT_RECORD, DataRange);
    ext->StillFormat = CONTAINING_RECORD(ext->CaptureFormats[1], ORNIX_FORMAT_RECORD, DataRange);
    ext->KFreqChart = static_cast<PUSHORT>(DriverBlock(3 * sizeof(USHORT)));
    ext->KFreqChartCount = 3;
    ext->Lut8Buffer = static_cast<PUCHAR>(DriverBlock(256));
    ext->Lut8Length = 256;
    ASSERT_EQ(OrnixDeferFree(ext, DriverBlock(32)), STATUS_SUCCESS);
    EXPECT_EQ(OrnixUninitializeDevice(ext), STATUS_SUCCESS);
    EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].blocks, 0u);
    winsim::ClearDebugLog();
    Camera().ClearRequests();
    EXPECT_EQ(OrnixUninitializeDevice(ext), STATUS_SUCCESS);
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: OrnixUninitializeDevice"});
    EXPECT_TRUE(ControlRequests().empty());
    EXPECT_EQ(ext->Uninitializing, 1);
    const std::vector<const void*> pointers(
        {ext->InterfaceInfoTable, ext->ConfigurationHandle, ext->DeviceDescriptor,
         ext->ConfigurationDescriptor, ext->DeferredFreeList, ext->Lut8Buffer, ext->KFreqChart,
         ext->CaptureStreamInfo, ext->CaptureFormats, ext->CaptureFormat, ext->StillFormat,
         ext->NextCaptureFormat, ext->ExposureRange, ext->PropertySets, ext->EventSets,
         ext->VpdImage, ext->DefectSection, ext->Section4});
    EXPECT_EQ(pointers, std::vector<const void*>(pointers.size(), nullptr));
    const std::vector<ULONG> counts(
        {ext->Lut8Length, ULONG(ext->KFreqChartCount), ext->CaptureFormatCount,
         ext->PropertySetCount, ext->EventSetCount, ext->VpdLength, ext->DefectSectionLength,
         ext->Section4Length});
    EXPECT_EQ(counts, std::vector<ULONG>(counts.size(), 0));
}

// ---------------------------------------------------------------- work items

// A one-shot gate between test threads.
struct Gate {
    std::atomic<bool> open{false};
    void Open() {
        open = true;
        open.notify_all();
    }
    void Wait() { open.wait(false); }
};

// Keeps every system worker thread busy until released, so that work items queued
// meanwhile wait in the queue.
class WorkerBlockers {
  public:
    WorkerBlockers() {
        for (WORK_QUEUE_ITEM& item : items_) {
            ExInitializeWorkItem(&item, Block, &release_);
            ExQueueWorkItem(&item, DelayedWorkQueue);
        }
    }
    ~WorkerBlockers() {
        release_.Open();
        winsim::DrainWorkQueue();
    }
    void Release() { release_.Open(); }

  private:
    static VOID NTAPI Block(PVOID gate) { static_cast<Gate*>(gate)->Wait(); }
    Gate release_;
    WORK_QUEUE_ITEM items_[8];  // more than the platform has worker threads
};

// Calls `action` on the printing thread the first time the driver prints `line`.
class OnDebugLine {
  public:
    OnDebugLine(std::string line, std::function<void()> action)
        : line_(std::move(line)), action_(std::move(action)) {
        winsim::SetDebugSink([this](std::string_view text) {
            if (!fired_ && text.find(line_) != std::string_view::npos) {
                fired_ = true;
                action_();
            }
        });
    }
    ~OnDebugLine() { winsim::SetDebugSink(nullptr); }

  private:
    std::string line_;
    std::function<void()> action_;
    bool fired_ = false;  // the sink runs one output at a time
};

// Keeps the camera answering a write to register `index` until `release` returns
// true: the request stays on the bus meanwhile.
class BusHold {
  public:
    BusHold(ornixcam::Camera& camera, uint16_t index, std::function<bool()> release) {
        camera.SetWriteHook(index, [this, release](const ornixcam::RegisterWrite&) {
            held_.Open();
            while (!released_.load() && !release()) {
                std::this_thread::yield();
            }
            return ornixcam::WriteOutcome::Store;
        });
    }
    ~BusHold() { Release(); }
    void WaitUntilHeld() { held_.Wait(); }
    void Release() { released_ = true; }

  private:
    Gate held_;
    std::atomic<bool> released_{false};
};

enum class WorkKind { CaptureReset, StillReset, VendorWriteAtDispatchLevel };

class WorkAtTeardownTest : public DriverTest, public ::testing::WithParamInterface<WorkKind> {
  protected:
    // Asks for one item of `kind`: the vendor write's status (a reset returns nothing).
    NTSTATUS Queue(WorkKind kind, CallbackRecord& record) {
        if (kind != WorkKind::VendorWriteAtDispatchLevel) {
            const ULONG pipe =
                kind == WorkKind::CaptureReset ? Ext()->CapturePipe : Ext()->StillPipe;
            OrnixResetPipeNoWait(Ext(), pipe, RecordResetDone, &record);
            return STATUS_PENDING;
        }
        NTSTATUS status = STATUS_SUCCESS;
        winsim::RunAtIrql(DISPATCH_LEVEL, [&] {
            status =
                OrnixControlVendorCommand2(Ext(), ORNIX_REQUEST_REGISTER, 0, ORNIX_STREAM_CONTROL,
                                           &data_, &length_, FALSE, RecordVendorDone, &record);
        });
        return status;
    }

    ULONG data_ = 0;
    ULONG length_ = sizeof(ULONG);
};

// Teardown stops open streams (as surprise removal does) and has begun when it
// reports the paused stream stopped; the item starts only then. It must send
// nothing, and teardown must wait for it before it frees anything and leaves
// the camera unconfigured.
TEST_P(WorkAtTeardownTest, OneQueuedBeforeTeardownSendsNothingAndIsWaitedFor) {
    FakeStreams streams(Class());
    PORNIX_STREAM_CONTEXT capture = streams.Open(ORNIX_CAPTURE_STREAM, KSSTATE_PAUSE);
    CallbackRecord record;
    int callsAtCompletion = 0;
    {
        WorkerBlockers blockers;
        EXPECT_EQ(Queue(GetParam(), record), STATUS_PENDING);
        OnDebugLine teardownBegun("ORNIX: S# 0 is stopped.", [&] { blockers.Release(); });
        EXPECT_EQ(Class().Stop(), STATUS_SUCCESS);
        callsAtCompletion = record.calls;
    }
    EXPECT_EQ(callsAtCompletion, 1) << "SRB_UNINITIALIZE_DEVICE completed before the work item";
    EXPECT_EQ(record.calls, 1);
    EXPECT_EQ(record.status, STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(capture->State, KSSTATE_STOP);
    EXPECT_EQ(Camera().Configuration(), 0);
    EXPECT_EQ(ControlRequests(), std::vector<WireRequest>{kUnconfigure});
}

// Once teardown has closed the gate an item is refused at once; a refused vendor
// write calls nothing back, as when no work record can be had.
TEST_P(WorkAtTeardownTest, OneAskedForAfterTeardownIsRefused) {
    EXPECT_EQ(OrnixUninitializeDevice(Ext()), STATUS_SUCCESS);
    Camera().ClearRequests();
    CallbackRecord record;
    const bool vendor = GetParam() == WorkKind::VendorWriteAtDispatchLevel;
    const NTSTATUS status = Queue(GetParam(), record);
    EXPECT_EQ(record.calls, vendor ? 0 : 1);
    EXPECT_EQ(vendor ? status : record.status.load(), STATUS_DEVICE_NOT_READY);
    winsim::DrainWorkQueue();
    EXPECT_TRUE(ControlRequests().empty());
}

INSTANTIATE_TEST_SUITE_P(EachKind, WorkAtTeardownTest,
                         ::testing::Values(WorkKind::CaptureReset, WorkKind::StillReset,
                                           WorkKind::VendorWriteAtDispatchLevel));

// A reset already on the bus when teardown begins finishes first, on the pipe
// tables as they were; only then are they freed and the camera unconfigured.
TEST_F(TeardownTest, WaitsForAResetOnTheBusBeforeItUnconfigures) {
    FakeStreams streams(Class());
    streams.Open(ORNIX_CAPTURE_STREAM, KSSTATE_PAUSE);
    std::atomic<bool> teardownBegun{false};
    BusHold hold(Camera(), ORNIX_STREAM_CONTROL, [&] { return teardownBegun.load(); });
    CallbackRecord record;
    OrnixResetPipeNoWait(Ext(), Ext()->CapturePipe, RecordResetDone, &record);
    hold.WaitUntilHeld();
    int callsAtCompletion = 0;
    {
        OnDebugLine begun("ORNIX: S# 0 is stopped.", [&] { teardownBegun = true; });
        EXPECT_EQ(Class().Stop(), STATUS_SUCCESS);
        callsAtCompletion = record.calls;
    }
    winsim::DrainWorkQueue();
    EXPECT_EQ(callsAtCompletion, 1) << "SRB_UNINITIALIZE_DEVICE completed before the reset";
    EXPECT_EQ(record.status, STATUS_SUCCESS);
    EXPECT_EQ(ControlRequests(), (std::vector<WireRequest>{kStopCapture, kClearCaptureHalt,
                                                           kClearCaptureHalt, kUnconfigure}));
}

// A reset on the bus when the camera is removed: nothing of it may reach the stack
// once the removal request has completed. The reset holds PipeMutex from its look at
// `Removed` to its last request, and removal takes that mutex after setting the flag,
// so it cannot complete while the reset is on the bus; the reset, seeing the flag,
// sends nothing more.
TEST_F(TeardownTest, SurpriseRemovalWaitsForAResetOnTheBus) {
    PORNIX_DEVICE_CONTEXT ext = Ext();
    std::atomic<bool> pipeMutexHeldOnTheBus{false};
    BusHold hold(Camera(), ORNIX_STREAM_CONTROL, [&] {
        if (KeReadStateMutex(&ext->PipeMutex) != 1) {
            pipeMutexHeldOnTheBus = true;
        }
        return OrnixFlagIsSet(&ext->Removed) != FALSE;
    });
    CallbackRecord record;
    OrnixResetPipeNoWait(ext, ext->CapturePipe, RecordResetDone, &record);
    hold.WaitUntilHeld();
    EXPECT_EQ(Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL).status, STATUS_SUCCESS);
    const uint64_t submittedAtCompletion = Stack().Counts().submitted;
    winsim::DrainWorkQueue();
    EXPECT_TRUE(pipeMutexHeldOnTheBus);
    EXPECT_TRUE(TakenUnderRequestMutex(&ext->PipeMutex)) << "removal did not wait for resets";
    EXPECT_EQ(Stack().Counts().submitted, submittedAtCompletion);
    EXPECT_EQ(record.calls, 1);
    EXPECT_EQ(record.status, STATUS_DEVICE_REMOVED);
    EXPECT_EQ(ControlRequests(), std::vector<WireRequest>{kStopCapture});
}

// A selection changes the pipe tables a deferred reset reads (the current setting,
// the pipe handles) only under PipeMutex, which the reset holds for all its requests
// (see above). Taking the semaphore and then PipeMutex inverts the order the
// selection used; the verifier reports it.
TEST_F(TeardownTest, SelectionChangesThePipeTablesUnderPipeMutex) {
    PORNIX_DEVICE_CONTEXT ext = Ext();
    KeInitializeMutex(&ext->PipeMutex, 0);  // a fresh lock-order history
    ASSERT_EQ(OrnixSelectAltSetting(ext, ext->FpgaAltSetting), STATUS_SUCCESS);
    KeWaitForSingleObject(&ext->UsbRequestSemaphore, Executive, KernelMode, FALSE, nullptr);
    KeWaitForSingleObject(&ext->PipeMutex, Executive, KernelMode, FALSE, nullptr);
    KeReleaseMutex(&ext->PipeMutex, FALSE);
    KeReleaseSemaphore(&ext->UsbRequestSemaphore, 0, 1, FALSE);
    EXPECT_EQ(TakeViolations("LOCK_ORDER").size(), 1u);
    KeInitializeMutex(&ext->PipeMutex, 0);
    KeInitializeSemaphore(&ext->UsbRequestSemaphore, 1, 1);
}

}  // namespace
}  // namespace ornixtest
