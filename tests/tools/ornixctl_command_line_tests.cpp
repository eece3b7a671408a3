// ornixctl's global options work before and after the command, in any order,
// and each is honoured wherever it stands.
#include "ornixctl_test_support.h"

namespace ornixtest {
namespace {

TEST(OrnixctlCommandLine, OptionsGiveTheSameOutputAndAreHonouredWhereverTheyStand) {
    const ScratchDir dir("order");
    const std::string profile = dir.File("camera.json", R"({"name": "Argument order camera"})"),
                      log = dir.File("driver.log"), trace = dir.File("usb.pcap");
    const std::vector<std::string> orders[] = {
        {"--camera", profile, "--log", log, "--trace", trace, "--json", "formats"},
        {"formats", "--camera", profile, "--log", log, "--trace", trace, "--json"},
        {"--json", "formats", "--camera=" + profile, "--log", log, "--trace=" + trace},
        {"--log", log, "--trace", trace, "formats", "--json", "--camera", profile},
    };
    std::string reference;  // the output with the options first
    for (const std::vector<std::string>& args : orders) {
        SCOPED_TRACE(args.front());
        fs::remove(log);
        fs::remove(trace);
        const RunResult run = Ornixctl(args);
        ASSERT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(run.err, "");
        if (reference.empty()) {
            reference = run.out;
        }
        EXPECT_TRUE(run.out == reference) << "other output than with the options first";
        // --json and --camera: JSON naming the profile's camera.
        EXPECT_EQ(Json::parse(run.out)["camera"], "Argument order camera");
        // --log and --trace: both files written afresh.
        EXPECT_TRUE(fs::exists(log) && fs::file_size(log) > 0);
        EXPECT_TRUE(fs::exists(trace) && fs::file_size(trace) > 0);
    }
}

// formats is in the test above.
TEST(OrnixctlCommandLine, TheOtherCommandsTakeJsonAfterThem) {
    for (const char* command : {"info", "controls"}) {
        const RunResult before = Ornixctl({"--json", command});
        const RunResult after = Ornixctl({command, "--json"});
        ASSERT_EQ(before.status, 0) << command << ": " << before.err;
        ASSERT_EQ(after.status, 0) << command << ": " << after.err;
        EXPECT_TRUE(after.out == before.out) << command << " prints other output";
        EXPECT_TRUE(Json::accept(after.out)) << command;
    }
}

TEST(OrnixctlCommandLine, RefusesWhatNoOneDefines) {
    const struct {
        std::vector<std::string> args;
        const char* complaint;
    } cases[] = {
        {{"formats", "--bogus"}, "--bogus"},
        {{"--bogus", "formats"}, "--bogus"},
        {{"--json"}, "subcommand"},
        {{"formats", "--camera", "/nonexistent/camera.json"}, "/nonexistent/camera.json"},
        {{"try-format", "--pin", "capture", "--format", "0", "--size", "641x480"},
         "the driver refused the format: STATUS_NO_MATCH (0xC0000272)"},
        {{"try-format", "--pin", "capture", "--format", "7"}, "there is no format 7"},
        {{"try-format", "--pin", "sideways", "--format", "0"}, "sideways"},
        {{"try-format", "--pin", "still", "--format", "0", "--size", "0x480"}, "WIDTHxHEIGHT"},
        {{"try-format", "--format", "0"}, "--pin is required"},
    };
    for (const auto& c : cases) {
        const RunResult run = Ornixctl(c.args);
        EXPECT_NE(run.status, 0) << c.args.front();
        EXPECT_NE(run.err.find(c.complaint), std::string::npos) << run.err;
        EXPECT_EQ(run.out, "");
    }
}

}  // namespace
}  // namespace ornixtest
