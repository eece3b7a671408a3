// ornixctl get, set, reset, controls and events on the default camera and on
// cameras that lack something: the values users see in property units, what
// reaches the camera's registers, and the errors that keep bad input away
// from the driver.
#include <fstream>
#include <functional>

#include "ornix.h"
#include "ornixctl/control_commands.h"
#include "ornixctl/controls_command.h"
#include "ornixctl/events_command.h"
#include "ornixctl/info_command.h"
#include "ornixctl/shell_command.h"
#include "ornixctl_test_support.h"

namespace ornixtest {
namespace {

using Strings = std::vector<std::string>;
using Bytes = std::vector<uint8_t>;

class OrnixctlControlsTest : public SessionTest {
  protected:
    RunResult Call(const std::function<int(std::ostream&, std::ostream&)>& command) {
        std::ostringstream out, err;
        const int status = command(out, err);
        return {status, out.str(), err.str()};
    }
    RunResult Get(const Strings& names, bool json = false) {
        return Call([&](auto& out, auto& err) {
            return ornixctl::RunGet(*session_, names, json, out, err);
        });
    }
    RunResult Set(const Strings& assignments, bool autoMode = false) {
        return Call([&](auto& out, auto& err) {
            return ornixctl::RunSet(*session_, assignments, autoMode, false, out, err);
        });
    }
    Json GetJson(const std::string& name) {
        const RunResult result = Get({name}, true);
        EXPECT_EQ(result.status, 0) << result.err;
        return Json::parse(result.out)["controls"][0];
    }
    uint32_t Register(uint16_t index) { return session_->Rig().Camera().PeekRegister(index); }
    PORNIX_DEVICE_CONTEXT Ext() { return session_->Device(); }
};

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Record r's control word and value registers.
constexpr uint16_t Control(int record) {
    return static_cast<uint16_t>(0x0400 + 16 * record);
}
constexpr uint16_t Value(int record) {
    return static_cast<uint16_t>(Control(record) + 4);
}

TEST_F(OrnixctlControlsTest, StandardControlsConvertUnitsBothWaysAndSetTheMode) {
    Start();
    RunResult set = Set({"brightness=40", "contrast=50", "gain=10"});
    ASSERT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(Register(Value(0)), 262u);      // 40 × 655 / 100
    EXPECT_EQ(Register(Value(1)), 2048u);     // 50 × 4096 / 100
    EXPECT_EQ(Register(Value(15)), 0x10A0u);  // 10 × 16 + 0x1000
    EXPECT_EQ(Register(Control(0)) & 0x4000, 0u);
    // Each set reads its control back.
    EXPECT_TRUE(Contains(set.out, "brightness = 40, manual")) << set.out;

    set = Set({"exposure=-5"}, /*autoMode=*/true);
    ASSERT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(Register(Value(10)), 31250u);         // 2^-5 s in µs
    EXPECT_EQ(Register(Control(10)), 0xC0004000u);  // the camera keeps its own bits
    const Json exposure = GetJson("exposure");
    EXPECT_EQ(exposure["value"], -5);
    EXPECT_EQ(exposure["mode"], "auto");
    EXPECT_EQ(exposure["autoAvailable"], true);
    EXPECT_EQ(exposure["seconds"], 1.0 / 32);
    EXPECT_TRUE(Contains(Get({"exposure"}).out, "-5 (1/32 s), auto"));

    // The published range and default come with the value.
    const Json brightness = GetJson("brightness");
    EXPECT_EQ(brightness["value"], 40);
    EXPECT_EQ(brightness["minimum"], 0);
    EXPECT_EQ(brightness["maximum"], 10000);
    EXPECT_EQ(brightness["step"], 1);
    EXPECT_EQ(brightness["default"], 5000);
}

TEST_F(OrnixctlControlsTest, BadNamesAndValuesGetAClearErrorAndReachNothing) {
    Start();
    const uint32_t before = Register(Value(0));
    struct Case {
        Strings assignments;
        const char* says;
    };
    const Case cases[] = {
        {{"brightness=40", "bogus=1"}, "valid names: brightness, contrast"},
        {{"brightness=10001"}, "out of range; give a whole number from 0 to 10000"},
        {{"brightness=4x"}, "'4x' is not valid"},
        {{"brightness"}, "write NAME=VALUE"},
        {{"hue=3"}, "hue: this camera does not offer it"},
        {{"binning=2x0"}, "give HxV with each 1 to 255"},
        {{"start-position=1,70000"}, "X,Y with each 0 to 65535"},
        {{"pixel-correction=maybe"}, "on or off"},
        {{"trigger-mode=sometimes"}, "none, trigger, external"},
        {{"lut=/nonexistent/table.bin"}, "cannot read the file"},
        {{"record:0=5"}, "record 0 has no raw access"},
        {{"record:57=5"}, "N from 0 to 56"},
        {{"version=1"}, "version is read-only"},
        {{"product-data=now"}, "give reload"},
        {{"binning=2x2"}, "--auto applies to the standard controls only"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.assignments.back());
        const bool autoMode = std::string(c.says).starts_with("--auto");
        const RunResult result = Set(c.assignments, autoMode);
        EXPECT_EQ(result.status, 1);
        EXPECT_TRUE(Contains(result.err, c.says)) << result.err;
    }
    EXPECT_EQ(Register(Value(0)), before);
    EXPECT_EQ(Ext()->RequestedBinX, 1u);

    // A get with one unknown name reads none of them.
    const RunResult get = Get({"brightness", "record:42", "section:x"});
    EXPECT_EQ(get.status, 1);
    EXPECT_TRUE(get.out.empty());
    EXPECT_TRUE(Contains(get.err, "raw records are 10, 12 to 41, 43 to 56")) << get.err;
    // A section the product data lacks is named as such.
    EXPECT_TRUE(Contains(Get({"section:2"}).err, "the product data has no such section"));
}

TEST_F(OrnixctlControlsTest, CustomControlsAnswerAsTheDriverKeepsThem) {
    Start();
    // Position and binning wait for the next format selection.
    ASSERT_EQ(Set({"start-position=16,32", "binning=2x3", "still-binning=4,4"}).status, 0);
    EXPECT_EQ(Ext()->RequestedStartX, 16u);
    EXPECT_EQ(Ext()->RequestedStartY, 32u);
    EXPECT_EQ(Ext()->RequestedBinX, 2u);
    EXPECT_EQ(Ext()->RequestedBinY, 3u);
    EXPECT_EQ(Ext()->RequestedStillBinX, 4u);
    const Json binning = GetJson("binning");
    EXPECT_EQ(binning["horizontal"], 1);
    EXPECT_EQ(binning["cameraStatus"], 0x00010001);
    EXPECT_EQ(GetJson("start-position")["x"], 0);

    // The look-up table comes back whole, also beyond what the camera takes.
    Bytes table(300);
    for (size_t i = 0; i < table.size(); ++i) {
        table[i] = static_cast<uint8_t>(255 - i % 256);
    }
    const std::string path = dir_.File("table.bin");
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(table.data()), static_cast<std::streamsize>(300));
    ASSERT_EQ(Set({"lut=" + path}).status, 0);
    const Json lut = GetJson("lut");
    EXPECT_EQ(lut["length"], 300);
    EXPECT_EQ(lut["bytes"].get<Bytes>(), table);
    EXPECT_EQ(session_->Rig().Camera().LookUpTable(), Bytes(table.begin(), table.begin() + 256));

