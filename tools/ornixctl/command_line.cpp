#include "ornixctl/command_line.h"

#include <CLI/CLI.hpp>
#include <exception>

#include "ornixctl/controls_command.h"
#include "ornixctl/formats_command.h"
#include "ornixctl/info_command.h"
#include "ornixctl/session.h"

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
    for (CLI::App* command : {info, formats, controls}) {
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
    } catch (const std::exception& e) {
        err << "ornixctl: " << e.what() << "\n";
        return 1;
    }
    return 0;
}

}  // namespace ornixctl
