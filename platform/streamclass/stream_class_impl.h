// The stream class's private state, shared by the files that implement it.
#pragma once

#include <sanitizer/asan_interface.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "kernel/kernel.h"
#include "streamclass/adapter_directory.h"
#include "streamclass/request_timer.h"
#include "streamclass/srb_registry.h"
#include "streamclass/stream_class.h"

namespace winsim {
namespace detail {

// How long the class waits for a minidriver to complete an adapter SRB
// before the verifier calls it lost: generous, in simulated time.
inline constexpr int64_t kAdapterSrbPatience100ns = 120LL * 10'000'000;

// Guard behind the stream descriptor buffer, to catch overruns: room for a
// whole extra stream record, the usual mistake.
inline constexpr size_t kGuardBytes = 256;
inline constexpr uint8_t kGuardFill = 0xCD;

// What a device extension holds once the class has freed it. It stays
// allocated (and, under ASan, poisoned) so that a late touch is reported
// instead of corrupting memory: a read by ASan, a write also by the verifier.
inline constexpr uint8_t kFreedExtensionFill = 0xDE;

const char16_t kDriverName[] = u"\\Driver\\ornix";
const char16_t kRegistryPath[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\ornix";

}  // namespace detail
using namespace detail;

// One open (or opening) stream: the class's stream object and the
// minidriver's stream extension behind it.
struct StreamRecord {
    HW_STREAM_OBJECT object{};
    void* extension = nullptr;  // class memory, PerStreamExtensionSize bytes
    ULONG number = 0;
    std::vector<uint8_t> format;
    std::vector<PropertySetView> propertySets;  // the published stream property sets
    bool open = false;
};

struct StreamClass::Impl {
    PDRIVER_OBJECT driver = nullptr;
    UNICODE_STRING registryPath{};
    NTSTATUS entryStatus = STATUS_UNSUCCESSFUL;
    HW_INITIALIZATION_DATA registration{};

    PDEVICE_OBJECT pdo = nullptr;
    PDEVICE_OBJECT realPdo = nullptr;
    PDEVICE_OBJECT classDevice = nullptr;
    void* extension = nullptr;  // the minidriver's device extension (class-owned memory)
    size_t extensionSize = 0;
    // Set when SRB_UNINITIALIZE_DEVICE completed: the extension is freed for
    // the minidriver and only kept here to catch late writes.
    bool extensionFreed = false;
    bool started = false;
    ULONG streamDescriptorSize = 0;
    std::vector<uint8_t> streamDescriptor;
    std::vector<uint8_t> streamInfoBuffer;  // what SRB_GET_STREAM_INFO was given
    NTSTATUS streamInfoStatus = STATUS_PENDING;
    FilterView filter;

    SrbRegistry srbs;
    // Blocks of data intersections the minidriver never completed.
    std::vector<std::unique_ptr<uint8_t[]>> abandonedIntersections;
    // Used only when the minidriver keeps the class's own serialisation.
    std::mutex serialise;

    // Request time-outs (streamclass/request_timeouts.cpp): the timer runs
    // while the adapter is started.
    std::unique_ptr<RequestTimer> timer;
    std::atomic<uint64_t> timeoutsReported{0};
    void CountDownTimeouts(int64_t seconds, int64_t lastTick100ns);
    // Calls `call` the way the class calls into the minidriver from its own
    // context: at DISPATCH_LEVEL, serialised unless synchronisation is off.
    void CallAtDispatchLevel(const std::function<void()>& call);
    // IRP_MJ_POWER / IRP_MN_SET_POWER for `state` to the physical device object.
    NTSTATUS SetBusPower(DEVICE_POWER_STATE state);

    // Streams opened through the class; records keep their address for the
    // life of the class so that a late notification never meets freed memory.
    mutable std::mutex streamsMutex;
    std::list<std::unique_ptr<StreamRecord>> streams;
    StreamRecord* FindStream(PHW_STREAM_OBJECT object) const;
    // Stream SRBs after SRB_UNINITIALIZE_DEVICE completed never reach the
    // minidriver: the class answers them STATUS_DEVICE_REMOVED.
    bool AdapterAlive() const { return extension != nullptr && !extensionFreed; }

    NTSTATUS GetStreamInfo();

    // As soon as SRB_UNINITIALIZE_DEVICE completes, the real class releases
    // the adapter and its device extension with it.
    void FreeExtension() {
        std::memset(extension, kFreedExtensionFill, extensionSize);
        ASAN_POISON_MEMORY_REGION(extension, extensionSize);
        extensionFreed = true;
    }

    // Reports a write into the freed extension, then really releases it.
    void ReleaseExtension() {
        if (extension == nullptr) {
            return;
        }
        ForgetAdapter(extension);
        if (extensionFreed) {
            ASAN_UNPOISON_MEMORY_REGION(extension, extensionSize);
            const auto* bytes = static_cast<const uint8_t*>(extension);
            for (size_t i = 0; i < extensionSize; ++i) {
                if (bytes[i] != kFreedExtensionFill) {
                    char offset[32];
                    std::snprintf(offset, sizeof offset, "0x%zx", i);
                    ReportViolation("EXTENSION_USE_AFTER_FREE",
                                    std::string("the minidriver wrote to its device extension "
                                                "(first at offset ") +
                                        offset +
                                        ") after SRB_UNINITIALIZE_DEVICE completed, "
                                        "when the stream class freed it");
                    break;
                }
            }
        }
        std::free(extension);
        extension = nullptr;
        extensionFreed = false;
    }

    // `streamObject` names the stream of SRB_OPEN_STREAM and SRB_CLOSE_STREAM,
    // which are still adapter requests.
    SrbResult Send(SRB_COMMAND command, void* commandData, ULONG bytes, PIRP irp, bool isValue,
                   ULONG value, PHW_STREAM_OBJECT streamObject = nullptr) {
        if (extension == nullptr || extensionFreed) {
            throw std::logic_error("StreamClass: no adapter; call AddDevice first");
        }
        std::function<void()> onCompleted;
        if (command == SRB_UNINITIALIZE_DEVICE) {
            onCompleted = [this] { FreeExtension(); };
        }
        SrbRegistry::Entry& entry =
            srbs.Create(command, extension, registration.PerRequestExtensionSize, nullptr,
                        std::move(onCompleted));
        PHW_STREAM_REQUEST_BLOCK srb = &entry.srb;
        srb->StreamObject = streamObject;
        if (isValue) {
            srb->CommandData.DeviceState = static_cast<DEVICE_POWER_STATE>(value);
        } else {
            srb->CommandData.MethodInfo = commandData;
        }
        srb->NumberOfBytesToTransfer = bytes;
        srb->Irp = irp;

        {
            std::unique_lock<std::mutex> serial(serialise, std::defer_lock);
            if (!registration.TurnOffSynchronization) {
                serial.lock();
            }
            RunAtIrql(PASSIVE_LEVEL, [&] { registration.HwReceivePacket(srb); });
        }

        SrbResult result;
        result.completed = srbs.WaitCompleted(entry, kAdapterSrbPatience100ns);
        if (!result.completed) {
            srbs.ReportOutstanding("adapter request not completed in time");
        }
        result.status = srb->Status;
        result.actualBytesTransferred = srb->ActualBytesTransferred;
        return result;
    }
};

}  // namespace winsim