    ASSERT_EQ(Set({"pixel-correction=off"}).status, 0);
    EXPECT_FALSE(Ext()->PixelCorrectionEnabled);
    EXPECT_EQ(GetJson("pixel-correction")["enabled"], false);

    ASSERT_EQ(Set({"trigger-mode=trigger,external"}).status, 0);
    EXPECT_EQ(Register(ORNIX_STILL_TRIGGER) & 3, 3u);
    EXPECT_EQ(GetJson("trigger-mode")["mode"], "trigger,external");
    ASSERT_EQ(Set({"trigger-mode=none"}).status, 0);
    EXPECT_EQ(Register(ORNIX_STILL_TRIGGER) & 3, 0u);

    // A raw record: the value alone keeps the control word's mode bit (the
    // exposure record, which offers automatic mode).
    ASSERT_EQ(Set({"record:10=0x4000,20000"}).status, 0);
    EXPECT_EQ(Register(Value(10)), 20000u);
    ASSERT_EQ(Set({"record:10=30000"}).status, 0);
    const Json record = GetJson("record:10");
    EXPECT_EQ(record["value"], 30000);
    EXPECT_EQ(record["control"], 0xC0004000u);

    const Json section = GetJson("section:4");
    EXPECT_EQ(section["length"], 16);
    EXPECT_EQ(section["bytes"][0], 0x4F);
    EXPECT_EQ(Set({"product-data=reload"}).status, 0);

