#include "camera/video_endpoint.h"

#include <algorithm>

namespace ornixcam {

void VideoEndpoint::Start(int64_t now100ns) {
    streaming_ = true;
    empty_ = false;
    inFrame_ = false;
    epoch100ns_ = now100ns;
    nextStart100ns_ = now100ns;
    epochNumber_ = anyFrame_ ? number_ + 1 : number_;
    duration100ns_ = 0;
}

void VideoEndpoint::Stop() {
    streaming_ = false;
    empty_ = false;
    inFrame_ = false;
}

void VideoEndpoint::SetOpen(bool open) {
    open_ = open;
    if (!open) {
        triggers_ = 0;
    }
}

bool VideoEndpoint::Trigger() {
    if (!open_) {
        return false;
    }
    ++triggers_;
    return true;
}

bool VideoEndpoint::StartFrame(int64_t now, std::optional<int64_t>& due) {
    if (still_) {
        if (triggers_ == 0) {
            return false;
        }
        --triggers_;
        number_ = anyFrame_ ? number_ + 1 : 0;
    } else if (!pacing_) {
        number_ = anyFrame_ ? number_ + 1 : epochNumber_;
    } else {
        if (now < nextStart100ns_) {
            due = nextStart100ns_;
            return false;
        }
        // Frames whose time passed while the host was not asking are lost.
        uint64_t slot = 0;
        if (duration100ns_ > 0) {
            slot = static_cast<uint64_t>((now - epoch100ns_) / duration100ns_);
        }
        const uint64_t first = anyFrame_ ? std::max(number_ + 1, epochNumber_) : epochNumber_;
        number_ = std::max(first, epochNumber_ + slot);
    }
    FrameSetup setup = source_();
    renderer_.Begin(setup.geometry, number_, std::move(setup.hot), content_);
    if (!still_ && pacing_) {
        const int64_t duration = FrameDuration100ns(FrameBytes(setup.geometry), setup.frequency);
        if (duration != duration100ns_) {
            // A new rate counts its slots from here.
            epoch100ns_ = now;
            epochNumber_ = number_;
            duration100ns_ = duration;
        }
        nextStart100ns_ =
            epoch100ns_ + static_cast<int64_t>(number_ - epochNumber_ + 1) * duration100ns_;
    }
    anyFrame_ = true;
    ++framesStarted_;
    inFrame_ = true;
    offset_ = 0;
    splitThisFrame_.reset();
    if (!splits_.empty()) {
        splitThisFrame_ = splits_.front();
        splits_.pop_front();
    }
    return true;
}

usbsim::TransferResult VideoEndpoint::Transfer(std::span<uint8_t> data, int64_t now,
                                               std::optional<int64_t>& due) {
    if (empty_) {
        return usbsim::TransferResult::Ack(0);
    }
    if (!still_ && !streaming_) {
        return usbsim::TransferResult::Nak();
    }
    if (!inFrame_ && !StartFrame(now, due)) {
        return usbsim::TransferResult::Nak();
    }
    const size_t frameBytes = renderer_.Size();
    size_t end = frameBytes;
    if (splitThisFrame_ && *splitThisFrame_ > offset_ && *splitThisFrame_ < end) {
        end = *splitThisFrame_;
    }
    const size_t length = std::min(end - offset_, data.size());
    renderer_.CopyOut(offset_, data.first(length));
    offset_ += length;
    if (splitThisFrame_ && offset_ == *splitThisFrame_) {
        splitThisFrame_.reset();
    }
    if (offset_ >= frameBytes) {
        inFrame_ = false;
    }
    return usbsim::TransferResult::Ack(static_cast<uint32_t>(length));
}

}  // namespace ornixcam
