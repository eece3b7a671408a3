#include "camera/message_assembler.h"

namespace ornixcam {

bool MessageAssembler::Begin(uint32_t header) {
    pending_ = Message{.header = header, .body = {}};
    return CompleteIfFull();
}

bool MessageAssembler::Append(size_t offset, std::span<const uint8_t> bytes, bool& completed) {
    completed = false;
    if (!pending_) {
        return false;
    }
    std::vector<uint8_t>& body = pending_->body;
    if (offset != body.size() || body.size() + bytes.size() > BodyLength(pending_->header)) {
        return false;
    }
    body.insert(body.end(), bytes.begin(), bytes.end());
    completed = CompleteIfFull();
    return true;
}

bool MessageAssembler::CompleteIfFull() {
    if (pending_->body.size() < BodyLength(pending_->header)) {
        return false;
    }
    last_ = std::move(pending_);
    pending_.reset();
    return true;
}

}  // namespace ornixcam
