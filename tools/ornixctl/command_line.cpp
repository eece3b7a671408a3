#include "ornixctl/command_line.h"

#include <CLI/CLI.hpp>
#include <unistd.h>

#include <bit>
#include <exception>
#include <optional>
#include <tuple>

#include "ornixctl/capture_command.h"
#include "ornixctl/control_commands.h"
#include "ornixctl/controls_command.h"
#include "ornixctl/events_command.h"
#include "ornixctl/formats_command.h"
#include "ornixctl/info_command.h"
#include "ornixctl/shell_command.h"
#include "ornixctl/try_format_command.h"

namespace ornixctl {
namespace {

// The whole command line: the commands, their options, and where the parsed
// values land. One instance per command line parsed.
class CommandLine {
  public:
    CommandLine();
    // Nullopt when a command is to run; else the exit status of a parse
    // error or of --help, whose text is already written.
    std::optional<int> Parse(const std::vector<std::string>& args, std::ostream& out,
                             std::ostream& err);
    int Execute(Session& session, std::ostream& out, std::ostream& err);

    const GlobalOptions& Globals() const { return options_; }
    bool ChoosesMachine() const {
        return !options_.cameraProfile.empty() || !options_.logFile.empty() ||
               !options_.traceFile.empty() || !options_.driverFile.empty();
    }
    bool IsShell() const { return shell_->parsed(); }

  private:
    void AddCaptureCommands(const CLI::Validator& sizeCheck);
    void AddControlCommands();

    CLI::App app_{"ornixctl - control and inspect an Ornix camera through its driver"};
    GlobalOptions options_;
    CLI::App* info_ = nullptr;
    CLI::App* formats_ = nullptr;
    CLI::App* controls_ = nullptr;
    CLI::App* tryFormat_ = nullptr;
    CLI::App* capture_ = nullptr;
    CLI::App* still_ = nullptr;
    CLI::App* get_ = nullptr;
    CLI::App* set_ = nullptr;
    CLI::App* reset_ = nullptr;
    CLI::App* events_ = nullptr;
    CLI::App* shell_ = nullptr;

    TryFormatOptions tryOptions_;
    std::string trySize_;
    int64_t tryInterval_ = 0;
    CLI::Option* trySizeOption_ = nullptr;
    CLI::Option* tryIntervalOption_ = nullptr;

    CaptureOptions captureOptions_;
    std::string captureSize_;
    int64_t captureInterval_ = 0;
    CLI::Option* captureIntervalOption_ = nullptr;

    std::vector<std::string> names_;
    std::vector<std::string> assignments_;
    bool autoMode_ = false;

