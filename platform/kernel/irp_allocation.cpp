// IRP allocation, reuse and release, with the bookkeeping that lets IoFreeIrp
// catch an IRP freed while someone else still uses it.
#include "kernel/describe.h"
#include "kernel/irp_tracker.h"
#include "kernel/kernel.h"
#include "kernel/pool.h"
#include "kernel/recently_freed.h"
#include "kernel/thread_identity.h"
#include "kernel/untraced.h"

#include <cstring>
#include <mutex>
#include <new>
#include <unordered_map>
#include <vector>

namespace winsim::kernel {
namespace {

constexpr std::align_val_t kIrpAlignment{16};
constexpr UCHAR kIrpQuotaCharged = 0x01;
constexpr UCHAR kIrpAllocatedFixedSize = 0x04;

struct IrpRecord {
    bool heldByLowerDriver = false;
    PKTHREAD completingThread = nullptr;  // while the completion walk owns it
};

// Untraced: the I/O manager's bookkeeping orders no driver threads on Windows.
struct IrpState {
    UntracedMutex mutex;
    std::unordered_map<PIRP, IrpRecord> live;
    RecentlyFreed freed;
    std::vector<PIRP> forgotten;  // outstanding at a reset; kept, never freed
};

IrpState& State() {
    static auto* state = new IrpState;
    return *state;
}

template <typename Change>
bool Update(PIRP irp, Change change) {
    IrpState& state = State();
    std::lock_guard lock(state.mutex);
    auto it = state.live.find(irp);
    if (it == state.live.end())
        return false;
    change(it->second);
    return true;
}

void CheckIrql(const char* api) {
    KIRQL irql = KeGetCurrentIrql();
    if (irql > DISPATCH_LEVEL) {
        ReportViolation("IRQL", std::string(api) + " at " + IrqlName(irql) +
                                    "; it is callable at or below DISPATCH_LEVEL");
    }
}

// Why the caller may not free or reuse the IRP now; empty when it may.
std::string BusyReason(const IrpRecord& record) {
    if (record.heldByLowerDriver) {
        return "while a lower driver still holds it; cancel it and wait for its completion "
               "routine first";
    }
    if (record.completingThread != nullptr) {
        return "while IoCompleteRequest on " + ThreadName(record.completingThread) +
               " is still completing it";
    }
    return {};
}

}  // namespace

void NoteIrpSentDown(PIRP irp) {
    Update(irp, [](IrpRecord& r) { r.heldByLowerDriver = true; });
}

bool BeginCompletionWalk(PIRP irp) {
    PKTHREAD self = KeGetCurrentThread();
    return Update(irp, [&](IrpRecord& r) {
        r.heldByLowerDriver = false;
        r.completingThread = self;
    });
}

void PauseCompletionWalk(PIRP irp) {
    Update(irp, [](IrpRecord& r) { r.completingThread = nullptr; });
}

bool ResumeCompletionWalk(PIRP irp) {
    PKTHREAD self = KeGetCurrentThread();
    return Update(irp, [&](IrpRecord& r) { r.completingThread = self; });
}

void EndCompletionWalk(PIRP irp) {
    Update(irp, [](IrpRecord& r) { r.completingThread = nullptr; });
}

bool ReportIrpLeaks(std::string_view when) {
    IrpState& state = State();
    size_t count;
    {
        std::lock_guard lock(state.mutex);
        count = state.live.size();
    }
    if (count == 0)
        return true;
    ReportViolation("IRP_LEAK", "IRP leak at " + std::string(when) + ": " + std::to_string(count) +
                                    (count == 1 ? " IRP" : " IRPs") +
                                    " from IoAllocateIrp never freed with IoFreeIrp");
    return false;
}

void ResetIrps() {
    IrpState& state = State();
    std::lock_guard lock(state.mutex);
    for (auto& [irp, record] : state.live)
        state.forgotten.push_back(irp);
    state.live.clear();
    state.freed.Clear();
}

}  // namespace winsim::kernel

