// ornixctl's JSON on the default camera: the documented fields, carrying
// what the driver computed and reported to the stream class; and on a camera
// without a bulk-in endpoint, a filter without pins and nothing to stream.
#include <ksmedia.h>

#include <cstddef>
#include <map>
#include <sstream>
#include <vector>

#include "ornixctl/controls_command.h"
#include "ornixctl/formats_command.h"
#include "ornixctl/info_command.h"
#include "ornixctl/try_format_command.h"
#include "ornixctl_test_support.h"

namespace ornixtest {
namespace {

class OrnixctlJsonTest : public SessionTest {
  protected:
    void SetUp() override { Start(); }
};

TEST_F(OrnixctlJsonTest, FormatsCarryTheDriversDataRanges) {
    const Json doc = Run(ornixctl::RunFormats);
    PORNIX_DEVICE_CONTEXT ext = session_->Device();
    ASSERT_EQ(doc["pins"].size(), ext->StreamCount);
    EXPECT_EQ(doc["pins"][0]["name"], "Capture");
    EXPECT_EQ(doc["pins"][1]["name"], "Still");

    for (const Json& pin : doc["pins"]) {
        const Json& formats = pin["formats"];
        ASSERT_EQ(formats.size(), ext->CaptureFormatCount);
        for (ULONG i = 0; i < formats.size(); ++i) {
            const auto* range = reinterpret_cast<const KS_DATARANGE_VIDEO*>(ext->CaptureFormats[i]);
            const auto* record = reinterpret_cast<const ORNIX_FORMAT_RECORD*>(
                reinterpret_cast<const char*>(ext->CaptureFormats[i]) -
                offsetof(ORNIX_FORMAT_RECORD, DataRange));
            const Json& f = formats[i];
            EXPECT_EQ(f["colourId"], record->ColourId);
            EXPECT_EQ(f["bank"], record->FormatIndex);
            EXPECT_EQ(f["bitsPerPixel"], range->VideoInfoHeader.bmiHeader.biBitCount);
            EXPECT_EQ(f["minFrameInterval"], range->ConfigCaps.MinFrameInterval);
            EXPECT_EQ(f["sampleSize"], range->DataRange.SampleSize);
            EXPECT_EQ(f["palette"],
                      range->DataRange.FormatSize == sizeof(KS_DATARANGE_VIDEO_PALETTE));
        }
    }

    // The 1280x1024 Bayer bank at 12000..48000 Hz, now 24000 Hz.
    const Json& bayer = doc["pins"][0]["formats"][0];
    const Json expected = Json::parse(R"({"subtype": "RAW8", "fourcc": "RGGB", "width": 1280,
        "height": 1024, "minFrameInterval": 266240, "maxFrameInterval": 1066240,
        "frameInterval": 532480, "minBitsPerSecond": 12288000, "maxBitsPerSecond": 49152000,
        "bitRate": 24576000, "sampleSize": 1310720, "fixedSizeSamples": true, "palette": true})");
    for (const auto& [key, value] : expected.items()) {
        EXPECT_EQ(bayer[key], value) << key;
    }

