// Host-side control of the simulated Windows kernel.
//
// The driver only sees the Windows API of platform/include. Tests, the USB
// stack, the stream class and the tools use this interface to set the machine
// up, inject faults, read the debugger output and ask the verifier what it saw.
// One simulated machine exists per process.
#pragma once

#include <wdm.h>

#include <cstdarg>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace winsim {

// ---------------------------------------------------------------- life cycle

// Returns the machine to a fresh state: verifier findings, debugger log, pool
// failure rules, registry, time scale, lock-order history and the calling
// thread's IRQL. Outstanding pool blocks and IRPs are forgotten (check them
// first with CheckPoolEmpty). Waits for the work queue to drain.
void ResetKernel();

// ---------------------------------------------------------------- time

// Simulated seconds per real second for every timed wait, delay and clock:
// with 1000, a 5-second time-out passes after 5 real milliseconds.
void SetTimeScale(double simulatedPerReal);
double TimeScale();

// Simulated monotonic time in 100 ns units since the machine started.
int64_t Now100ns();

// ---------------------------------------------------------------- verifier

// A finding of the verifier: which check fired and a clear message.
struct Violation {
    std::string check;  // e.g. "IRQL", "LOCK_ORDER", "MUTEX_OWNER", "POOL_LEAK", "DOUBLE_FREE",
                        // "SRB_COMPLETED_TWICE", "SRB_NEVER_COMPLETED", "IRP_FREED_WHILE_PENDING",
                        // "ASSERT", "BAD_POOL_FREE", "SEMAPHORE_LIMIT", "IRP_LEAK",
                        // "IRP_STACK", "IRP_COMPLETION", "BAD_HANDLE", "HANDLE_LEAK",
                        // "SPIN_LOCK", "WORK_ITEM", "BAD_OBJECT", "BREAKPOINT",
                        // "SPIN_LOCK_IRQL", "SPIN_LOCK_ORDER", "SPIN_LOCK_HELD",
                        // "CALLBACK_RETURN", "IRP_PENDING", "PAGED_CODE", "DBGPRINT_IRQL",
                        // "POOL_CORRUPTION"
    std::string message;
};

enum class VerifierMode {
    Abort,   // print the finding to stderr and abort the process (tools, default)
    Record,  // keep the finding for TakeViolations and carry on safely (tests)
};

void SetVerifierMode(VerifierMode mode);

// Platform components call this when a check fires. In Record mode the call
// returns and the caller must carry on without doing the faulty operation
// (e.g. a second free is ignored).
void ReportViolation(std::string_view check, std::string message);

// Findings so far, oldest first; the list is emptied.
std::vector<Violation> TakeViolations();

// ---------------------------------------------------------------- pool

struct PoolUsage {
    uint64_t blocks = 0;
    uint64_t bytes = 0;
};

// Blocks still allocated, per pool tag.
std::map<ULONG, PoolUsage> OutstandingPool();

// Reports one POOL_LEAK violation per tag that still holds blocks ("when"
// names the moment, e.g. "driver unload"), an IRP_LEAK for IRPs never freed
// and a HANDLE_LEAK for registry keys never closed. Returns true when nothing
// is left.
bool CheckPoolEmpty(std::string_view when);

// Total number of successful and failed allocation attempts since reset.
uint64_t AllocationAttempts();

// Allocation-failure injection. Rules add up; each allocation that matches
// any rule returns NULL. IoAllocateIrp (tag 'Irp ') and IoAllocateMdl (tag
// 'Mdl ') count as attempts and obey the rules too.
void FailNthAllocation(uint64_t n);       // the n-th attempt from now (1 = next)
void FailAllocationsOfSize(SIZE_T size);  // every attempt of exactly this size
void FailAllocationsWithTag(ULONG tag);   // every attempt with this tag
void ClearAllocationFailures();

