// The application side of a stream (pin.h). Reads are made once, at Run or
// SubmitRead, and sent again frame after frame: the SRB, its stream header
// and its buffer are reused, so streaming costs no allocation per frame.
#include "streamclass/pin.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "kernel/kernel.h"
#include "streamclass/master_clock.h"
#include "streamclass/stream_class.h"

namespace winsim {
namespace {

// PROPSETID_VIDCAP_DROPPEDFRAMES
constexpr GUID kDroppedFramesSet = {
    0xC6E13344, 0x30AC, 0x11D0, {0xA1, 0x8C, 0x00, 0xA0, 0xC9, 0x11, 0x89, 0x56}};

// How long stopping and closing wait, in real time, for reads to come back
// before the pin gives up on them: only a lost read takes this long.
constexpr double kReadReturnPatienceSeconds = 60.0;

std::chrono::nanoseconds RealDuration(double seconds) {
    return std::chrono::nanoseconds(static_cast<int64_t>(seconds * 1e9));
}

// What the reads of one pin share with their completions, which may run on
// any thread, and with PinRead handles that outlive the pin.
struct ReadSync {
    std::mutex mutex;
    std::condition_variable cv;
    size_t outstanding = 0;
};

class ReadSlot : public PinRead {
  public:
    ReadSlot(StreamClass& streamClass, std::shared_ptr<ReadSync> sync, ULONG headerRoom,
             ULONG bufferSize)
        : streamClass_(streamClass),
          sync_(std::move(sync)),
          header_((headerRoom + sizeof(uint64_t) - 1) / sizeof(uint64_t)),
          headerRoom_(headerRoom),
          buffer_(bufferSize) {}

    bool Completed() const override {
        std::lock_guard lock(sync_->mutex);
        return done_;
    }
    std::optional<PinFrame> Wait(double realSeconds) override {
        std::unique_lock lock(sync_->mutex);
        if (!sync_->cv.wait_for(lock, RealDuration(realSeconds), [&] { return done_; })) {
            return std::nullopt;
        }
        return Frame();
    }
    PHW_STREAM_REQUEST_BLOCK Srb() const override { return srb_; }
    bool Cancel() override { return streamClass_.CancelSrb(srb_); }

    // Called once by the pin, with the SRB the class made for this slot.
    void Attach(PHW_STREAM_REQUEST_BLOCK srb) { srb_ = srb; }
    void OnCompleted() {
        std::lock_guard lock(sync_->mutex);
        done_ = true;
        --sync_->outstanding;
        sync_->cv.notify_all();
    }
    bool DoneLocked() const { return done_; }
    uint64_t SequenceLocked() const { return sequence_; }

    // Fills the stream header (and the frame information on the capture
    // pin) afresh and marks the read outstanding; the caller sends it.
    void Arm(ULONG mediaSpecific, bool frameInfo, uint64_t sequence) {
        std::memset(header_.data(), 0, headerRoom_);
        auto* header = reinterpret_cast<KSSTREAM_HEADER*>(header_.data());
        header->Size = static_cast<ULONG>(sizeof(KSSTREAM_HEADER) + mediaSpecific);
        header->FrameExtent = static_cast<ULONG>(buffer_.size());
        header->Data = buffer_.data();
        frameInfo_ = frameInfo;
        if (frameInfo) {
            FrameInfo()->ExtendedHeaderSize = sizeof(KS_FRAME_INFO);
        }
        srb_->CommandData.DataBufferArray = header;
        srb_->NumberOfBuffers = 1;
        srb_->NumberOfBytesToTransfer = static_cast<ULONG>(buffer_.size());
        std::lock_guard lock(sync_->mutex);
        done_ = false;
        sequence_ = sequence;
        ++sync_->outstanding;
    }

    // The read as it came back; the caller knows it is done.
    PinFrame Frame() const {
        const auto* header = reinterpret_cast<const KSSTREAM_HEADER*>(header_.data());
        PinFrame frame;
        frame.status = srb_->Status;
        frame.sequence = sequence_;
        frame.dataUsed = header->DataUsed;
        frame.frameExtent = header->FrameExtent;
        frame.actualBytes = srb_->ActualBytesTransferred;
        frame.presentationTime = header->PresentationTime.Time;
        frame.numerator = header->PresentationTime.Numerator;
        frame.denominator = header->PresentationTime.Denominator;
        frame.duration = header->Duration;
        frame.optionsFlags = header->OptionsFlags;
        frame.hasFrameInfo = frameInfo_;
        if (frameInfo_) {
            std::memcpy(&frame.frameInfo, FrameInfo(), sizeof(KS_FRAME_INFO));
        }
        frame.data = std::span<const uint8_t>(buffer_.data(),
                                              std::min<size_t>(header->DataUsed, buffer_.size()));
        return frame;
    }

