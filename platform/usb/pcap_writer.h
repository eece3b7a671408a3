// A minimal writer of classic pcap capture files (the libpcap format that
// Wireshark and tshark read), independent of what the packets contain.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <span>

namespace usbsim {

class PcapWriter {
  public:
    // Creates (or truncates) `file` and writes the file header. Throws
    // std::runtime_error when the file cannot be created.
    PcapWriter(const std::filesystem::path& file, uint32_t linkType, uint32_t snapLength);

    uint32_t SnapLength() const { return snapLength_; }

    // One packet: `captured` holds the bytes kept (at most SnapLength()),
    // `originalLength` how long the packet really was.
    void Write(int64_t time100ns, std::span<const uint8_t> captured, uint32_t originalLength);

    void Flush();

  private:
    std::ofstream out_;
    uint32_t snapLength_;
};

}  // namespace usbsim