    // Each capture format's chart is the camera's, at the range's own size.
    const auto& banks = session_->Rig().Camera().GetProfile().formatBanks;
    for (const Json& f : doc["pins"][0]["formats"]) {
        SCOPED_TRACE(f["index"].dump());
        ASSERT_EQ(f["frameRates"]["built"], true);
        std::vector<unsigned> frequencies;
        for (const Json& e : f["frameRates"]["entries"]) {
            frequencies.push_back(e["frequency"]);
        }
        const auto& chart = banks[f["bank"].get<unsigned>()].chart;
        EXPECT_EQ(frequencies, std::vector<unsigned>(chart.begin(), chart.end()));
    }
    // 1280x1024 at 8 bits: 12000 and 48000 give 106.7 ms and 26.7 ms.
    const Json& entries = bayer["frameRates"]["entries"];
    EXPECT_EQ(entries.front()["frameInterval"], 1066666);
    EXPECT_EQ(entries.back()["frameInterval"], 266666);
    EXPECT_NEAR(entries.back()["framesPerSecond"].get<double>(), 37.5, 0.01);
    // The still pin has no frame rates.
    EXPECT_FALSE(doc["pins"][1]["formats"][0].contains("frameRates"));
}

TEST_F(OrnixctlJsonTest, ControlsNameTheSetsAndPublishRanges) {
    const Json doc = Run(ornixctl::RunControls);
    std::vector<std::string> names;
    Json exposure;  // follows the driver's stepping record
    for (const Json& set : doc["propertySets"]) {
        names.push_back(set["name"]);
        for (const Json& item : set["items"]) {
            for (const char* key : {"id", "name", "get", "set", "minProperty", "minData"}) {
                EXPECT_TRUE(item.contains(key)) << key;
            }
            if (set["name"] == "CameraControl" && item["name"] == "Exposure") {
                exposure = item;
            }
        }
    }
    ASSERT_EQ(names.size(), session_->Device()->PropertySetCount);
    EXPECT_EQ(std::vector(names.end() - 3, names.end()),
              (std::vector<std::string>{"OxCustom", "VideoControl", "TevrinSgl"}));
    const PKSPROPERTY_STEPPING_LONG range = session_->Device()->ExposureRange;
    ASSERT_NE(range, nullptr);
    ASSERT_FALSE(exposure.is_null());
    EXPECT_EQ(exposure["minimum"], range->Bounds.SignedMinimum);
    EXPECT_EQ(exposure["maximum"], range->Bounds.SignedMaximum);
    EXPECT_EQ(exposure["step"], 1);
    EXPECT_TRUE(exposure.contains("default"));
}

TEST_F(OrnixctlJsonTest, InfoShowsIdentityAndTopology) {
    const Json doc = Run(ornixctl::RunInfo);
    PORNIX_DEVICE_CONTEXT ext = session_->Device();
    const Json& id = doc["identity"];
    EXPECT_EQ(id["vendorId"], ext->DeviceDescriptor->idVendor);
    EXPECT_EQ(id["productId"], ext->DeviceDescriptor->idProduct);
    EXPECT_EQ(id["bcdDevice"], ext->DeviceDescriptor->bcdDevice);
    EXPECT_EQ(id["serialNumber"], 12345);  // the default camera's "00012345"
    EXPECT_EQ(id["cameraId"], ext->CameraId);
    EXPECT_EQ(id["specVersion"], ext->SpecVersion);
    for (const char* key : {"fpgaConfigured", "fpgaBusy", "fpgaVersion", "highSpeed"}) {
        EXPECT_TRUE(id.contains(key)) << key;
    }

    const Json& t = doc["topology"];
    EXPECT_EQ(t["streams"], ext->StreamCount);
    EXPECT_EQ(t["categories"].size(), 3u);
    // Every pipe the driver maps appears with its role and endpoint.
    std::map<std::string, Json> role;
    for (const Json& pipe : t["pipes"]) {
        role[pipe["role"]] = pipe;
    }
    ASSERT_TRUE(role.contains("capture"));
    EXPECT_EQ(role["capture"]["endpointAddress"].get<int>() & 0x80, 0x80);
    EXPECT_EQ(role["capture"]["type"], "bulk");
    EXPECT_EQ(role["fpga"]["endpointAddress"].get<int>() & 0x80, 0);
    EXPECT_EQ(role["interrupt"]["type"], "interrupt");
    EXPECT_EQ(t["openPipes"].size(), session_->Rig().Usb().OpenPipes().size());

    ASSERT_EQ(t["eventSets"].size(), ext->EventSetCount);
    EXPECT_EQ(t["eventSets"][0]["name"], "VidCapToSti");
    EXPECT_EQ(t["eventSets"][1]["name"], "OxEvents");
    EXPECT_EQ(t["deviceEventRoutine"], true);
    EXPECT_FALSE(doc["registers"].empty());
}

TEST_F(OrnixctlJsonTest, TryFormatShowsTheAnswerAndWhatTheCameraRuns) {
    const struct {
        const char* name;
        ornixctl::TryFormatOptions options;
        const char *answer, *programmed;  // fields of each, as JSON
    } cases[] = {
        // 640x480 from bank 0: 125000 is the chart's 24000 exactly.
        {"capture, smaller window",
         {"capture", 0, 640, 480, 125000},
         R"({"width": 640, "height": 480, "topDown": true, "fourcc": "RGGB",
             "frameInterval": 125000, "bitRate": 196608000, "imageSize": 307200,
             "formatSize": 1192})",
         R"({"registers": "capture", "bank": 0, "colourId": 8, "windowWidth": 640,
             "windowHeight": 480, "binningX": 1, "startX": 0, "currentFrequency": 24000})"},
        // Interval 0 takes the fastest entry: 24000 for 1280x1024 at 16 bits.
        {"capture, fastest",
         {"capture", 4, std::nullopt, std::nullopt, 0},
         R"({"width": 1280, "height": 1024, "fourcc": "RGGB", "bitsPerPixel": 16,
             "frameInterval": 1066666, "bitRate": 196608000, "formatSize": 152})",
         R"({"bank": 1, "colourId": 12, "windowWidth": 1280, "currentFrequency": 24000})"},
        // The still pin keeps the interval asked for and programs the still bank.
        {"still",
         {"still", 5, 320, 256, 555555},
         R"({"width": 320, "height": 256, "fourcc": "", "frameInterval": 555555,
             "imageSize": 81920})",
         R"({"registers": "still", "bank": 2, "colourId": 0, "windowWidth": 320,
             "windowHeight": 256})"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::ostringstream out, err;
        ASSERT_EQ(ornixctl::RunTryFormat(*session_, c.options, true, out, err), 0) << err.str();
        const Json doc = Json::parse(out.str());
        for (const auto& [part, fields] :
             {std::pair{"answer", c.answer}, {"programmed", c.programmed}}) {
            const Json expected = Json::parse(fields);
            for (const auto& [key, value] : expected.items()) {
                EXPECT_EQ(doc[part][key], value) << part << "." << key;
            }
        }
        EXPECT_EQ(doc["programmed"].contains("currentFrequency"), c.options.pin == "capture");
    }
}

