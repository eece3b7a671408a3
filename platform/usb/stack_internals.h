// Internal state of the simulated USB stack, shared by its source files:
// pipes with their request queues, requests with their bus transactions, and
// the stack object behind UsbStack.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "kernel/kernel.h"
#include "usb/configuration_descriptor.h"
#include "usb/fault_rules.h"
#include "usb/usb_stack.h"
#include "usb/usb_trace.h"

namespace usbsim {

struct Pipe;

// Completes an IRP the stack will not pass on, with `status` and no data.
NTSTATUS CompleteIrpNow(PIRP irp, NTSTATUS status);

// One transaction on the bus, planned when the request is accepted.
struct BusStep {
    BusTransaction transaction;
    std::span<uint8_t> data;     // data stage, in the client's memory
    bool carriesResult = false;  // its byte count is the URB's TransferBufferLength
    uint64_t traceId = 0;        // 0 until the submission is in the trace
    bool completionTraced = false;
};

enum class RequestState {
    Waiting,      // queued, may be served
    Nakked,       // head of its queue; waits for the device's ready callback
    Stuck,        // held by a NeverComplete fault until cancel, abort or removal
    CancelOwned,  // still queued, but its cancel routine runs and completes it
    InService,    // on the bus
    Parked,       // done on the bus; completes once the requests it waits for have
    Cancelling,   // cancelled; a host-controller thread completes it when it is due
    Finishing,    // being completed
};

struct Outcome {
    USBD_STATUS status = USBD_STATUS_SUCCESS;
    ULONG actual = 0;  // data-stage bytes moved
};

struct Request {
    PIRP irp = nullptr;
    PURB urb = nullptr;
    RequestKind kind = RequestKind::Other;
    std::shared_ptr<Pipe> queue;   // served in this queue's order
    std::shared_ptr<Pipe> target;  // the pipe that a transfer, reset or abort acts on
    std::vector<BusStep> steps;
    size_t nextStep = 0;  // a NAK in the middle resumes here
    std::optional<FaultRule> fault;
    RequestState state = RequestState::Waiting;
    bool cancelOnNak = false;  // aborted, retired or removed while on the bus
    bool targetHalted = false;
    bool shortIsError = false;  // an IN transfer without USBD_SHORT_TRANSFER_OK, strict controller
    int64_t cancellationDue = 0;  // simulated time at which a cancelled request completes
    uint64_t readyGenerationSeen = 0;
    ULONG actual = 0;

    // Select configuration and select interface.
    std::optional<ConfigurationDescription> configuration;
    std::vector<size_t> interfaceOffsets;  // of each USBD_INTERFACE_INFORMATION in the URB

    // Ordering of completions: an abort or a setting change completes only
    // after the transfers it cancelled.
    std::vector<Request*> completeAfterMe;
    int waitingFor = 0;
    Outcome parkedOutcome;
};

// A pipe of the selected settings, the default control pipe, or the queue in
// which aborts wait for a host-controller thread.
struct Pipe {
    USBD_PIPE_HANDLE handle = nullptr;
    uint8_t endpointAddress = 0;
    USBD_PIPE_TYPE type = UsbdPipeTypeControl;
    uint16_t maximumPacketSize = 0;
    uint8_t interval = 0;
    ULONG maximumTransferSize = 0;
    uint8_t interfaceNumber = 0;

    // Host-side endpoint state.
    bool halted = false;
    uint8_t dataToggle = 0;
    bool retired = false;  // its setting was replaced; the handle no longer works

    std::deque<Request*> waiting;
    std::vector<Request*> active;    // taken from `waiting`, not yet completed
    bool serving = false;            // a host-controller thread has the head on the bus
    bool scheduled = false;          // in the run queue
    uint64_t readyGeneration = 0;    // ready callbacks that named this endpoint
    Request* heldForNext = nullptr;  // parked by an out-of-order fault until the next completes
    std::mutex wire;                 // one transaction at a time on the endpoint
    std::recursive_mutex completionOrder;  // completions delivered one at a time, in order
};

struct ActiveConfiguration {
    ConfigurationDescription description;
    USBD_CONFIGURATION_HANDLE handle = nullptr;
    std::map<uint8_t, uint8_t> alternateSettings;  // by interface number
};

// The device's ready callback outlives the stack inside the device model;
// this relay turns late calls into no-ops.
struct ReadyRelay {
    std::mutex mutex;
    std::function<void(uint8_t)> forward;  // empty once the stack is gone
};

inline bool HasFault(const Request& r, FaultAction action) {
    return r.fault && r.fault->action == action;
}

enum class Settlement { Requeued, Parked, CompleteNow };

struct UsbStack::Impl {
    Impl(UsbDevice& device, UsbStackOptions options);
    void Shutdown();

    static Impl* FromDevice(PDEVICE_OBJECT device);

    // ---- IRP entry points (stack_dispatch.cpp)
    static NTSTATUS NTAPI DispatchInternalDeviceControl(PDEVICE_OBJECT device, PIRP irp);
    static NTSTATUS NTAPI DispatchUnsupported(PDEVICE_OBJECT device, PIRP irp);
    // ---- device power (device_power.cpp)
    static NTSTATUS NTAPI DispatchPower(PDEVICE_OBJECT device, PIRP irp);
    void SetDevicePower(DEVICE_POWER_STATE state);
    static bool RefuseWithoutStackLocation(PDEVICE_OBJECT device, PIRP irp);
    bool Holds(PIRP irp) const;
    enum class Acceptance { Queued, ServeInline };
    NTSTATUS Submit(PIRP irp, PURB urb);
    Acceptance AcceptLocked(Request* r);
    bool ArmCancelRoutine(PIRP irp);
    void CheckIrql(RequestKind kind) const;

