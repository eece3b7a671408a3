// One bulk-IN video endpoint of the camera: frames of the geometry read when
// each frame starts, sent with no header, a frame ending where a transfer
// ends (short, when the host asked for more).
//
// The capture endpoint streams while started; the still endpoint sends one
// frame per trigger. With pacing on, a frame may start only once the time
// of the previous one has passed, and a camera that the host leaves waiting
// skips the frames it could not send (frame numbers jump). Not thread-safe:
// the camera locks.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "camera/video_frames.h"
#include "platform/usb/usb_device.h"

namespace ornixcam {

// What a frame needs when it starts: its geometry, its hot samples and its
// pacing frequency (KiB/s).
struct FrameSetup {
    FrameGeometry geometry;
    std::vector<std::pair<uint32_t, uint32_t>> hot;
    uint32_t frequency = 0;
};

class VideoEndpoint {
  public:
    using SetupSource = std::function<FrameSetup()>;

    VideoEndpoint(SetupSource source, FrameContent content, bool still)
        : source_(std::move(source)), content_(content), still_(still) {}

    // Capture: start streaming at a fresh frame, answer everything with
    // empty packets, or stop (NAK).
    void Start(int64_t now100ns);
    void AnswerEmpty() { empty_ = true; }
    void Stop();
    // Still: the trigger gate and one frame per trigger while open.
    void SetOpen(bool open);
    bool Open() const { return open_; }
    bool Trigger();  // false when closed
    // Drops the frame in progress; the next transfer begins a fresh frame.
    void Restart() { inFrame_ = false; }

    void SetPacing(bool on) { pacing_ = on; }
    // The camera ends the transfer that reaches byte `atByte` of the next
    // frame there, and continues the frame in the transfer after it. Calls
    // queue up, one frame each.
    void SplitNextFrame(uint32_t atByte) { splits_.push_back(atByte); }

    // One IN transaction. `due` is set when the endpoint NAKed because its
    // next frame is not due until then (simulated 100 ns).
    usbsim::TransferResult Transfer(std::span<uint8_t> data, int64_t now100ns,
                                    std::optional<int64_t>& due);

    uint64_t FramesStarted() const { return framesStarted_; }
    uint64_t LastFrameNumber() const { return number_; }

  private:
    bool StartFrame(int64_t now100ns, std::optional<int64_t>& due);

    SetupSource source_;
    FrameContent content_;
    FrameRenderer renderer_;
    bool still_;
    bool streaming_ = false;
    bool empty_ = false;
    bool open_ = false;
    uint64_t triggers_ = 0;
    bool pacing_ = true;
    std::deque<uint32_t> splits_;
    std::optional<uint32_t> splitThisFrame_;

    bool inFrame_ = false;
    size_t offset_ = 0;
    uint64_t framesStarted_ = 0;
    uint64_t number_ = 0;       // of the frame in progress or last sent
    bool anyFrame_ = false;     // since the stream started
    int64_t epoch100ns_ = 0;    // when the stream started
    uint64_t epochNumber_ = 0;  // the number of the stream's first frame
    int64_t nextStart100ns_ = 0;
    int64_t duration100ns_ = 0;
};

}  // namespace ornixcam
