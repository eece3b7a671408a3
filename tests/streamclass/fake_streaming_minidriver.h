// A small streaming minidriver for the stream-class tests: two streams
// (capture with a property set, still without), one instance each, reads
// queued until the test completes them from a "host controller" thread at
// DISPATCH_LEVEL, and a STOP that returns the queued reads cancelled from
// another thread after the STOP itself has completed.
#pragma once

#include <ksmedia.h>
#include <strmini.h>

#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "stream_class_fixture.h"
#include "streamclass/pin.h"
#include "streamclass/stream_class.h"

namespace sctest {

// PROPSETID_VIDCAP_DROPPEDFRAMES, as the pin asks for it.
inline const GUID kDroppedFramesSet = {
    0xC6E13344, 0x30AC, 0x11D0, {0xA1, 0x8C, 0x00, 0xA0, 0xC9, 0x11, 0x89, 0x56}};
inline const GUID kOtherSet = {7, 7, 7, {7}};

constexpr ULONG kStreamExtensionSize = 96;
constexpr ULONG kMediaSpecific = 64;
constexpr ULONG kSampleSize = 4096;

// What the fake saw of one SRB_READ_DATA when it arrived.
struct ReadSeen {
    PHW_STREAM_REQUEST_BLOCK srb = nullptr;
    ULONG stream = 0;
    ULONG headerSize = 0;
    ULONG frameExtent = 0;
    PVOID data = nullptr;
    ULONG numberOfBuffers = 0;
    ULONG extendedHeaderSize = 0;  // of the KS_FRAME_INFO after the header
    ULONG timeoutCounter = 0;      // as the class armed it
};

struct StreamingFake {
    std::mutex mutex;
    std::deque<PHW_STREAM_REQUEST_BLOCK> queued[2];
    std::vector<ReadSeen> reads;
    KSSTATE state[2] = {KSSTATE_STOP, KSSTATE_STOP};
    HANDLE clock[2] = {};
    std::vector<ULONG> controlIrqls;
    // SRB_OPEN_STREAM as seen: stream object, whether the extension was zero, the format.
    HW_STREAM_OBJECT openedObject{};
    bool extensionZeroed = false;
    std::vector<uint8_t> openFormat;
    NTSTATUS openStatus = STATUS_SUCCESS;
    std::vector<PHW_STREAM_OBJECT> closed;
    size_t readsCompletedAtClose = 0;
    size_t readsCompleted = 0;
    // SRB_GET_STREAM_PROPERTY: what it was asked and how many bytes it writes.
    STREAM_PROPERTY_DESCRIPTOR propertyAsked{};
    KSPROPERTY propertyHeader{};
    ULONG propertyWrites = 48;
    std::vector<std::thread> threads;

