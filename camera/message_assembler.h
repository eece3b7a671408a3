// Collects the messages a host writes through the message registers.
//
// A message is a header written to the header register, then its body written
// into the data window in order: body byte n lands at window offset n, usually
// in 64-byte pieces at offsets 0x00, 0x40, ... The header's low 16 bits give the
// body length; the message is complete when that many bytes have arrived.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace ornixcam {

struct Message {
    uint32_t header = 0;
    std::vector<uint8_t> body;

    bool operator==(const Message&) const = default;
};

class MessageAssembler {
public:
    static constexpr size_t BodyLength(uint32_t header) { return header & 0xFFFF; }

    // Starts a new message, dropping any unfinished one. True if this header
    // alone completes a message (an empty body).
    bool Begin(uint32_t header);

    // Body bytes at `offset` in the window. Refused (false) without a message
    // in progress, out of order, or past the announced length. Sets `completed`
    // when these bytes finish the message.
    bool Append(size_t offset, std::span<const uint8_t> bytes, bool& completed);

    void Reset() { pending_.reset(); }

    const std::optional<Message>& Last() const { return last_; }
    const std::optional<Message>& Pending() const { return pending_; }

private:
    bool CompleteIfFull();

    std::optional<Message> pending_;
    std::optional<Message> last_;
};

}  // namespace ornixcam