  private:
    KS_FRAME_INFO* FrameInfo() const {
        auto* bytes = reinterpret_cast<uint8_t*>(const_cast<uint64_t*>(header_.data()));
        return reinterpret_cast<KS_FRAME_INFO*>(bytes + sizeof(KSSTREAM_HEADER));
    }

    StreamClass& streamClass_;
    std::shared_ptr<ReadSync> sync_;
    PHW_STREAM_REQUEST_BLOCK srb_ = nullptr;
    std::vector<uint64_t> header_;  // 8-byte aligned, as the class's headers are
    size_t headerRoom_;
    std::vector<uint8_t> buffer_;
    bool frameInfo_ = false;
    bool done_ = true;  // guarded by sync_->mutex
    uint64_t sequence_ = 0;
};

// Reads that never came back when their pin went away: the driver may still
// write into them, so they are never freed.
void Abandon(std::vector<std::shared_ptr<ReadSlot>> slots) {
    static std::mutex mutex;
    static std::vector<std::shared_ptr<ReadSlot>> abandoned;
    std::lock_guard lock(mutex);
    abandoned.insert(abandoned.end(), slots.begin(), slots.end());
}

}  // namespace

struct Pin::Impl {
    StreamClass& streamClass;
    PinOptions options;
    PHW_STREAM_OBJECT stream = nullptr;
    ULONG bufferSize = 0;
    HANDLE clock = nullptr;
    KSSTATE state = KSSTATE_STOP;
    uint64_t nextSequence = 0;
    std::shared_ptr<ReadSync> sync = std::make_shared<ReadSync>();

    std::vector<std::shared_ptr<ReadSlot>> slots;  // every read ever made
    // The streaming reads in the order they were last sent; `next` is the
    // oldest, `handedOut` the one whose frame the consumer holds.
    std::vector<ReadSlot*> ring;
    size_t next = 0;
    ReadSlot* handedOut = nullptr;

    mutable std::mutex clockMutex;
    std::function<int64_t()> clockSource;
    bool ran = false;
    int64_t runStart100ns = 0;

    Impl(StreamClass& sc, PinOptions opts) : streamClass(sc), options(std::move(opts)) {}

    int64_t ClockTime() const {
        std::lock_guard lock(clockMutex);
        if (clockSource) {
            return clockSource();
        }
        return ran ? Now100ns() - runStart100ns : 0;
    }

    bool FrameInfoFollows() const { return options.pin == 0; }

    ReadSlot* MakeSlot(ULONG size) {
        const ULONG mediaSpecific = stream->StreamHeaderMediaSpecific;
        const ULONG room = static_cast<ULONG>(
            sizeof(KSSTREAM_HEADER) +
            std::max<size_t>(mediaSpecific, FrameInfoFollows() ? sizeof(KS_FRAME_INFO) : 0));
        auto slot = std::make_shared<ReadSlot>(streamClass, sync, room, size);
        ReadSlot* raw = slot.get();
        raw->Attach(
            streamClass.CreateDataSrb(stream, SRB_READ_DATA, [raw] { raw->OnCompleted(); }));
        slots.push_back(std::move(slot));
        return raw;
    }

    void Send(ReadSlot& slot) {
        slot.Arm(stream->StreamHeaderMediaSpecific, FrameInfoFollows(), nextSequence++);
        streamClass.SendDataSrb(slot.Srb());
    }