    const Json version = GetJson("version");
    EXPECT_EQ(version["driverVersion"], "5.1.1.113");
    EXPECT_EQ(version["fpgaVersion"], Register(ORNIX_FPGA_VERSION));
    EXPECT_EQ(GetJson("bus-info")["highSpeed"], true);
    EXPECT_EQ(GetJson("statistics")["streams"].size(), 2u);
    const Json rates = GetJson("frame-rates");  // builds the chart
    EXPECT_EQ(rates["frameIntervals"].size(), size_t(Ext()->KFreqChartCount));
}

TEST_F(OrnixctlControlsTest, ResetStartsFormatsAndBinningAfresh) {
    Start();
    ASSERT_EQ(Set({"binning=3x3"}).status, 0);
    const RunResult reset =
        Call([&](auto& out, auto& err) { return ornixctl::RunReset(*session_, false, out, err); });
    ASSERT_EQ(reset.status, 0) << reset.err;
    EXPECT_TRUE(Contains(reset.out, "Camera reset"));
    EXPECT_EQ(Ext()->RequestedBinX, 1u);
    EXPECT_EQ(Ext()->RequestedBinY, 1u);
}

TEST_F(OrnixctlControlsTest, ControlsListsEveryControlWithItsValueAndRange) {
    Start();
    const Json doc = Run(ornixctl::RunControls);
    std::map<std::string, Json> controls;
    for (const Json& control : doc["controls"]) {
        controls[control["name"]] = control;
    }
    for (const char* name : {"brightness", "contrast", "gain", "exposure"}) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(controls.contains(name));
        for (const char* field : {"value", "minimum", "maximum", "step", "default", "mode"}) {
            EXPECT_TRUE(controls[name].contains(field)) << field;
        }
    }
    for (const char* name : {"binning", "lut", "pixel-correction", "trigger-mode", "version",
                             "bus-info", "statistics", "record:20", "events-enabled"}) {
        EXPECT_TRUE(controls.contains(name)) << name;
    }
    EXPECT_FALSE(controls.contains("hue"));
    EXPECT_FALSE(controls.contains("record:42"));  // pixel correction answers for it
    const std::string text = Text(ornixctl::RunControls);
    EXPECT_TRUE(Contains(text, "Standard controls"));
    EXPECT_TRUE(Contains(text, "binning = 1x1"));

    const Json info = Run(ornixctl::RunInfo);
    EXPECT_EQ(info["version"]["driverVersion"], "5.1.1.113");
    EXPECT_EQ(info["busInfo"]["registerInterfaceVersion"], 1);
}

TEST_F(OrnixctlControlsTest, EventsArriveInOrderAndTheInterruptTransferStopsAfterwards) {
    Start();
    ornixctl::EventsOptions options;
    options.enable = 0x7;
    options.inject = 0x5;
    options.count = 2;
    RunResult result = Call([&](auto& out, auto& err) {
        return ornixctl::RunEvents(*session_, options, true, out, err);
    });
    ASSERT_EQ(result.status, 0) << result.err;
    const Json events = Json::parse(result.out)["events"];
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]["event"], 0);
    EXPECT_EQ(events[1]["event"], 2);
    EXPECT_EQ(Ext()->EventsEnabled, 0u);
    EXPECT_EQ(Ext()->InterruptUrb, nullptr);

    options.enable = 0x9;
    result = Call([&](auto& out, auto& err) {
        return ornixctl::RunEvents(*session_, options, false, out, err);
    });
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(Contains(result.err, "no device event 3; it offers 0, 1, 2")) << result.err;
}

