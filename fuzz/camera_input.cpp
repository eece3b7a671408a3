#include "camera_input.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace ornixfuzz {
namespace {

// Registers the driver reads while it brings the camera up.
constexpr uint16_t kGlobalRegisters[] = {
    0x0004,  // speed
    0x0008,  // FPGA mode
    0x000C,  // FPGA version
    0x0010,  // ORNIX_SPEC_VERSION
    0x019C,  // format count
    0x0220,  // interrupt event support
    0x0280,  // sensor layout
    0x0284,  // sensor origin
    0x4FF8,  // optional features
};
// Offsets inside one 128-byte format bank.
constexpr uint16_t kBankOffsets[] = {0x00, 0x04, 0x08, 0x0C, 0x10, 0x14, 0x18, 0x40, 0x48};
constexpr unsigned kMaxBanks = 8;
constexpr unsigned kPropertyRecords = 57;
// The driver walks every bank the count announces: keep the walk short so
// that each run stays fast.
constexpr uint32_t kMaxFormatCount = 16;

void MutateDescriptors(Input& in, ornixcam::Profile& profile) {
    if (in.Bool()) {
        profile.rawDescriptors.device = in.Bytes(in.Pick(33));
    }
    if (in.Bool()) {
        std::vector<uint8_t> config = in.Bytes(in.U16() % 257);
        // Either the header's total length is made honest, or set to anything.
        if (config.size() >= 4 && in.Bool()) {
            const uint16_t total = in.Bool() ? static_cast<uint16_t>(config.size()) : in.U16();
            config[2] = static_cast<uint8_t>(total);
            config[3] = static_cast<uint8_t>(total >> 8);
        }
        profile.rawDescriptors.configuration = std::move(config);
    }
}

void MutateBanks(Input& in, ornixcam::Profile& profile) {
    const unsigned edits = in.Pick(7);
    for (unsigned e = 0; e < edits && !profile.formatBanks.empty(); ++e) {
        auto& bank =
            profile.formatBanks[in.Pick(static_cast<unsigned>(profile.formatBanks.size()))];
        switch (in.Pick(9)) {
            case 0:
                bank.maxSize = {in.U16(), in.U16()};
                break;
            case 1:
                bank.unitSize = {in.U16(), in.U16()};
                break;
            case 2:
                bank.size = {in.U16(), in.U16()};
                break;
            case 3:
                bank.colorId = in.Byte();
                break;
            case 4:
                bank.colorInquiry = in.U32();
                break;
            case 5:
                bank.frequencyMin = in.U16();
                bank.frequencyMax = in.U16();
                break;
            case 6:
                // How the camera answers what the driver programs.
                bank.validate = static_cast<ornixcam::ValidateMode>(in.Pick(4));
                bank.colorIdReadBack = static_cast<ornixcam::ColorIdReadBack>(in.Pick(3));
                bank.interlaced = in.Bool();
                bank.bottomUp = in.Bool();
                break;
            case 7:
                bank.binnings = {in.Byte(), in.Byte()};
                bank.startX = static_cast<int16_t>(in.U16());
                bank.startY = static_cast<int16_t>(in.U16());
                break;
            default:
                bank.frequencyCurrent = in.U32();
                break;
        }
    }
}

void MutateProperties(Input& in, ornixcam::Profile& profile) {
    const unsigned edits = in.Pick(9);
    for (unsigned e = 0; e < edits; ++e) {
        const auto record = static_cast<uint8_t>(in.Pick(kPropertyRecords));
        const uint32_t control = in.U32();
        const uint32_t value = in.U32();
        const uint32_t minimum = in.U32();
        profile.properties[record] = {control, value, minimum, in.U32()};
    }
}

void MutateRegisters(Input& in, ornixcam::Profile& profile) {
    const unsigned edits = in.Pick(9);
    for (unsigned e = 0; e < edits; ++e) {
        uint16_t index;
        if (in.Bool()) {
            index = kGlobalRegisters[in.Pick(std::size(kGlobalRegisters))];
        } else {
            const unsigned bank = in.Pick(kMaxBanks);
            index = static_cast<uint16_t>(0x1000 + 0x80 * bank +
                                          kBankOffsets[in.Pick(std::size(kBankOffsets))]);
        }
        uint32_t value = in.U32();
        if (index == 0x019C) {
            value %= kMaxFormatCount + 1;
        }
        profile.registers[index] = value;
    }
}

}  // namespace

void CameraFromInput(Input& in, ornixcam::Profile& profile) {
    MutateDescriptors(in, profile);
    MutateBanks(in, profile);
    MutateProperties(in, profile);
    MutateRegisters(in, profile);
}

[[noreturn]] void Fail(const std::vector<winsim::Violation>& findings) {
    for (const winsim::Violation& v : findings) {
        std::fprintf(stderr, "verifier finding %s: %s\n", v.check.c_str(), v.message.c_str());
    }
    std::abort();
}

int RunOnCamera(const uint8_t* data, size_t size, const CameraShaper& shapeCamera,
                const Exercise& exercise, const char* when) {
    Input split(data, size);
    const size_t header = std::min<size_t>(size, 2);
    const size_t cameraSize = std::min<size_t>(split.U16(), size - header);
    Input camera(data + header, cameraSize);
    Input rest(data + header + cameraSize, size - header - cameraSize);

    ornixrig::RigOptions options;
    CameraFromInput(camera, options.profile);
    if (shapeCamera) {
        shapeCamera(camera, options.profile);
    }

    winsim::ResetKernel();
    winsim::SetVerifierMode(winsim::VerifierMode::Record);
    // USB requests are answered in microseconds; time-outs pass quickly.
    winsim::SetTimeScale(1000.0);
    try {
        ornixrig::Rig rig(std::move(options));
        if (NT_SUCCESS(rig.Start())) {
            exercise(rest, rig);
        }
        rig.Stop();
    } catch (const ornixcam::ProfileError&) {
        return -1;
    }
    winsim::CheckPoolEmpty(when);
    std::vector<winsim::Violation> findings = winsim::TakeViolations();
    if (!findings.empty()) {
        Fail(findings);
    }
    winsim::ClearDebugLog();
    return 0;
}

}  // namespace ornixfuzz
