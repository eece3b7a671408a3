#include "usb/pcap_writer.h"

#include <algorithm>
#include <stdexcept>

#include "usb/little_endian.h"

namespace usbsim {

namespace {

constexpr uint32_t kPcapMagic = 0xA1B2C3D4;  // microsecond time stamps
constexpr uint16_t kVersionMajor = 2;
constexpr uint16_t kVersionMinor = 4;

}  // namespace

PcapWriter::PcapWriter(const std::filesystem::path& file, uint32_t linkType, uint32_t snapLength)
    : out_(file, std::ios::binary | std::ios::trunc), snapLength_(snapLength) {
    if (!out_) {
        throw std::runtime_error("cannot create capture file " + file.string());
    }
    LittleEndianBuffer header;
    header.U32(kPcapMagic);
    header.U16(kVersionMajor);
    header.U16(kVersionMinor);
    header.U32(0);  // time zone offset: time stamps are already UTC
    header.U32(0);  // accuracy of time stamps
    header.U32(snapLength);
    header.U32(linkType);
    out_.write(reinterpret_cast<const char*>(header.Bytes().data()),
               static_cast<std::streamsize>(header.Bytes().size()));
}

void PcapWriter::Write(int64_t time100ns, std::span<const uint8_t> captured,
                       uint32_t originalLength) {
    captured = captured.first(std::min<size_t>(captured.size(), snapLength_));
    const int64_t microseconds = std::max<int64_t>(time100ns, 0) / 10;
    LittleEndianBuffer header;
    header.U32(static_cast<uint32_t>(microseconds / 1'000'000));
    header.U32(static_cast<uint32_t>(microseconds % 1'000'000));
    header.U32(static_cast<uint32_t>(captured.size()));
    header.U32(std::max<uint32_t>(originalLength, static_cast<uint32_t>(captured.size())));
    out_.write(reinterpret_cast<const char*>(header.Bytes().data()),
               static_cast<std::streamsize>(header.Bytes().size()));
    out_.write(reinterpret_cast<const char*>(captured.data()),
               static_cast<std::streamsize>(captured.size()));
}

void PcapWriter::Flush() {
    out_.flush();
}

}  // namespace usbsim
