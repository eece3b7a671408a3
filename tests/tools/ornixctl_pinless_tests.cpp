// ornixctl on a camera without a bulk-in endpoint: the driver starts, the filter
// has no pins, and the tool says there is nothing to stream instead of failing.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include <unistd.h>

#include "ornixctl/formats_command.h"
#include "ornixctl/info_command.h"
#include "ornixctl/session.h"

namespace {

constexpr const char* kNoBulkInProfile = R"({
  "name": "no bulk-in",
  "configuration": {
    "alternateSettings": [
      {"endpoints": [{"address": "0x83", "type": "interrupt", "maxPacketSize": 8, "interval": 4}]},
      {"endpoints": [{"address": "0x02", "type": "bulk", "maxPacketSize": 512}]}
    ]
  }
})";

class PinlessOrnixctlTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // One file per process: the test may run in several builds at once.
        profile_ = std::filesystem::temp_directory_path() /
                   ("ornixctl-no-bulk-in-" + std::to_string(::getpid()) + ".json");
        std::ofstream(profile_) << kNoBulkInProfile;
        ornixctl::GlobalOptions options;
        options.cameraProfile = profile_.string();
        session_ = std::make_unique<ornixctl::Session>(options);
        ASSERT_EQ(session_->StartStatus(), STATUS_SUCCESS);
    }
    void TearDown() override {
        session_.reset();
        std::filesystem::remove(profile_);
    }

    std::string Run(int (*command)(ornixctl::Session&, bool, std::ostream&), bool json) {
        std::ostringstream out;
        EXPECT_EQ(command(*session_, json, out), 0);
        return out.str();
    }

    std::filesystem::path profile_;
    std::unique_ptr<ornixctl::Session> session_;
};

TEST_F(PinlessOrnixctlTest, SaysThereIsNothingToStream) {
    EXPECT_NE(Run(ornixctl::RunFormats, false).find("nothing to stream"), std::string::npos);
    EXPECT_TRUE(nlohmann::json::parse(Run(ornixctl::RunFormats, true))["pins"].empty());
    EXPECT_NE(Run(ornixctl::RunInfo, false).find("Streams: 0 (no pins: nothing to stream)"),
              std::string::npos);
    const nlohmann::json info = nlohmann::json::parse(Run(ornixctl::RunInfo, true));
    EXPECT_EQ(info["topology"]["streams"], 0);
    EXPECT_TRUE(info["topology"]["pins"].empty());
}

}  // namespace