namespace winsim {

void NoteIrpHeldByLowerDriver(PIRP irp) {
    kernel::NoteIrpSentDown(irp);
}

void NoteIrpReleasedByLowerDriver(PIRP irp) {
    kernel::Update(irp, [](kernel::IrpRecord& r) { r.heldByLowerDriver = false; });
}

}  // namespace winsim

using namespace winsim::kernel;

USHORT NTAPI IoSizeOfIrp(CCHAR StackSize) {
    return static_cast<USHORT>(sizeof(IRP) + StackSize * sizeof(IO_STACK_LOCATION));
}

void NTAPI IoInitializeIrp(PIRP Irp, USHORT PacketSize, CCHAR StackSize) {
    std::memset(Irp, 0, PacketSize);
    Irp->Type = IO_TYPE_IRP;
    Irp->Size = PacketSize;
    Irp->StackCount = StackSize;
    Irp->CurrentLocation = static_cast<CHAR>(StackSize + 1);
    Irp->ThreadListEntry.Flink = Irp->ThreadListEntry.Blink = &Irp->ThreadListEntry;
    // One past the last location, so that IoGetNextIrpStackLocation is the top one.
    Irp->Tail.Overlay.CurrentStackLocation =
        reinterpret_cast<PIO_STACK_LOCATION>(Irp + 1) + StackSize;
}

PIRP NTAPI IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota) {
    CheckIrql("IoAllocateIrp");
    if (StackSize < 0)
        return nullptr;
    USHORT size = IoSizeOfIrp(StackSize);
    if (AllocationMustFail(size, kTagIrp))
        return nullptr;
    auto irp = static_cast<PIRP>(::operator new(size, kIrpAlignment, std::nothrow));
    if (irp == nullptr)
        return nullptr;
    IoInitializeIrp(irp, size, StackSize);
    irp->AllocationFlags = kIrpAllocatedFixedSize | (ChargeQuota ? kIrpQuotaCharged : 0);
    IrpState& state = State();
    std::lock_guard lock(state.mutex);
    state.live[irp] = IrpRecord{};
    state.freed.Remove(irp);
    return irp;
}

void NTAPI IoFreeIrp(PIRP Irp) {
    CheckIrql("IoFreeIrp");
    IrpState& state = State();
    std::string check;
    std::string problem;
    {
        std::lock_guard lock(state.mutex);
        auto it = state.live.find(Irp);
        if (it == state.live.end()) {
            check = state.freed.Contains(Irp) ? "DOUBLE_FREE" : "BAD_POOL_FREE";
            problem = "IoFreeIrp of IRP " + Hex(Irp) +
                      (check == "DOUBLE_FREE" ? ", which was already freed"
                                              : ", which IoAllocateIrp did not allocate");
        } else if (std::string busy = BusyReason(it->second); !busy.empty()) {
            check = "IRP_FREED_WHILE_PENDING";
            problem = "IoFreeIrp of IRP " + Hex(Irp) + " " + busy;
        } else {
            state.live.erase(it);
            state.freed.Add(Irp);
        }
    }
    if (!check.empty()) {
        winsim::ReportViolation(check, problem);  // the IRP stays as it is
        return;
    }
    ForgetDispatchCalls(Irp);
    ::operator delete(Irp, kIrpAlignment);
}

void NTAPI IoReuseIrp(PIRP Irp, NTSTATUS Iostatus) {
    std::string busy;
    Update(Irp, [&](IrpRecord& r) { busy = BusyReason(r); });
    if (!busy.empty()) {
        winsim::ReportViolation("IRP_FREED_WHILE_PENDING",
                                "IoReuseIrp of IRP " + Hex(Irp) + " " + busy);
        return;
    }
    ForgetDispatchCalls(Irp);
    UCHAR allocationFlags = Irp->AllocationFlags;
    IoInitializeIrp(Irp, Irp->Size, Irp->StackCount);
    Irp->AllocationFlags = allocationFlags;
    Irp->IoStatus.Status = Iostatus;
}
