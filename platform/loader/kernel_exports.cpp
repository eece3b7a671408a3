#include "loader/kernel_exports.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include <ntddk.h>
#include <strmini.h>

namespace winsim::loader {

namespace {

// The C library's routines use this host's convention; the image calls them
// with Windows'.
void* NTAPI WinMemcpy(void* to, const void* from, size_t count) {
    return std::memcpy(to, from, count);
}
void* NTAPI WinMemmove(void* to, const void* from, size_t count) {
    return std::memmove(to, from, count);
}
void* NTAPI WinMemset(void* to, int value, size_t count) {
    return std::memset(to, value, count);
}
int NTAPI WinMemcmp(const void* a, const void* b, size_t count) {
    return std::memcmp(a, b, count);
}

struct Export {
    std::string_view module;
    std::string_view name;
    void* address;
};

bool SameModule(std::string_view a, std::string_view b) {
    return std::ranges::equal(a, b, [](char x, char y) {
        return std::tolower(static_cast<unsigned char>(x)) ==
               std::tolower(static_cast<unsigned char>(y));
    });
}

}  // namespace

void* FindKernelExport(std::string_view module, std::string_view name) {
    // Local, so that it is filled on first use even by a caller that runs
    // before the program's static initialisation.
#define KERNEL(name) \
    { "ntoskrnl.exe", #name, reinterpret_cast<void*>(&name) }
#define STREAM(name) \
    { "stream.sys", #name, reinterpret_cast<void*>(&name) }

    // Every routine declared in the platform's headers that a driver may import
    // (the ones that are macros or inline on x64 Windows, such as
    // KeGetCurrentIrql and KeAcquireSpinLock, are not exported there either).
    static const Export kExports[] = {
        KERNEL(DbgBreakPoint),
        KERNEL(DbgPrint),
        KERNEL(ExAllocatePool),
        KERNEL(ExAllocatePoolWithTag),
        KERNEL(ExFreePool),
        KERNEL(ExFreePoolWithTag),
        KERNEL(ExQueueWorkItem),
        KERNEL(IoAcquireCancelSpinLock),
        KERNEL(IoAllocateIrp),
        KERNEL(IoAllocateMdl),
        KERNEL(IoCancelIrp),
        KERNEL(IoFreeIrp),
        KERNEL(IoFreeMdl),
        KERNEL(IoInitializeIrp),
        KERNEL(IoOpenDeviceRegistryKey),
        KERNEL(IoReleaseCancelSpinLock),
        KERNEL(IoReuseIrp),
        KERNEL(IoSizeOfIrp),
        KERNEL(IofCallDriver),
        KERNEL(IofCompleteRequest),
        KERNEL(KeAcquireSpinLockAtDpcLevel),
        KERNEL(KeAcquireSpinLockRaiseToDpc),
        KERNEL(KeClearEvent),
        KERNEL(KeDelayExecutionThread),
        KERNEL(KeInitializeEvent),
        KERNEL(KeInitializeMutex),
        KERNEL(KeInitializeSemaphore),
        KERNEL(KeQueryInterruptTime),
        KERNEL(KeQueryPerformanceCounter),
        KERNEL(KeQuerySystemTime),
        KERNEL(KeReadStateEvent),
        KERNEL(KeReadStateMutex),
        KERNEL(KeReadStateSemaphore),
        KERNEL(KeReleaseMutex),
        KERNEL(KeReleaseSemaphore),
        KERNEL(KeReleaseSpinLock),
        KERNEL(KeReleaseSpinLockFromDpcLevel),
        KERNEL(KeResetEvent),
        KERNEL(KeSetEvent),
        KERNEL(KeWaitForSingleObject),
        KERNEL(MmBuildMdlForNonPagedPool),
        KERNEL(RtlAssert),
        KERNEL(RtlCompareMemory),
        KERNEL(RtlInitUnicodeString),
        KERNEL(ZwClose),
        KERNEL(ZwQueryValueKey),
        {"ntoskrnl.exe", "memcpy", reinterpret_cast<void*>(&WinMemcpy)},
        {"ntoskrnl.exe", "memmove", reinterpret_cast<void*>(&WinMemmove)},
        {"ntoskrnl.exe", "memset", reinterpret_cast<void*>(&WinMemset)},
        {"ntoskrnl.exe", "memcmp", reinterpret_cast<void*>(&WinMemcmp)},
        STREAM(StreamClassDeviceNotification),
        STREAM(StreamClassQueryMasterClockSync),
        STREAM(StreamClassRegisterAdapter),
        STREAM(StreamClassStreamNotification),
    };

#undef KERNEL
#undef STREAM

    for (const Export& entry : kExports) {
        if (entry.name == name && SameModule(entry.module, module)) {
            return entry.address;
        }
    }
    return nullptr;
}

}  // namespace winsim::loader
