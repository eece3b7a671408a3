// Collects the messages a host writes through the message registers.
//
// A message is a header written to the header register, then its body written
// into the data window in order: body byte n lands at window offset n, usually
// in 64-byte pieces at offsets 0x00, 0x40, ... The header says nothing about
// the body's length (a look-up table is sent with header 0), so the message is
// simply what has arrived since the last header.
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
    // Starts a new message, replacing the previous one.
    void Begin(uint32_t header);

    // Body bytes at `offset` in the window. Refused (false) without a header
    // or when they do not follow on from the bytes already received.
    bool Append(size_t offset, std::span<const uint8_t> bytes);

    void Reset() { current_.reset(); }

    // The message being received (header plus the body so far).
    const std::optional<Message>& Current() const { return current_; }

  private:
    std::optional<Message> current_;
};

}  // namespace ornixcam
