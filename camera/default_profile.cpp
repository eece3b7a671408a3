#include "camera/profile.h"
#include "camera/profile_json.h"

namespace ornixcam {
namespace {

// Kept identical to camera/profiles/default.json; a test compares the two.
constexpr std::string_view kDefaultProfileJson = R"json(
{
  "name": "Ornix USB 2.0 camera",
  "description": "The built-in camera: a high-speed raw-image camera with a capture and a still stream, an event pipe and an FPGA download pipe.",
  "device": {
    "idVendor": "0x1B0F",
    "idProduct": "0x0A2F",
    "bcdDevice": "0x0000",
    "bcdUSB": "0x0200",
    "bDeviceClass": "0xFF",
    "bDeviceSubClass": 0,
    "bDeviceProtocol": 0,
    "bMaxPacketSize0": 64,
    "iManufacturer": 1,
    "iProduct": 2,
    "iSerialNumber": 3,
    "speed": "high"
  },
  "strings": {
    "0": ["0x0409"],
    "1": "Ornix Imaging",
    "2": "Ornix USB 2.0 Camera",
    "3": "00012345"
  },
  "configuration": {
    "bConfigurationValue": 1,
    "iConfiguration": 0,
    "bmAttributes": "0x80",
    "bMaxPower": 250,
    "alternateSettings": [
      {
        "bInterfaceClass": "0xFF",
        "endpoints": [
          {"address": "0x81", "type": "bulk", "maxPacketSize": 512, "interval": 0},
          {"address": "0x82", "type": "bulk", "maxPacketSize": 512, "interval": 0},
          {"address": "0x83", "type": "interrupt", "maxPacketSize": 8, "interval": 4}
        ]
      },
      {
        "bInterfaceClass": "0xFF",
        "endpoints": [
          {"address": "0x02", "type": "bulk", "maxPacketSize": 512, "interval": 0}
        ]
      }
    ]
  },
  "registers": {
    "0x0004": 1,
    "0x0008": "0x00000000",
    "0x000C": "0x00010203",
    "0x0010": 1,
    "0x019C": 3,
    "0x0220": "0x00000007",
    "0x0280": 0,
    "0x0284": 0,
    "0x4FF8": 1
  },
  "registerAccess": {},
  "rawDescriptors": {},
  "quirks": {
    "shortReads": {}
  }
}
)json";

}  // namespace

std::string_view DefaultProfileJson() {
    return kDefaultProfileJson;
}

const Profile& DefaultProfile() {
    static const Profile profile = ProfileFromJson(kDefaultProfileJson, Profile{});
    return profile;
}

}  // namespace ornixcam