    EventsOptions eventsOptions_;
    std::string enableMask_, injectMask_;
    uint64_t eventCount_ = 0;
    CLI::Option* eventCountOption_ = nullptr;
    CLI::Option* eventTimeoutOption_ = nullptr;
};

CLI::Validator MaskCheck() {
    return CLI::Validator(
        [](std::string& text) {
            return ParseMask(text) ? std::string() : "must be a 32-bit mask such as 0x5";
        },
        "MASK");
}

CommandLine::CommandLine() {
    app_.name("ornixctl");
    app_.require_subcommand(1);
    // Options a command does not know are handed up to the global ones, so
    // they may follow the command. The commands inherit this.
    app_.fallthrough();

    app_.add_option("--camera", options_.cameraProfile, "camera profile (JSON); default: built-in")
        ->check(CLI::ExistingFile);
    app_.add_option("--log", options_.logFile, "write the driver's debugger output to FILE");
    app_.add_option("--driver", options_.driverFile,
                    "run this driver binary (the x64 ornix.sys) instead of the linked driver");
    app_.add_option("--trace", options_.traceFile, "write the USB traffic to FILE (usbmon pcap)");
    app_.add_flag("--json", options_.json, "print JSON instead of tables");

    info_ = app_.add_subcommand("info", "camera identity and topology read through the driver");
    formats_ = app_.add_subcommand("formats", "each pin and the video formats it offers");
    controls_ = app_.add_subcommand(
        "controls",
        "every control with its value, range, step, default and mode; the property sets");
    tryFormat_ = app_.add_subcommand(
        "try-format",
        "negotiate one of a pin's formats as an application does, and show the answer");
    const CLI::Validator sizeCheck(
        [](std::string& text) {
            return ParseSize(text) ? std::string() : "must be WIDTHxHEIGHT with positive numbers";
        },
        "WxH");
    tryFormat_->add_option("--pin", tryOptions_.pin, "the pin: capture or still")
        ->required()
        ->check(CLI::IsMember({"capture", "still"}));
    tryFormat_
        ->add_option("--format", tryOptions_.format,
                     "the pin's format N, as `formats` numbers them")
        ->required();
    trySizeOption_ =
        tryFormat_
            ->add_option("--size", trySize_, "the window to ask for, WIDTHxHEIGHT (e.g. 640x480)")
            ->check(sizeCheck);
    tryIntervalOption_ = tryFormat_->add_option(
        "--interval", tryInterval_,
        "the frame interval to ask for, in 100-nanosecond units (333333 is 30 fps)");

    AddCaptureCommands(sizeCheck);
    AddControlCommands();
    shell_ = app_.add_subcommand(
        "shell",
        "one camera and driver for a whole session: commands line by line from a "
        "terminal or a script");

    for (CLI::App* command : app_.get_subcommands({})) {
        command->footer(
            "Global options (--camera, --log, --trace, --json) may follow the command.");
    }
}

void CommandLine::AddCaptureCommands(const CLI::Validator& sizeCheck) {
    capture_ = app_.add_subcommand("capture",
                                   "run a pin and write the frames it delivers into a directory");
    still_ = app_.add_subcommand(
        "still", "trigger the camera's still image for each frame and write the still frames");
    for (CLI::App* command : {capture_, still_}) {
        if (command == capture_) {
            command->add_option("--pin", captureOptions_.request.pin, "capture (default) or still")
                ->check(CLI::IsMember({"capture", "still"}));
            captureIntervalOption_ = command->add_option(
                "--interval", captureInterval_, "the frame interval to ask for, 100 ns units");
            command
                ->add_option("--fault", captureOptions_.fault,
                             "inject a transfer fault once the stream runs: KIND[:COUNT]")
                ->check(CLI::Validator(
                    [](std::string& text) {
                        return ornixrig::ParseTransferFault(text)
                                   ? std::string()
                                   : "must be KIND[:COUNT] with KIND one of short, babble, "
                                     "xact, stall, split, out-of-order, sync";
                    },
                    "KIND[:COUNT]"));
            command
                ->add_option("--cancel-every", captureOptions_.cancelEvery,
                             "cancel every N-th read sent to the driver")
                ->check(CLI::Range(1u, 1000000u));
            command->add_flag("--power-cycle", captureOptions_.powerCycle,
                              "put the device in D3 and back in D0 halfway through");
        }
        command->add_option("--format", captureOptions_.request.format,
                            "the pin's format N, as `formats` numbers them (default 0)");
        command->add_option("--size", captureSize_, "the window, WIDTHxHEIGHT")->check(sizeCheck);
        command->add_option("--count", captureOptions_.count, "frames to take")
            ->required()
            ->check(CLI::Range(1u, 1000000u));
        command->add_option("--out", captureOptions_.outDir, "the directory to write frames into")
            ->required();
        auto* png =
            command->add_flag("--png")->description("write pictures as PNG files (the default)");
        command->add_flag("--raw", captureOptions_.raw, "write each frame's bytes as delivered")
            ->excludes(png);
    }
}

void CommandLine::AddControlCommands() {
    get_ = app_.add_subcommand("get", "read controls by name (see `controls`)");
    get_->add_option("names", names_,
                     "brightness, contrast, hue, saturation, sharpness, gamma, gain, pan, tilt, "
                     "roll, zoom, exposure, iris, start-position, still-start-position, binning, "
                     "still-binning, lut, pixel-correction, trigger-mode, frame-rate, "
                     "frame-rates, record:N, section:N, statistics, version, bus-info, "
                     "events-enabled")
        ->required();
    set_ = app_.add_subcommand("set", "write controls: NAME=VALUE ...");
    set_->add_option("assignments", assignments_,
                     "e.g. brightness=40 binning=2x2 start-position=16,32 lut=table.bin "
                     "pixel-correction=off trigger-mode=trigger record:20=0x4000,5 "
                     "product-data=reload")
        ->required();
    set_->add_flag("--auto", autoMode_, "put the standard controls set in automatic mode");
    reset_ = app_.add_subcommand("reset",
                                 "reset the camera: formats, binning and frame rates start afresh");
    events_ = app_.add_subcommand(
        "events", "enable device events, listen, and print each event as it arrives");
    events_->add_option("--enable", enableMask_, "the events to enable, bit n for event n")
        ->required()
        ->check(MaskCheck());
    eventCountOption_ = events_->add_option(
        "--count", eventCount_,
        "stop after N events (default: the events injected, else run until Ctrl-C)");
    events_->add_option("--inject", injectMask_, "make the camera raise these events once")
        ->check(MaskCheck());
    eventTimeoutOption_ = events_
                              ->add_option("--timeout", eventsOptions_.timeoutSeconds,
                                           "listen for at most SECONDS (real time)")
                              ->check(CLI::PositiveNumber);
}

std::optional<int> CommandLine::Parse(const std::vector<std::string>& args, std::ostream& out,
                                      std::ostream& err) {
    try {
        // CLI11 takes the arguments last one first.
        std::vector<std::string> reversed(args.rbegin(), args.rend());
        app_.parse(reversed);
    } catch (const CLI::ParseError& e) {
        return app_.exit(e, out, err);
    }
    return std::nullopt;
}

int CommandLine::Execute(Session& session, std::ostream& out, std::ostream& err) {
    const bool json = options_.json;
    if (info_->parsed()) {
        return RunInfo(session, json, out);
    }
    if (formats_->parsed()) {
        return RunFormats(session, json, out);
    }
    if (controls_->parsed()) {
        return RunControls(session, json, out);
    }
    if (tryFormat_->parsed()) {
        if (trySizeOption_->count() > 0) {
            std::tie(tryOptions_.width, tryOptions_.height) = *ParseSize(trySize_);
        }
        if (tryIntervalOption_->count() > 0) {
            tryOptions_.frameInterval = tryInterval_;
        }
        return RunTryFormat(session, tryOptions_, json, out, err);
    }
    if (capture_->parsed() || still_->parsed()) {
        if (!captureSize_.empty()) {
            std::tie(captureOptions_.request.width, captureOptions_.request.height) =
                *ParseSize(captureSize_);
        }
        if (captureIntervalOption_->count() > 0) {
            captureOptions_.request.frameInterval = captureInterval_;
        }
        if (still_->parsed()) {
            captureOptions_.request.pin = "still";
        }
        // Still frames come only when the camera is triggered.
        captureOptions_.still = captureOptions_.request.pin == "still";
        captureOptions_.terminal = &out == &std::cout && isatty(STDOUT_FILENO) != 0;
        return RunCapture(session, captureOptions_, json, out, err);
    }
    if (get_->parsed()) {
        return RunGet(session, names_, json, out, err);
    }
    if (set_->parsed()) {
        return RunSet(session, assignments_, autoMode_, json, out, err);
    }
    if (reset_->parsed()) {
        return RunReset(session, json, out, err);
    }
    if (events_->parsed()) {
        eventsOptions_.enable = *ParseMask(enableMask_);
        eventsOptions_.inject = injectMask_.empty() ? 0 : *ParseMask(injectMask_);
        if (eventCountOption_->count() > 0) {
            eventsOptions_.count = eventCount_;
        } else if (eventsOptions_.inject != 0 && eventTimeoutOption_->count() == 0) {
            // Without a count, injected events end the listening once they are in.
            eventsOptions_.count = std::popcount(eventsOptions_.inject & eventsOptions_.enable);
        }
        return RunEvents(session, eventsOptions_, json, out, err);
    }
    return 0;
}

}  // namespace

int RunCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
                   std::istream& in) {
    CommandLine commandLine;
    if (const auto status = commandLine.Parse(args, out, err)) {
        return *status;
    }
    try {
        Session session(commandLine.Globals());
        if (!NT_SUCCESS(session.StartStatus())) {
            err << "ornixctl: the driver failed to start the camera (status 0x" << std::hex
                << static_cast<ULONG>(session.StartStatus()) << std::dec << ")\n";
            return 1;
        }
        if (commandLine.IsShell()) {
            const bool interactive = &in == &std::cin && isatty(STDIN_FILENO) != 0;
            return RunShell(session, in, interactive, out, err);
        }
        return commandLine.Execute(session, out, err);
    } catch (const std::exception& e) {
        err << "ornixctl: " << e.what() << "\n";
        return 1;
    }
}

int RunInSession(Session& session, const std::vector<std::string>& args, std::ostream& out,
                 std::ostream& err) {
    CommandLine commandLine;
    if (const auto status = commandLine.Parse(args, out, err)) {
        return *status;
    }
    if (commandLine.ChoosesMachine()) {
        err << "ornixctl: --camera, --log and --trace are given when the shell starts\n";
        return 1;
    }
    if (commandLine.IsShell()) {
        err << "ornixctl: already in the shell\n";
        return 1;
    }
    try {
        return commandLine.Execute(session, out, err);
    } catch (const std::exception& e) {
        err << "ornixctl: " << e.what() << "\n";
        return 1;
    }
}

}  // namespace ornixctl