    bool WaitAllReturned(double realSeconds) {
        std::unique_lock lock(sync->mutex);
        return sync->cv.wait_for(lock, RealDuration(realSeconds),
                                 [&] { return sync->outstanding == 0; });
    }
};

Pin::Pin(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

std::unique_ptr<Pin> Pin::Open(StreamClass& streamClass, PinOptions options, NTSTATUS* status) {
    NTSTATUS ignored = STATUS_SUCCESS;
    NTSTATUS& result = status != nullptr ? *status : ignored;
    auto impl = std::make_unique<Impl>(streamClass, std::move(options));
    impl->stream = streamClass.OpenStream(impl->options.pin, impl->options.format, &result);
    if (impl->stream == nullptr) {
        return nullptr;
    }
    impl->bufferSize = impl->options.bufferSize;
    if (impl->bufferSize == 0 && impl->options.format.size() >= sizeof(KSDATAFORMAT)) {
        impl->bufferSize =
            reinterpret_cast<const KSDATAFORMAT*>(impl->options.format.data())->SampleSize;
    }
    Impl* raw = impl.get();
    impl->clock = MasterClocks::Create([raw] { return raw->ClockTime(); });
    std::unique_ptr<Pin> pin(new Pin(std::move(impl)));
    if (pin->impl_->options.masterClock) {
        result = pin->IndicateMasterClock(true);
        if (!NT_SUCCESS(result)) {
            return nullptr;  // the destructor closes the stream again
        }
    }
    result = STATUS_SUCCESS;
    return pin;
}

Pin::~Pin() {
    Stop();
    const bool returned = impl_->WaitAllReturned(kReadReturnPatienceSeconds);
    impl_->streamClass.CloseStream(impl_->stream);
    MasterClocks::Destroy(impl_->clock);
    if (!returned) {
        Abandon(std::move(impl_->slots));
    }
}

PHW_STREAM_OBJECT Pin::StreamObject() const {
    return impl_->stream;
}

ULONG Pin::BufferSize() const {
    return impl_->bufferSize;
}

NTSTATUS Pin::SetState(KSSTATE state) {
    const StreamSrbResult result = impl_->streamClass.SendStreamControl(
        impl_->stream, SRB_SET_STREAM_STATE,
        [state](HW_STREAM_REQUEST_BLOCK& srb) { srb.CommandData.StreamState = state; });
    const NTSTATUS status = result.completed ? result.status : STATUS_IO_TIMEOUT;
    if (NT_SUCCESS(status)) {
        if (state == KSSTATE_RUN && impl_->state != KSSTATE_RUN) {
            std::lock_guard lock(impl_->clockMutex);
            impl_->ran = true;
            impl_->runStart100ns = Now100ns();
        }
        impl_->state = state;
    }
    return status;
}

KSSTATE Pin::GetState(NTSTATUS* status) {
    const StreamSrbResult result =
        impl_->streamClass.SendStreamControl(impl_->stream, SRB_GET_STREAM_STATE);
    if (status != nullptr) {
        *status = result.completed ? result.status : STATUS_IO_TIMEOUT;
    }
    return result.srb.CommandData.StreamState;
}

NTSTATUS Pin::SendControl(SRB_COMMAND command, void* commandData) {
    const StreamSrbResult result = impl_->streamClass.SendStreamControl(
        impl_->stream, command,
        [commandData](HW_STREAM_REQUEST_BLOCK& srb) { srb.CommandData.MethodInfo = commandData; });
    return result.completed ? result.status : STATUS_IO_TIMEOUT;
}

NTSTATUS Pin::GetProperty(const GUID& set, ULONG id, std::span<uint8_t> output, ULONG* returned) {
    const StreamPropertyAnswer answer = impl_->streamClass.GetStreamProperty(
        impl_->stream, set, id, static_cast<ULONG>(output.size()));
    std::copy(answer.output.begin(), answer.output.end(), output.begin());
    if (returned != nullptr) {
        *returned = answer.actualBytesTransferred;
    }
    return answer.status;
}

std::optional<KSPROPERTY_DROPPEDFRAMES_CURRENT_S> Pin::DroppedFrames(NTSTATUS* status) {
    // As applications ask it: the whole record is both the property and the data.
    StreamClass::PropertyRequest request;
    request.set = kDroppedFramesSet;
    request.id = KSPROPERTY_DROPPEDFRAMES_CURRENT;
    request.propertyExtra.assign(sizeof(KSPROPERTY_DROPPEDFRAMES_CURRENT_S) - sizeof(KSPROPERTY),
                                 0);
    request.dataSize = sizeof(KSPROPERTY_DROPPEDFRAMES_CURRENT_S);
    const StreamClass::PropertyAnswer answer =
        impl_->streamClass.GetStreamProperty(impl_->stream, request);
    if (status != nullptr) {
        *status = answer.status;
    }
    if (!NT_SUCCESS(answer.status)) {
        return std::nullopt;
    }
    KSPROPERTY_DROPPEDFRAMES_CURRENT_S report{};
    std::memcpy(&report, answer.data.data(), sizeof report);
    return report;
}

NTSTATUS Pin::IndicateMasterClock(bool withClock) {
    HANDLE clock = withClock ? impl_->clock : nullptr;
    const StreamSrbResult result = impl_->streamClass.SendStreamControl(
        impl_->stream, SRB_INDICATE_MASTER_CLOCK,
        [clock](HW_STREAM_REQUEST_BLOCK& srb) { srb.CommandData.MasterClockHandle = clock; });
    return result.completed ? result.status : STATUS_IO_TIMEOUT;
}

void Pin::SetClockSource(std::function<int64_t()> streamTime) {
    std::lock_guard lock(impl_->clockMutex);
    impl_->clockSource = std::move(streamTime);
}

int64_t Pin::StreamTime() const {
    return impl_->ClockTime();
}

std::shared_ptr<PinRead> Pin::SubmitRead(ULONG bufferSize) {
    ReadSlot* slot = impl_->MakeSlot(bufferSize != 0 ? bufferSize : impl_->bufferSize);
    std::shared_ptr<PinRead> handle = impl_->slots.back();
    impl_->Send(*slot);
    return handle;
}

NTSTATUS Pin::Run() {
    // Reads sent to a stopped stream come back at once, empty: the pin
    // queues them once the stream holds its resources.
    for (KSSTATE state : {KSSTATE_ACQUIRE, KSSTATE_PAUSE}) {
        const NTSTATUS status = SetState(state);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    if (impl_->ring.empty()) {
        for (unsigned i = 0; i < impl_->options.queuedReads; ++i) {
            impl_->ring.push_back(impl_->MakeSlot(impl_->bufferSize));
        }
    }
    impl_->handedOut = nullptr;
    const size_t count = impl_->ring.size();
    std::vector<ReadSlot*> idle;
    idle.reserve(count);
    {
        std::lock_guard lock(impl_->sync->mutex);
        for (size_t i = 0; i < count; ++i) {
            ReadSlot* slot = impl_->ring[(impl_->next + i) % count];
            if (slot->DoneLocked()) {
                idle.push_back(slot);
            }
        }
    }
    for (ReadSlot* slot : idle) {
        impl_->Send(*slot);
    }
    return SetState(KSSTATE_RUN);
}

std::optional<PinFrame> Pin::NextFrame(double realSeconds) {
    if (impl_->ring.empty()) {
        return std::nullopt;
    }
    Release();
    ReadSlot* oldest = impl_->ring[impl_->next];
    {
        std::unique_lock lock(impl_->sync->mutex);
        if (!impl_->sync->cv.wait_for(lock, RealDuration(realSeconds),
                                      [&] { return oldest->DoneLocked(); })) {
            return std::nullopt;
        }
    }
    impl_->next = (impl_->next + 1) % impl_->ring.size();
    impl_->handedOut = oldest;
    return oldest->Frame();
}

void Pin::Release() {
    if (impl_->handedOut != nullptr) {
        ReadSlot* slot = impl_->handedOut;
        impl_->handedOut = nullptr;
        impl_->Send(*slot);
    }
}

NTSTATUS Pin::Stop() {
    NTSTATUS first = STATUS_SUCCESS;
    auto note = [&first](NTSTATUS status) {
        if (NT_SUCCESS(first) && !NT_SUCCESS(status)) {
            first = status;
        }
    };
    if (impl_->state == KSSTATE_RUN) {
        note(SetState(KSSTATE_PAUSE));
    }
    if (impl_->state != KSSTATE_STOP) {
        note(SetState(KSSTATE_STOP));
    }
    // The frame the consumer holds goes back with the others.
    impl_->handedOut = nullptr;
    if (!impl_->WaitAllReturned(kReadReturnPatienceSeconds)) {
        note(STATUS_IO_TIMEOUT);
    }
    return first;
}

bool Pin::CancelRead(size_t indexFromOldest) {
    std::vector<ReadSlot*> outstanding;
    {
        std::lock_guard lock(impl_->sync->mutex);
        for (const auto& slot : impl_->slots) {
            if (!slot->DoneLocked()) {
                outstanding.push_back(slot.get());
            }
        }
        std::sort(outstanding.begin(), outstanding.end(), [](ReadSlot* a, ReadSlot* b) {
            return a->SequenceLocked() < b->SequenceLocked();
        });
    }
    if (indexFromOldest >= outstanding.size()) {
        return false;
    }
    // Outside the lock: the minidriver may complete the read inside its
    // cancel routine.
    return outstanding[indexFromOldest]->Cancel();
}

bool Pin::WaitReadsBack(double realSeconds) const {
    return impl_->WaitAllReturned(realSeconds);
}

size_t Pin::ReadsOutstanding() const {
    std::lock_guard lock(impl_->sync->mutex);
    return impl_->sync->outstanding;
}

}  // namespace winsim
