// ornixctl: look at an Ornix camera through its driver, the way v4l2-ctl
// looks at a V4L2 device. The camera is the simulated one, described by a
// JSON profile (the built-in default when none is given).
#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>

#include "ornixctl/controls_command.h"
#include "ornixctl/formats_command.h"
#include "ornixctl/info_command.h"
#include "ornixctl/session.h"

int main(int argc, char** argv) {
    CLI::App app{"ornixctl - control and inspect an Ornix camera through its driver"};
    app.require_subcommand(1);

    ornixctl::GlobalOptions options;
    app.add_option("--camera", options.cameraProfile, "camera profile (JSON); default: built-in")
        ->check(CLI::ExistingFile);
    app.add_option("--log", options.logFile, "write the driver's debugger output to FILE");
    app.add_option("--trace", options.traceFile, "write the USB traffic to FILE (usbmon pcap)");
    app.add_flag("--json", options.json, "print JSON instead of tables");

    auto* info = app.add_subcommand("info", "camera identity and topology read through the driver");
    auto* formats = app.add_subcommand("formats", "each pin and the video formats it offers");
    auto* controls = app.add_subcommand("controls", "property sets, items, ranges and defaults");

    CLI11_PARSE(app, argc, argv);

    try {
        ornixctl::Session session(options);
        if (!NT_SUCCESS(session.StartStatus())) {
            std::cerr << "ornixctl: the driver failed to start the camera (status 0x" << std::hex
                      << static_cast<ULONG>(session.StartStatus()) << ")\n";
            return 1;
        }
        if (info->parsed()) {
            return ornixctl::RunInfo(session, options.json, std::cout);
        }
        if (formats->parsed()) {
            return ornixctl::RunFormats(session, options.json, std::cout);
        }
        if (controls->parsed()) {
            return ornixctl::RunControls(session, options.json, std::cout);
        }
    } catch (const std::exception& e) {
        std::cerr << "ornixctl: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
