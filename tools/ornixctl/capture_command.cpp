#include "ornixctl/capture_command.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>

#include "kernel/kernel.h"
#include "ornix.h"
#include "ornixctl/capture_report.h"
#include "ornixctl/frame_image.h"
#include "ornixctl/names.h"
#include "ornixctl/png_writer.h"
#include "streamclass/pin.h"

namespace ornixctl {
namespace {

namespace fs = std::filesystem;

bool WriteBytes(const fs::path& path, std::span<const uint8_t> bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(file);
}

// Writes one good frame; an empty string on success, else the reason.
std::string WriteFrame(const CaptureOptions& options, const CaptureSummary& summary, unsigned index,
                       std::span<const uint8_t> data, std::string* name) {
    const auto colourId = static_cast<uint8_t>(summary.colourValue & kColourIdMask);
    const fs::path dir(options.outDir);
    if (options.raw) {
        *name = FrameFileName(index, "raw");
        return WriteBytes(dir / *name, data) ? "" : "cannot write " + (dir / *name).string();
    }
    if (LayoutOf(colourId) == PixelLayout::Text) {
        *name = FrameFileName(index, "txt");
        const std::string text = FrameText(colourId, data);
        return WriteBytes(dir / *name, {reinterpret_cast<const uint8_t*>(text.data()), text.size()})
                   ? ""
                   : "cannot write " + (dir / *name).string();
    }
    std::string error;
    const auto image =
        DecodeFrame(summary.colourValue, data, summary.width, summary.height, &error);
    if (!image) {
        return "frame " + std::to_string(index) + ": " + error;
    }
    *name = FrameFileName(index, "png");
    return WritePng((dir / *name).string(), *image);
}

}  // namespace

std::string FrameFileName(unsigned index, const char* extension) {
    char name[32];
    std::snprintf(name, sizeof name, "frame_%04u.%s", index, extension);
    return name;
}

int RunCapture(Session& session, const CaptureOptions& options, bool json, std::ostream& out,
               std::ostream& err) {
    std::optional<ornixrig::TransferFault> fault;
    if (!options.fault.empty()) {
        fault = ornixrig::ParseTransferFault(options.fault);
        if (!fault) {
            err << "ornixctl: unknown transfer fault " << options.fault << "\n";
            return 1;
        }
    }
    const auto negotiated = NegotiateFormat(session, options.request, err);
    if (!negotiated) {
        return 1;
    }
    const bool stillPin = negotiated->pin == ORNIX_STILL_STREAM;

    CaptureSummary summary;
    summary.camera = session.ProfileName();
    summary.pin = options.request.pin;
    summary.format = options.request.format;
    summary.width = static_cast<uint32_t>(negotiated->answer.width);
    summary.height = static_cast<uint32_t>(negotiated->answer.height);
    summary.frameInterval = negotiated->answer.avgTimePerFrame;
    summary.fault = options.fault;
    summary.framesRequested = options.count;
    summary.outputDirectory = options.outDir;
    // What the camera reads back after the selection: the id and how rows are stored.
    PORNIX_DEVICE_CONTEXT ext = session.Device();
    summary.colourValue = stillPin ? ext->StillColourValue : ext->CaptureColourValue;
    const auto colourId = static_cast<uint8_t>(summary.colourValue & kColourIdMask);
    if (!options.raw && LayoutOf(colourId) != PixelLayout::Text && !PngAvailable()) {
        err << "ornixctl: " << WritePng("", Image{}) << "\n";
        return 1;
    }
    std::error_code dirError;
    fs::create_directories(options.outDir, dirError);
    if (dirError) {
        err << "ornixctl: cannot create " << options.outDir << ": " << dirError.message() << "\n";
        return 1;
    }

    winsim::PinOptions pinOptions;
    pinOptions.pin = negotiated->pin;
    pinOptions.format = negotiated->format;
    NTSTATUS status = STATUS_SUCCESS;
    std::unique_ptr<winsim::Pin> pin =
        winsim::Pin::Open(session.Rig().StreamClass(), pinOptions, &status);
    if (!pin) {
        err << "ornixctl: the driver did not open the " << options.request.pin
            << " pin: " << NtStatusName(status) << "\n";
        return 1;
    }
    status = pin->Run();
    if (!NT_SUCCESS(status)) {
        err << "ornixctl: the driver did not run the " << options.request.pin
            << " pin: " << NtStatusName(status) << "\n";
        return 1;
    }
    if (fault) {
        session.Rig().InjectTransferFault(negotiated->pin, fault->kind, fault->count);
    }
    // Reads sent so far: Run queued the pin's reads; each NextFrame sends the
    // buffer handed out before again. With --cancel-every, the N-th, 2N-th ...
    // read is cancelled right after it is sent (the newest outstanding one;
    // if it is already back, the cancel finds nothing).
    uint64_t readsSent = 0;
    auto noteSent = [&] {
        ++readsSent;
        if (options.cancelEvery != 0 && readsSent % options.cancelEvery == 0) {
            const size_t outstanding = pin->ReadsOutstanding();
            if (outstanding > 0) {
                ++summary.cancelRequests;
                pin->CancelRead(outstanding - 1);
            }
        }
    };
    for (unsigned i = 0; i < pinOptions.queuedReads; ++i) {
        noteSent();
    }
    const uint64_t fpgaConfigurationsBefore = session.Rig().Camera().FpgaConfigurations();

    ProgressLine progress(out, options.terminal);
    const auto started = std::chrono::steady_clock::now();
    int exitStatus = 0;
    int64_t dropCount = 0;
    for (unsigned index = 0; index < options.count; ++index) {
        bool restarted = false;
        if (options.powerCycle && index == options.count / 2 && summary.powerCycles == 0) {
            // As around a system sleep: the application stops the pin, the
            // power manager sends the device to D3 and wakes it, the
            // application runs the pin again (the camera streams no more
            // after losing power until it is started anew).
            pin->Stop();
            const winsim::SrbResult sleep =
                session.Rig().StreamClass().SetDevicePowerState(PowerDeviceD3);
            const winsim::SrbResult wake =
                session.Rig().StreamClass().SetDevicePowerState(PowerDeviceD0);
            ++summary.powerCycles;
            if (!NT_SUCCESS(sleep.status) || !NT_SUCCESS(wake.status)) {
                err << "ornixctl: the power cycle failed: D3 " << NtStatusName(sleep.status)
                    << ", D0 " << NtStatusName(wake.status) << "\n";
                exitStatus = 1;
                break;
            }
            status = pin->Run();
            if (!NT_SUCCESS(status)) {
                err << "ornixctl: the driver did not run the " << options.request.pin
                    << " pin after the power cycle: " << NtStatusName(status) << "\n";
                exitStatus = 1;
                break;
            }
            for (unsigned i = 0; i < pinOptions.queuedReads; ++i) {
                noteSent();
            }
            restarted = true;
        }
        if (options.still) {
            session.Rig().Camera().TriggerStill();
        }
        if (index > 0 && !restarted) {
            pin->Release();
            noteSent();
        }
        const std::optional<winsim::PinFrame> frame = pin->NextFrame(options.frameTimeoutSeconds);
        if (!frame) {
            err << "ornixctl: no frame came back within " << options.frameTimeoutSeconds
                << " s (frame " << index << ")\n";
            exitStatus = 1;
            break;
        }
        ++summary.framesReceived;
        summary.bytesReceived += frame->dataUsed;
        if (frame->hasFrameInfo) {
            dropCount = frame->frameInfo.DropCount;
        }
        if (frame->status == STATUS_CANCELLED) {
            ++summary.readsCancelled;
        }
        if (!NT_SUCCESS(frame->status)) {
            ++summary.framesFailed;
        } else if (frame->dataUsed == 0) {
            ++summary.framesEmpty;
        } else {
            std::string name;
            const std::string error = WriteFrame(options, summary, index, frame->data, &name);
            if (!error.empty()) {
                err << "ornixctl: " << error << "\n";
                ++summary.framesFailed;
                exitStatus = 1;
            } else {
                ++summary.framesWritten;
                summary.files.push_back((fs::path(options.outDir) / name).string());
            }
        }
        summary.seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        if (!json) {
            progress.Show(ProgressText(summary.framesReceived, options.count, summary.seconds,
                                       summary.bytesReceived, dropCount, options.terminal));
        }
    }
    progress.Finish();

    if (!stillPin) {
        if (const auto dropped = pin->DroppedFrames()) {
            summary.pictureNumber = dropped->PictureNumber;
            summary.dropCount = dropped->DropCount;
        }
    }
    pin->Stop();
    summary.stop = ParseStopCounters(winsim::DebugLog());
    summary.fpgaReloads = session.Rig().Camera().FpgaConfigurations() - fpgaConfigurationsBefore;
    pin.reset();

    if (json) {
        out << SummaryJson(summary).dump(2) << "\n";
    } else {
        PrintSummary(summary, out);
    }
    return exitStatus;
}

}  // namespace ornixctl
