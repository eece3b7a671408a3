// The application side of a stream: what a capture application does through
// the stream class to receive video from one pin. It opens the pin with a
// negotiated format, moves it through the KS states, keeps reads queued and
// hands out the frames that come back, oldest first, with their presentation
// times and flags. Tests, benchmarks and ornixctl all receive frames this
// way, so the request handling exists once.
//
// Thread-safe for one consumer: one thread drives the pin while the driver
// completes reads on host-controller threads.
#pragma once

#include <ks.h>
#include <ksmedia.h>
#include <strmini.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace winsim {

class StreamClass;

struct PinOptions {
    ULONG pin = 0;  // stream number: 0 capture, 1 still
    // The KSDATAFORMAT (with its format block) to open the pin with, e.g.
    // the answer of StreamClass::PinDataIntersection.
    std::vector<uint8_t> format;
    // Bytes of each read buffer; 0 takes the format's SampleSize.
    ULONG bufferSize = 0;
    // Reads kept queued by Run()/NextFrame().
    unsigned queuedReads = 4;
    // Capture pin: give the stream a master clock (SRB_INDICATE_MASTER_CLOCK)
    // once it is open. The still pin is offered the clock too, as a graph
    // would; the driver decides what to do with it.
    bool masterClock = true;
};

// One read request as it came back from the driver.
struct PinFrame {
    NTSTATUS status = STATUS_PENDING;
    uint64_t sequence = 0;         // 0 for the first read the pin sent, 1 for the next ...
    ULONG dataUsed = 0;            // KSSTREAM_HEADER.DataUsed
    ULONG frameExtent = 0;         // the buffer size
    ULONG actualBytes = 0;         // the SRB's ActualBytesTransferred
    int64_t presentationTime = 0;  // KSSTREAM_HEADER.PresentationTime.Time, 100 ns
    ULONG numerator = 0, denominator = 0;
    int64_t duration = 0;       // KSSTREAM_HEADER.Duration
    ULONG optionsFlags = 0;     // KSSTREAM_HEADER_OPTIONSF_*
    bool hasFrameInfo = false;  // capture pin: the KS_FRAME_INFO after the header
    KS_FRAME_INFO frameInfo{};
    // The first dataUsed bytes of the buffer; valid until the frame is
    // released (the next NextFrame call, or Release).
    std::span<const uint8_t> data;
};

// A read sent by hand (SubmitRead), for tests that need each request's fate.
class PinRead {
  public:
    virtual ~PinRead() = default;
    virtual bool Completed() const = 0;
    // Waits at most `realSeconds` of real time; nullopt if still pending.
    virtual std::optional<PinFrame> Wait(double realSeconds) = 0;
    virtual PHW_STREAM_REQUEST_BLOCK Srb() const = 0;
    // The application cancels the read (StreamClass::CancelSrb): true when
    // it was outstanding and the minidriver's cancel routine was called.
    virtual bool Cancel() = 0;
};

class Pin {
  public:
    // SRB_OPEN_STREAM with the options' format on an allocated stream
    // extension and HW_STREAM_OBJECT; then, if asked, the master clock.
    // Returns null when the open fails; `status` (optional) says why.
    static std::unique_ptr<Pin> Open(StreamClass& streamClass, PinOptions options,
                                     NTSTATUS* status = nullptr);
    // Stops the pin (SRB_SET_STREAM_STATE down to KSSTATE_STOP), waits for
    // every read to come back, then SRB_CLOSE_STREAM.
    ~Pin();
    Pin(const Pin&) = delete;
    Pin& operator=(const Pin&) = delete;

    PHW_STREAM_OBJECT StreamObject() const;
    // The read buffer size in use.
    ULONG BufferSize() const;

    // ---- control SRBs, each sent and waited for
    NTSTATUS SetState(KSSTATE state);  // one SRB_SET_STREAM_STATE
    KSSTATE GetState(NTSTATUS* status = nullptr);
    // A stream control SRB with `commandData` in CommandData.
    NTSTATUS SendControl(SRB_COMMAND command, void* commandData = nullptr);
    // SRB_GET_STREAM_PROPERTY: `output` is the property buffer; the answer's
    // ActualBytesTransferred in `returned` (optional).
    NTSTATUS GetProperty(const GUID& set, ULONG id, std::span<uint8_t> output,
                         ULONG* returned = nullptr);
    // KSPROPERTY_DROPPEDFRAMES_CURRENT (capture pin).
    std::optional<KSPROPERTY_DROPPEDFRAMES_CURRENT_S> DroppedFrames(NTSTATUS* status = nullptr);
    // SRB_INDICATE_MASTER_CLOCK with the pin's clock, or with none.
    NTSTATUS IndicateMasterClock(bool withClock);

    // The master clock's stream time: simulated time since the pin last
    // entered KSSTATE_RUN (0 before), in 100 ns units. A test may replace
    // it to put frames at chosen moments; an empty function restores it.
    void SetClockSource(std::function<int64_t()> streamTime);
    int64_t StreamTime() const;

    // ---- reads one by one
    // SRB_READ_DATA with a KSSTREAM_HEADER (plus a KS_FRAME_INFO whose
    // ExtendedHeaderSize the pin sets, on the capture pin) and a buffer of
    // `bufferSize` bytes (0: BufferSize()).
    std::shared_ptr<PinRead> SubmitRead(ULONG bufferSize = 0);

    // ---- streaming
    // Queues `queuedReads` reads and goes ACQUIRE -> PAUSE -> RUN, stopping
    // at the first state the driver refuses (its status is returned).
    NTSTATUS Run();
    // The oldest outstanding read, once it has come back, waiting at most
    // `realSeconds`; the frame handed out before is released and its buffer
    // queued again first. nullopt on time-out.
    std::optional<PinFrame> NextFrame(double realSeconds);
    // Gives the last frame's buffer back without taking another.
    void Release();
    // RUN -> PAUSE -> STOP; every read has come back when it returns.
    NTSTATUS Stop();

    // Cancels one outstanding read, counted in the order sent (0 = the
    // oldest), and returns what StreamClass::CancelSrb returned (false also
    // when there are not that many). A cancelled read comes back like any
    // other (STATUS_CANCELLED, DataUsed 0, as the minidriver completes it);
    // NextFrame hands it out and sends it again.
    bool CancelRead(size_t indexFromOldest);

    // Reads sent and not yet come back.
    size_t ReadsOutstanding() const;
    // Waits until every read sent has come back; false after `realSeconds`.
    bool WaitReadsBack(double realSeconds) const;

    struct Impl;

  private:
    explicit Pin(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace winsim