// Cameras without the still stream, the interrupt pipe, the look-up table or
// version 1 of the register interface.
TEST_F(OrnixctlControlsTest, CamerasThatLackSomethingSayWhat) {
    Start(R"({"configuration": {"alternateSettings": [
        {"endpoints": [{"address": "0x81", "type": "bulk", "maxPacketSize": 512}]},
        {"endpoints": [{"address": "0x02", "type": "bulk", "maxPacketSize": 512}]}]},
        "registers": {"0x4FF8": 0, "0x0010": 0}})");
    for (const char* name : {"still-binning", "still-start-position", "lut", "events-enabled"}) {
        EXPECT_TRUE(Contains(Get({name}).err, "does not offer it")) << name;
    }
    EXPECT_EQ(GetJson("statistics")["streams"].size(), 1u);
    EXPECT_EQ(GetJson("bus-info")["registerInterfaceVersion"], 0);
    // Version 0 reports both trigger flags without asking the camera.
    EXPECT_EQ(GetJson("trigger-mode")["mode"], "trigger,external");

    ornixctl::EventsOptions options;
    options.enable = 1;
    const RunResult events = Call([&](auto& out, auto& err) {
        return ornixctl::RunEvents(*session_, options, false, out, err);
    });
    EXPECT_EQ(events.status, 1);
    EXPECT_TRUE(Contains(events.err, "no interrupt pipe")) << events.err;
}

TEST(OrnixctlShellTest, OneCameraServesEveryLineOfAScript) {
    ScratchDir dir("shell");
    std::istringstream script(
        "set brightness=40   # a comment\n"
        "\n"
        "get brightness --json\n"
        "capture --count 1 --raw --out '" +
        dir.File("frames") +
        "'\n"
        "set bogus=1\n"
        "get --log x.log brightness\n"
        "exit\n"
        "set brightness=50\n");
    std::ostringstream out, err;
    const int status = ornixctl::RunCommandLine({"shell"}, out, err, script);
    EXPECT_EQ(status, 1);  // two lines failed
    EXPECT_TRUE(Contains(out.str(), "\"value\": 40")) << out.str();
    EXPECT_TRUE(fs::exists(dir.File("frames") + "/frame_0000.raw")) << out.str() << err.str();
    EXPECT_TRUE(Contains(err.str(), "line 5 failed: set bogus=1")) << err.str();
    EXPECT_TRUE(Contains(err.str(), "given when the shell starts")) << err.str();
    EXPECT_FALSE(Contains(out.str(), "brightness = 50"));  // after exit

    // Separate runs each plug in a fresh camera.
    ASSERT_EQ(Ornixctl({"set", "brightness=40"}).status, 0);
    EXPECT_TRUE(Contains(Ornixctl({"get", "brightness"}).out, "brightness = 5000"));
}

TEST(OrnixctlShellTest, WordsSplitAsAShellSplitsThem) {
    using ornixctl::SplitWords;
    EXPECT_EQ(SplitWords("  get  brightness\tgain "), (Strings{"get", "brightness", "gain"}));
    EXPECT_EQ(SplitWords("set lut='my table.bin' x=\"a \\\"b\\\"\""),
              (Strings{"set", "lut=my table.bin", "x=a \"b\""}));
    EXPECT_EQ(SplitWords("a\\ b c#d # rest"), (Strings{"a b", "c#d"}));
    EXPECT_EQ(SplitWords("''"), (Strings{""}));
    EXPECT_EQ(SplitWords("# only a comment"), Strings{});
    EXPECT_EQ(SplitWords("get 'open"), std::nullopt);
}

}  // namespace
}  // namespace ornixtest