    ~StreamingFake() { JoinThreads(); }
    void JoinThreads() {
        for (std::thread& t : threads) {
            t.join();
        }
        threads.clear();
    }
};
inline StreamingFake* streaming = nullptr;

// Returns a stream SRB the way a completion routine does.
inline void CompleteStreamSrb(PHW_STREAM_REQUEST_BLOCK srb, NTSTATUS status,
                              PHW_STREAM_OBJECT on = nullptr) {
    srb->Status = status;
    StreamClassStreamNotification(StreamRequestComplete, on != nullptr ? on : srb->StreamObject,
                                  srb);
}

// Runs `work` on a thread of its own at DISPATCH_LEVEL and waits for it.
inline void OnCompletionThread(const std::function<void()>& work) {
    std::thread([&] {
        winsim::NameCurrentThread("test host controller");
        winsim::RunAtIrql(DISPATCH_LEVEL, work);
    }).join();
}

// Takes the oldest queued read of `stream` (null when none).
inline PHW_STREAM_REQUEST_BLOCK TakeRead(ULONG stream) {
    std::lock_guard lock(streaming->mutex);
    auto& queue = streaming->queued[stream];
    if (queue.empty()) {
        return nullptr;
    }
    PHW_STREAM_REQUEST_BLOCK srb = queue.front();
    queue.pop_front();
    return srb;
}

// Fills a read as the driver does and completes it at DISPATCH_LEVEL on another thread.
inline void CompleteRead(PHW_STREAM_REQUEST_BLOCK srb, NTSTATUS status, ULONG dataUsed,
                         int64_t presentationTime = 0, uint8_t fill = 0) {
    OnCompletionThread([&] {
        KSSTREAM_HEADER* header = srb->CommandData.DataBufferArray;
        header->DataUsed = dataUsed;
        header->PresentationTime = {presentationTime, 1, 1};
        header->OptionsFlags = KSSTREAM_HEADER_OPTIONSF_SPLICEPOINT;
        std::memset(header->Data, fill, dataUsed);
        srb->ActualBytesTransferred = dataUsed;
        {
            std::lock_guard lock(streaming->mutex);
            ++streaming->readsCompleted;
        }
        CompleteStreamSrb(srb, status);
    });
}

inline void STREAMAPI StreamingReceiveData(PHW_STREAM_REQUEST_BLOCK srb) {
    ReadSeen seen;
    seen.srb = srb;
    seen.stream = srb->StreamObject->StreamNumber;
    seen.headerSize = srb->CommandData.DataBufferArray->Size;
    seen.frameExtent = srb->CommandData.DataBufferArray->FrameExtent;
    seen.data = srb->CommandData.DataBufferArray->Data;
    seen.numberOfBuffers = srb->NumberOfBuffers;
    seen.timeoutCounter = srb->TimeoutCounter;
    if (seen.stream == 0) {
        seen.extendedHeaderSize =
            reinterpret_cast<PKS_FRAME_INFO>(srb->CommandData.DataBufferArray + 1)
                ->ExtendedHeaderSize;
    }
    std::lock_guard lock(streaming->mutex);
    streaming->reads.push_back(seen);
    streaming->queued[seen.stream].push_back(srb);
}

inline void StreamingSetState(PHW_STREAM_REQUEST_BLOCK srb) {
    const ULONG n = srb->StreamObject->StreamNumber;
    std::deque<PHW_STREAM_REQUEST_BLOCK> cancelled;
    {
        std::lock_guard lock(streaming->mutex);
        streaming->state[n] = srb->CommandData.StreamState;
        if (srb->CommandData.StreamState == KSSTATE_STOP) {
            cancelled.swap(streaming->queued[n]);
        }
    }
    CompleteStreamSrb(srb, STATUS_SUCCESS);
    // The queued reads come back after the STOP did, from another thread.
    streaming->threads.emplace_back([cancelled] {
        winsim::NameCurrentThread("test host controller");
        winsim::RunAtIrql(DISPATCH_LEVEL, [&] {
            for (PHW_STREAM_REQUEST_BLOCK read : cancelled) {
                {
                    std::lock_guard lock(streaming->mutex);
                    ++streaming->readsCompleted;
                }
                CompleteStreamSrb(read, STATUS_CANCELLED);
            }
        });
    });
}

inline void STREAMAPI StreamingReceiveControl(PHW_STREAM_REQUEST_BLOCK srb) {
    const ULONG n = srb->StreamObject->StreamNumber;
    {
        std::lock_guard lock(streaming->mutex);
        streaming->controlIrqls.push_back(KeGetCurrentIrql());
    }
    switch (srb->Command) {
        case SRB_SET_STREAM_STATE:
            StreamingSetState(srb);
            return;
        case SRB_GET_STREAM_STATE:
            srb->CommandData.StreamState = streaming->state[n];
            CompleteStreamSrb(srb, STATUS_SUCCESS);
            return;
        case SRB_INDICATE_MASTER_CLOCK:
            streaming->clock[n] = srb->CommandData.MasterClockHandle;
            CompleteStreamSrb(srb, STATUS_SUCCESS);
            return;
        case SRB_GET_STREAM_PROPERTY: {
            PSTREAM_PROPERTY_DESCRIPTOR d = srb->CommandData.PropertyInfo;
            streaming->propertyAsked = *d;
            streaming->propertyHeader = *d->Property;
            std::memset(d->PropertyInfo, 0x5A, streaming->propertyWrites);
            srb->ActualBytesTransferred = streaming->propertyWrites;
            CompleteStreamSrb(srb, STATUS_SUCCESS);
            return;
        }
        case SRB_PROPOSE_DATA_FORMAT:
            return;  // never completed: the tests' lost request
        default:
            CompleteStreamSrb(srb, STATUS_NOT_IMPLEMENTED);
            return;
    }
}

// The adapter part: the stream descriptor, open and close.
struct StreamingTables {
    KSPROPERTY_ITEM item = [] {
        KSPROPERTY_ITEM get{};
        get.GetSupported = TRUE;
        get.MinProperty = sizeof(KSPROPERTY);
        return get;
    }();
    KSPROPERTY_SET sets[2] = {{&kOtherSet, 1, &item, 0, nullptr},
                              {&kDroppedFramesSet, 1, &item, 0, nullptr}};
};
inline StreamingTables streamingTables;

inline void StreamingAdapterSrb(PHW_STREAM_REQUEST_BLOCK srb) {
    NTSTATUS status = STATUS_SUCCESS;
    switch (srb->Command) {
        case SRB_INITIALIZE_DEVICE:
            srb->CommandData.ConfigInfo->StreamDescriptorSize =
                sizeof(HW_STREAM_HEADER) + 2 * sizeof(HW_STREAM_INFORMATION);
            break;
        case SRB_GET_STREAM_INFO: {
            PHW_STREAM_HEADER header = &srb->CommandData.StreamBuffer->StreamHeader;
            header->NumberOfStreams = 2;
            header->SizeOfHwStreamInformation = sizeof(HW_STREAM_INFORMATION);
            auto* info = reinterpret_cast<PHW_STREAM_INFORMATION>(header + 1);
            info[0].NumberOfPossibleInstances = info[1].NumberOfPossibleInstances = 1;
            info[0].NumStreamPropArrayEntries = 2;
            info[0].StreamPropertiesArray = streamingTables.sets;
            break;
        }
        case SRB_OPEN_STREAM: {
            PHW_STREAM_OBJECT object = srb->StreamObject;
            const auto* extension = static_cast<const uint8_t*>(object->HwStreamExtension);
            streaming->extensionZeroed = extension != nullptr;
            for (ULONG i = 0; extension != nullptr && i < kStreamExtensionSize; ++i) {
                streaming->extensionZeroed &= extension[i] == 0;
            }
            const auto* format = reinterpret_cast<const uint8_t*>(srb->CommandData.OpenFormat);
            streaming->openFormat.assign(format, format + srb->CommandData.OpenFormat->FormatSize);
            streaming->openedObject = *object;
            status = streaming->openStatus;
            if (NT_SUCCESS(status)) {
                object->ReceiveDataPacket = StreamingReceiveData;
                object->ReceiveControlPacket = StreamingReceiveControl;
                object->StreamHeaderMediaSpecific = kMediaSpecific;
                object->Pio = TRUE;
            }
            break;
        }
        case SRB_CLOSE_STREAM: {
            std::lock_guard lock(streaming->mutex);
            streaming->closed.push_back(srb->StreamObject);
            streaming->readsCompletedAtClose = streaming->readsCompleted;
            break;
        }
        default:
            break;
    }
    CompleteAdapterSrb(srb, status);
}

// A KSDATAFORMAT with a format block behind it, as the pin is opened with.
inline std::vector<uint8_t> TestFormat() {
    std::vector<uint8_t> bytes(sizeof(KSDATAFORMAT) + 24, 0xA5);
    KSDATAFORMAT format{};
    format.FormatSize = static_cast<ULONG>(bytes.size());
    format.SampleSize = kSampleSize;
    std::memcpy(bytes.data(), &format, sizeof format);
    return bytes;
}

class StreamingTest : public StreamClassTest {
  protected:
    void SetUp() override {
        StreamClassTest::SetUp();
        fake.editRegistration = [](HW_INITIALIZATION_DATA& data) {
            data.PerStreamExtensionSize = kStreamExtensionSize;
        };
        fake.onSrb = StreamingAdapterSrb;
        streaming = &state_;
        sc_.emplace(FakeDriverEntry);
        sc_->AddDevice(pdo_);
        ASSERT_EQ(sc_->Start(), STATUS_SUCCESS);
    }
    void TearDown() override {
        state_.JoinThreads();
        sc_.reset();
        streaming = nullptr;
        StreamClassTest::TearDown();
    }

    winsim::PinOptions Options(ULONG pin) {
        winsim::PinOptions options;
        options.pin = pin;
        options.format = TestFormat();
        return options;
    }

    StreamingFake state_;
    std::optional<winsim::StreamClass> sc_;
};

}  // namespace sctest
