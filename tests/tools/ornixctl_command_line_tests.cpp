// ornixctl's global options work before and after the command, in any order,
// and each is honoured wherever it stands.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "ornixctl/command_line.h"

namespace {

namespace fs = std::filesystem;

struct RunResult {
    int status;
    std::string out;
    std::string err;
};

RunResult Ornixctl(const std::vector<std::string>& args) {
    std::ostringstream out;
    std::ostringstream err;
    const int status = ornixctl::RunCommandLine(args, out, err);
    return {status, out.str(), err.str()};
}

// Files of one run: a camera profile with a name of its own, and the log and
// trace the run writes.
class RunFiles {
  public:
    // Test processes may run side by side: each has directories of its own.
    explicit RunFiles(const std::string& stem)
        : dir_(fs::path(::testing::TempDir()) /
               ("ornixctl_" + std::to_string(getpid()) + "_" + stem)) {
        fs::remove_all(dir_);
        fs::create_directories(dir_);
        std::ofstream(Profile()) << R"({"name": "Argument order camera"})";
    }
    ~RunFiles() { fs::remove_all(dir_); }

    std::string Profile() const { return (dir_ / "camera.json").string(); }
    std::string Log() const { return (dir_ / "driver.log").string(); }
    std::string Trace() const { return (dir_ / "usb.pcap").string(); }

    // Replaces the placeholders PROFILE, LOG and TRACE in `args`.
    std::vector<std::string> Expand(std::vector<std::string> args) const {
        for (std::string& a : args) {
            for (const auto& [key, value] :
                 {std::pair{"PROFILE", Profile()}, {"LOG", Log()}, {"TRACE", Trace()}}) {
                if (const auto at = a.find(key); at != std::string::npos) {
                    a.replace(at, std::string(key).size(), value);
                }
            }
        }
        return args;
    }

  private:
    fs::path dir_;
};

struct Order {
    const char* name;
    std::vector<std::string> args;
};

void PrintTo(const Order& order, std::ostream* os) {
    *os << order.name;
}

// The same invocation of `formats` with its options in different places.
const Order kFormatsOrders[] = {
    {"OptionsFirst",
     {"--camera", "PROFILE", "--log", "LOG", "--trace", "TRACE", "--json", "formats"}},
    {"OptionsLast",
     {"formats", "--camera", "PROFILE", "--log", "LOG", "--trace", "TRACE", "--json"}},
    {"JsonFirstRestAfter",
     {"--json", "formats", "--camera=PROFILE", "--log", "LOG", "--trace=TRACE"}},
    {"Interleaved",
     {"--log", "LOG", "--trace", "TRACE", "formats", "--json", "--camera", "PROFILE"}},
};

class OrnixctlArgumentOrder : public ::testing::TestWithParam<Order> {};

TEST_P(OrnixctlArgumentOrder, GivesTheSameOutputAndHonoursEveryOption) {
    static const std::string reference = [] {
        const RunFiles files("reference");
        return Ornixctl(files.Expand(kFormatsOrders[0].args)).out;
    }();
    const RunFiles files(GetParam().name);
    const RunResult run = Ornixctl(files.Expand(GetParam().args));

    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(run.out == reference) << "other output than with the options first";
    // --json and --camera: JSON naming the profile's camera.
    EXPECT_EQ(nlohmann::json::parse(run.out)["camera"], "Argument order camera");
    // --log and --trace: both files written.
    EXPECT_GT(fs::file_size(files.Log()), 0u);
    EXPECT_GT(fs::file_size(files.Trace()), 0u);
}

INSTANTIATE_TEST_SUITE_P(Formats, OrnixctlArgumentOrder, ::testing::ValuesIn(kFormatsOrders),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(OrnixctlCommandLine, EveryCommandTakesJsonAfterIt) {
    for (const char* command : {"info", "formats", "controls"}) {
        const RunResult before = Ornixctl({"--json", command});
        const RunResult after = Ornixctl({command, "--json"});
        ASSERT_EQ(before.status, 0) << command << ": " << before.err;
        ASSERT_EQ(after.status, 0) << command << ": " << after.err;
        EXPECT_TRUE(after.out == before.out) << command << " prints other output";
        EXPECT_TRUE(nlohmann::json::accept(after.out)) << command;
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
    };
    for (const auto& c : cases) {
        const RunResult run = Ornixctl(c.args);
        EXPECT_NE(run.status, 0) << c.args.front();
        EXPECT_NE(run.err.find(c.complaint), std::string::npos) << run.err;
        EXPECT_EQ(run.out, "");
    }
}

}  // namespace
