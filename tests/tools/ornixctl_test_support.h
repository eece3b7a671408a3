// Running ornixctl in-process: whole command lines, or single commands on a
// session over the default camera or a profile of the test's own.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "ornixctl/command_line.h"
#include "ornixctl/session.h"

namespace ornixtest {

namespace fs = std::filesystem;
using Json = nlohmann::json;

struct RunResult {
    int status;
    std::string out, err;
};

inline RunResult Ornixctl(const std::vector<std::string>& args) {
    std::ostringstream out, err;
    const int status = ornixctl::RunCommandLine(args, out, err);
    return {status, out.str(), err.str()};
}

// A directory of this process's own, as ctest runs test processes side by side.
class ScratchDir {
  public:
    explicit ScratchDir(const std::string& stem)
        : path_(fs::path(::testing::TempDir()) /
                ("ornixctl_" + std::to_string(getpid()) + "_" + stem)) {
        fs::remove_all(path_);
        fs::create_directories(path_);
    }
    ~ScratchDir() { fs::remove_all(path_); }
    // The path of `name` in the directory, written with `text` unless that is empty.
    std::string File(const char* name, const std::string& text = {}) const {
        const std::string path = (path_ / name).string();
        if (!text.empty()) {
            std::ofstream(path) << text;
        }
        return path;
    }

  private:
    fs::path path_;
};

using Command = int (*)(ornixctl::Session&, bool, std::ostream&);

class SessionTest : public ::testing::Test {
  protected:
    // Starts the driver on the default camera, or on `profileJson`.
    void Start(const std::string& profileJson = {}) {
        ornixctl::GlobalOptions options;
        if (!profileJson.empty()) {
            options.cameraProfile = dir_.File("camera.json", profileJson);
        }
        session_ = std::make_unique<ornixctl::Session>(options);
        ASSERT_EQ(session_->StartStatus(), STATUS_SUCCESS);
    }
    std::string Text(Command command, bool json = false) {
        std::ostringstream out;
        EXPECT_EQ(command(*session_, json, out), 0);
        return out.str();
    }
    Json Run(Command command) { return Json::parse(Text(command, true)); }

    ScratchDir dir_{"session"};
    std::unique_ptr<ornixctl::Session> session_;  // destroyed before dir_
};

}  // namespace ornixtest
