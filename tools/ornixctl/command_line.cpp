#include "ornixctl/command_line.h"

#include <CLI/CLI.hpp>
#include <unistd.h>

#include <exception>
#include <iostream>
#include <tuple>

#include "ornixctl/capture_command.h"
#include "ornixctl/controls_command.h"
#include "ornixctl/formats_command.h"
#include "ornixctl/info_command.h"
#include "ornixctl/session.h"
#include "ornixctl/try_format_command.h"

namespace ornixctl {

int RunCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    CLI::App app{"ornixctl - control and inspect an Ornix camera through its driver"};
    app.name("ornixctl");
    app.require_subcommand(1);
    // Options a command does not know are handed up to the global ones, so
    // they may follow the command. The commands inherit this.
    app.fallthrough();

    GlobalOptions options;
    app.add_option("--camera", options.cameraProfile, "camera profile (JSON); default: built-in")
        ->check(CLI::ExistingFile);
    app.add_option("--log", options.logFile, "write the driver's debugger output to FILE");
    app.add_option("--trace", options.traceFile, "write the USB traffic to FILE (usbmon pcap)");
    app.add_flag("--json", options.json, "print JSON instead of tables");

    auto* info = app.add_subcommand("info", "camera identity and topology read through the driver");
    auto* formats = app.add_subcommand("formats", "each pin and the video formats it offers");
    auto* controls = app.add_subcommand("controls", "property sets, items, ranges and defaults");
    auto* tryFormat = app.add_subcommand(
        "try-format",
        "negotiate one of a pin's formats as an application does, and show the answer");
    const CLI::Validator sizeCheck(
        [](std::string& text) {
            return ParseSize(text) ? std::string() : "must be WIDTHxHEIGHT with positive numbers";
        },
        "WxH");
    TryFormatOptions tryOptions;
    std::string size;
    int64_t interval = 0;
    tryFormat->add_option("--pin", tryOptions.pin, "the pin: capture or still")
        ->required()
        ->check(CLI::IsMember({"capture", "still"}));
    tryFormat
        ->add_option("--format", tryOptions.format, "the pin's format N, as `formats` numbers them")
        ->required();
    auto* sizeOption =
        tryFormat->add_option("--size", size, "the window to ask for, WIDTHxHEIGHT (e.g. 640x480)")
            ->check(sizeCheck);
    auto* intervalOption = tryFormat->add_option(
        "--interval", interval,
        "the frame interval to ask for, in 100-nanosecond units (333333 is 30 fps)");

    auto* capture = app.add_subcommand(
        "capture", "run a pin and write the frames it delivers into a directory");
    auto* still = app.add_subcommand(
        "still", "trigger the camera's still image for each frame and write the still frames");
    CaptureOptions captureOptions;
    std::string captureSize;
    int64_t captureInterval = 0;
    CLI::Option* captureIntervalOption = nullptr;
    for (CLI::App* command : {capture, still}) {
        if (command == capture) {
            command->add_option("--pin", captureOptions.request.pin, "capture (default) or still")
                ->check(CLI::IsMember({"capture", "still"}));
            captureIntervalOption = command->add_option(
                "--interval", captureInterval, "the frame interval to ask for, 100 ns units");
            command
                ->add_option("--fault", captureOptions.fault,
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
                ->add_option("--cancel-every", captureOptions.cancelEvery,
                             "cancel every N-th read sent to the driver")
                ->check(CLI::Range(1u, 1000000u));
            command->add_flag("--power-cycle", captureOptions.powerCycle,
                              "put the device in D3 and back in D0 halfway through");
        }
        command->add_option("--format", captureOptions.request.format,
                            "the pin's format N, as `formats` numbers them (default 0)");
        command->add_option("--size", captureSize, "the window, WIDTHxHEIGHT")->check(sizeCheck);
        command->add_option("--count", captureOptions.count, "frames to take")
            ->required()
            ->check(CLI::Range(1u, 1000000u));
        command->add_option("--out", captureOptions.outDir, "the directory to write frames into")
            ->required();
        auto* png =
            command->add_flag("--png")->description("write pictures as PNG files (the default)");
        command->add_flag("--raw", captureOptions.raw, "write each frame's bytes as delivered")
            ->excludes(png);
    }
    for (CLI::App* command : {info, formats, controls, tryFormat, capture, still}) {
        command->footer(
            "Global options (--camera, --log, --trace, --json) may follow the command.");
    }

    try {
        // CLI11 takes the arguments last one first.
        std::vector<std::string> reversed(args.rbegin(), args.rend());
        app.parse(reversed);
    } catch (const CLI::ParseError& e) {
        return app.exit(e, out, err);
    }

    try {
        Session session(options);
        if (!NT_SUCCESS(session.StartStatus())) {
            err << "ornixctl: the driver failed to start the camera (status 0x" << std::hex
                << static_cast<ULONG>(session.StartStatus()) << std::dec << ")\n";
            return 1;
        }
        if (info->parsed()) {
            return RunInfo(session, options.json, out);
        }
        if (formats->parsed()) {
            return RunFormats(session, options.json, out);
        }
        if (controls->parsed()) {
            return RunControls(session, options.json, out);
        }
        if (tryFormat->parsed()) {
            if (sizeOption->count() > 0) {
                std::tie(tryOptions.width, tryOptions.height) = *ParseSize(size);
            }
            if (intervalOption->count() > 0) {
                tryOptions.frameInterval = interval;
            }
            return RunTryFormat(session, tryOptions, options.json, out, err);
        }
        if (capture->parsed() || still->parsed()) {
            if (!captureSize.empty()) {
                std::tie(captureOptions.request.width, captureOptions.request.height) =
                    *ParseSize(captureSize);
            }
            if (captureIntervalOption->count() > 0) {
                captureOptions.request.frameInterval = captureInterval;
            }
            if (still->parsed()) {
                captureOptions.request.pin = "still";
            }
            // Still frames come only when the camera is triggered.
            captureOptions.still = captureOptions.request.pin == "still";
            captureOptions.terminal = &out == &std::cout && isatty(STDOUT_FILENO) != 0;
            return RunCapture(session, captureOptions, options.json, out, err);
        }
    } catch (const std::exception& e) {
        err << "ornixctl: " << e.what() << "\n";
        return 1;
    }
    return 0;
}

}  // namespace ornixctl