// Guard pages, like Driver Verifier's special pool, for code the sanitizers
// cannot see: each block from now on gets pages of its own, ends where an
// inaccessible page begins (its size rounded up to 16 bytes on 64-bit hosts,
// 8 on 32-bit ones) and has one before its pages; freed pages stay
// inaccessible for a while. A step outside a block or a use after free then
// faults at once; a write into the rounding or the room before the block is
// a POOL_CORRUPTION at its free. Off unless the environment holds
// ORNIX_POOL_GUARD=1 when the pool is first used; blocks keep the mode they
// were allocated in.
void SetPoolGuardPages(bool on);
bool PoolGuardPages();

// Renders a tag as its four characters, e.g. 0x206D6457 as "Wdm ".
std::string TagName(ULONG tag);

// ---------------------------------------------------------------- debugger output

// Every DbgPrint line, formatted with the kernel's rules, oldest first.
std::vector<std::string> DebugLog();
void ClearDebugLog();

// Optional extra sink (e.g. ornixctl --log FILE); receives each formatted
// DbgPrint output as it happens.
void SetDebugSink(std::function<void(std::string_view)> sink);

// Formats like the kernel's DbgPrint: %lx and %ld are 32-bit, %I64x 64-bit,
// %ws and %S are 16-bit strings, %wZ a UNICODE_STRING, %p pointer width.
std::string FormatDbgPrint(const char* format, va_list args);

// ---------------------------------------------------------------- objects

// A driver object with the given name, for simulated drivers (the USB stack,
// the stream class). Freed by DeleteDriverObject.
PDRIVER_OBJECT CreateDriverObject(std::u16string_view name);
void DeleteDriverObject(PDRIVER_OBJECT driver);

// A device object of `driver` with a zeroed extension of extensionSize bytes
// and the given IRP stack size. Freed by DeleteDeviceObject.
PDEVICE_OBJECT CreateDeviceObject(PDRIVER_OBJECT driver, ULONG extensionSize, CCHAR stackSize);
void DeleteDeviceObject(PDEVICE_OBJECT device);

// IRPs that a lower driver currently holds (between its dispatch routine
// receiving them and IoCompleteRequest). Lower drivers report this so that
// IoFreeIrp can catch an IRP freed while pending.
void NoteIrpHeldByLowerDriver(PIRP irp);
void NoteIrpReleasedByLowerDriver(PIRP irp);

// ---------------------------------------------------------------- registry

// Values of a device's registry keys (PLUGPLAY_REGKEY_DRIVER or _DEVICE),
// read through IoOpenDeviceRegistryKey / ZwQueryValueKey.
void SetRegistryString(PDEVICE_OBJECT device, ULONG keyType, std::u16string_view name,
                       std::u16string_view value);
void SetRegistryValue(PDEVICE_OBJECT device, ULONG keyType, std::u16string_view name, ULONG type,
                      std::vector<uint8_t> data);
void ClearRegistry(PDEVICE_OBJECT device);

// Makes IoOpenDeviceRegistryKey of the device fail with `status` until
// cleared with STATUS_SUCCESS. Without it, keys open (empty if nothing was set).
void FailRegistryOpen(PDEVICE_OBJECT device, NTSTATUS status);

// ---------------------------------------------------------------- threads and IRQL

// Runs fn on the calling thread at the given IRQL, restoring the old one.
void RunAtIrql(KIRQL irql, const std::function<void()>& fn);

// Blocks until the work queues are empty and no work item runs. Never call
// it from a work item: it would wait for itself.
void DrainWorkQueue();

// Marks the calling host thread as a platform thread for the verifier (the
// host-controller threads, workers); optional name for messages.
void NameCurrentThread(std::string_view name);

// One line per live thread the kernel has seen: its name, its Linux thread id and
// what it is blocked on in the kernel (a wait on an event, mutex or semaphore,
// a delay, a spin on a taken spin lock), with the holder of a mutex or spin
// lock. For watchdogs that must explain a hang before they end the process.
std::string DescribeThreads();

}  // namespace winsim