    // ---- URB validation and planning (urb_plan.cpp); mutex held
    USBD_STATUS PlanLocked(Request& r);
    USBD_STATUS PlanSelectConfigurationLocked(Request& r);
    USBD_STATUS PlanSelectInterfaceLocked(Request& r);
    USBD_STATUS PlanControlLocked(Request& r);
    USBD_STATUS PlanPipeRequestLocked(Request& r);
    USBD_STATUS PlanTransferLocked(Request& r);
    std::shared_ptr<Pipe> FindPipeLocked(USBD_PIPE_HANDLE handle) const;
    USBD_STATUS BindPipeLocked(Request& r, size_t bodySize, USBD_PIPE_HANDLE handle);

    // ---- cancellation (cancellation.cpp); completed on host-controller threads
    static void NTAPI CancelQueuedRequest(PDEVICE_OBJECT device, PIRP irp);
    void QueueCancellationLocked(Request* r);
    Request* TakeDueCancellationLocked();
    void WaitForWorkLocked(std::unique_lock<std::mutex>& lock);

    // ---- host-controller threads and the bus (host_controller.cpp)
    void HostControllerLoop(int index);
    Request* TakeHeadLocked(Pipe& queue);
    void ScheduleLocked(const std::shared_ptr<Pipe>& queue);
    NTSTATUS ServeAndSettle(Request* r, bool inlineCall);
    NTSTATUS ServeAbort(Request* r, bool inlineCall);
    std::optional<Outcome> Serve(Request& r);  // nullopt: the device said NAK
    void TraceRefusal(Request& r, USBD_STATUS status);
    Settlement SettleLocked(Request* r, std::optional<Outcome>& outcome,
                            std::vector<Request*>& toCancel, bool inlineCall);
    void OnReady(uint8_t endpointAddress);
    bool IsIdleLocked() const;

    // ---- completion (completion.cpp)
    void Finish(Request* r, Outcome outcome);
    void FinishAll(const std::vector<Request*>& requests, USBD_STATUS status);
    void TraceUnfinishedSteps(Request& r, USBD_STATUS status);
    void CountLocked(RequestKind kind, USBD_STATUS status);
    static void Await(Request* waiter, Request* awaited);

    // ---- pipes and settings (pipe_state.cpp); mutex held
    USBD_STATUS ApplyEffectsLocked(Request& r, const Outcome& outcome,
                                   std::vector<Request*>& toCancel);
    USBD_STATUS ApplySelectConfigurationLocked(Request& r, std::vector<Request*>& toCancel);
    USBD_STATUS ApplySelectInterfaceLocked(Request& r, std::vector<Request*>& toCancel);
    void OpenInterfaceLocked(const AlternateSettingDescription& setting,
                             USBD_INTERFACE_INFORMATION& info);
    void RetireLocked(const std::shared_ptr<Pipe>& pipe, Request* waiter,
                      std::vector<Request*>& toComplete);
    void DrainLocked(Pipe& pipe, Request* waiter, std::vector<Request*>& toComplete);
    std::vector<std::shared_ptr<Pipe>> QueuesLocked() const;
    PVOID NewHandleLocked();

    UsbDevice& device;
    const UsbStackOptions options;
    PDRIVER_OBJECT driver = nullptr;
    PDEVICE_OBJECT pdo = nullptr;

    mutable std::mutex mutex;  // everything below, and every Pipe's queue and state
    std::condition_variable workAvailable;
    std::condition_variable stateChanged;  // WaitIdle and shutdown wait on it

    std::shared_ptr<Pipe> controlPipe;
    std::shared_ptr<Pipe> abortQueue;
    std::map<USBD_PIPE_HANDLE, std::shared_ptr<Pipe>> pipes;  // of the selected settings
    std::deque<std::shared_ptr<Pipe>> runQueue;
    std::deque<Request*> cancelling;  // in the order cancelled
    int64_t cancellationLatency = 0;  // simulated 100 ns units
    std::optional<ActiveConfiguration> configuration;

    std::unordered_map<PIRP, Request*> held;  // accepted, not yet completed
    std::unordered_set<Request*> live;        // held, or still in IoCompleteRequest
    bool removed = false;
    bool shuttingDown = false;
    // False from D3 until D0: the bus carries nothing to the device.
    std::atomic<bool> powered{true};
    std::mutex powerMutex;  // one power change at a time reaches the device
    uintptr_t handlesIssued = 0;
    std::map<RequestKind, RequestCounts> counts;

    FaultRules faults;
    UsbTrace trace;
    std::shared_ptr<ReadyRelay> readyRelay;
    std::vector<std::thread> hostControllers;
};

// Completion routines of USB clients expect DISPATCH_LEVEL, as they get it
// from a real host controller's DPC.
inline void RunAtDispatchLevel(const std::function<void()>& fn) {
    if (KeGetCurrentIrql() >= DISPATCH_LEVEL) {
        fn();
    } else {
        winsim::RunAtIrql(DISPATCH_LEVEL, fn);
    }
}

}  // namespace usbsim
