#include "camera/message_assembler.h"

namespace ornixcam {

void MessageAssembler::Begin(uint32_t header) { current_ = Message{.header = header, .body = {}}; }

bool MessageAssembler::Append(size_t offset, std::span<const uint8_t> bytes) {
    if (!current_ || offset != current_->body.size()) {
        return false;
    }
    current_->body.insert(current_->body.end(), bytes.begin(), bytes.end());
    return true;
}

}  // namespace ornixcam