// A chart the camera cannot give (a count below 2) fails the selection: the
// format shows no chart. A single frequency is a chart of one.
TEST_F(SessionTest, FormatsSayWhenAChartCannotBeBuilt) {
    Start(R"({"name": "odd charts", "formatBanks": [
        {"maxSize": [640, 512], "unitSize": [8, 2], "colorId": 0,
         "frequency": {"min": 12000, "max": 48000, "current": 24000}, "chartCount": 1},
        {"maxSize": [640, 512], "unitSize": [8, 2], "colorId": 0,
         "frequency": {"min": 5000, "max": 5000}}]})");
    const Json doc = Run(ornixctl::RunFormats);
    const Json& formats = doc["pins"][0]["formats"];
    ASSERT_EQ(formats.size(), 2u);
    EXPECT_EQ(formats[0]["frameRates"]["built"], false);
    EXPECT_NE(formats[0]["frameRates"]["intersection"].get<std::string>().find("STATUS_NO_MATCH"),
              std::string::npos);
    const Json& single = formats[1]["frameRates"]["entries"];
    ASSERT_EQ(single.size(), 1u);
    EXPECT_EQ(single[0]["frequency"], 5000);
    EXPECT_EQ(single[0]["frameInterval"], 640000);
    EXPECT_NE(Text(ornixctl::RunFormats).find("0  chart not built (intersection: STATUS_NO_MATCH"),
              std::string::npos);
}

// A camera without a bulk-in endpoint: a filter without pins.
TEST_F(SessionTest, WithoutPinsSaysThereIsNothingToStream) {
    Start(R"({"name": "no bulk-in", "configuration": {"alternateSettings": [
        {"endpoints": [{"address": "0x83", "type": "interrupt", "maxPacketSize": 8, "interval": 4}]},
        {"endpoints": [{"address": "0x02", "type": "bulk", "maxPacketSize": 512}]}]}})");
    EXPECT_NE(Text(ornixctl::RunFormats).find("nothing to stream"), std::string::npos);
    EXPECT_TRUE(Run(ornixctl::RunFormats)["pins"].empty());
    EXPECT_NE(Text(ornixctl::RunInfo).find("Streams: 0 (no pins: nothing to stream)"),
              std::string::npos);
    EXPECT_EQ(Run(ornixctl::RunInfo)["topology"]["streams"], 0);
}

}  // namespace
}  // namespace ornixtest
