#include "camera/profile.h"
#include "camera/profile_json.h"

namespace ornixcam {
namespace {

// Kept identical to camera/profiles/default.json; a test compares the two.
constexpr std::string_view kDefaultProfileJson = R"json(
{
  "name": "Ornix USB 2.0 camera",
  "description": "The built-in camera: a high-speed Bayer camera with a capture and a still stream, an event pipe, an FPGA loaded at start-up, product data with a defect list, and three format banks.",
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
  "fpga": {
    "present": true,
    "startsConfigured": false,
    "busyPolls": 0,
    "version": "0x00010203",
    "image": "expected"
  },
  "power": {
    "losesFpgaInD3": false
  },
  "productData": {
    "mappingType": 1,
    "refuseMappingQuery": false,
    "eeproms": ["0xA0", "0xA2", "0xA8"],
    "sections": [
      {"id": 1, "defects": [
        [808, 98], [748, 118], [1155, 122], [457, 126], [1121, 128], [499, 167], [76, 176],
        [148, 192], [762, 199], [295, 241], [121, 253], [95, 272], [663, 308], [508, 368],
        [1147, 370], [211, 384], [1267, 421], [1039, 439], [101, 452], [143, 492], [740, 613],
        [1176, 614], [1169, 631], [1181, 812], [888, 856], [593, 858], [185, 869], [1016, 875],
        [703, 919], [1199, 928], [643, 953], [1075, 1013]
      ]},
      {"id": 4, "bytes": "4F 52 4E 58 01 00 00 00 00 05 00 04 10 00 20 00"}
    ],
    "end": true
  },
  "passThrough": {
    "scratchBytes": 256
  },
  "formatBanks": [
    {
      "maxSize": [1280, 1024], "unitSize": [8, 2], "size": [1280, 1024], "position": [0, 0],
      "colorId": 8, "colorInquiry": {"base": 8, "extra": "0x0003", "interlaced": false},
      "binning": [1, 1], "binnings": [1, 2, 4], "validate": "clamp",
      "frequency": {"min": 12000, "max": 48000, "current": 24000},
      "chart": [12000, 16000, 20000, 24000, 32000, 40000, 48000]
    },
    {
      "maxSize": [1280, 1024], "unitSize": [8, 2], "size": [1280, 1024], "position": [0, 0],
      "colorId": 12, "colorInquiry": {"base": 12, "extra": "0x0000", "interlaced": false},
      "binning": [1, 1], "binnings": [1, 2, 4], "validate": "clamp",
      "frequency": {"min": 6000, "max": 24000, "current": 12000},
      "chart": [6000, 8000, 12000, 16000, 24000]
    },
    {
      "maxSize": [640, 512], "unitSize": [8, 2], "size": [640, 512], "position": [0, 0],
      "colorId": 5, "colorInquiry": {"base": 5, "extra": "0x0000", "interlaced": false},
      "binning": [1, 1], "binnings": [1, 2, 4], "validate": "clamp",
      "frequency": {"min": 12000, "max": 48000, "current": 24000},
      "chart": [12000, 24000, 36000, 48000]
    }
  ],
  "properties": {
    "brightness": {"value": 32750, "min": 0, "max": 65500},
    "contrast": {"value": 4096, "min": 0, "max": 8192},
    "gain": {"value": "0x1000", "min": "0x1000", "max": "0x10000", "autoAvailable": true},
    "exposure": {"value": 10000, "min": 100, "max": 2000000, "autoAvailable": true},
    "record13": {"value": 0, "min": 0, "max": 1},
    "record20": {"value": 0, "min": 0, "max": 3},
    "record42": {"value": 1, "min": 0, "max": 1, "clamp": false}
  },
  "registers": {
    "0x0004": 1,
    "0x0010": 1,
    "0x0220": "0x00000007",
    "0x0280": 0,
    "0x0284": 0,
    "0x4FF8": 1
  },
  "registerAccess": {},
  "rawDescriptors": {},
  "quirks": {
    "shortReads": {}
  },
  "hostController": {
    "shortInTransfer": "succeeds"
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
