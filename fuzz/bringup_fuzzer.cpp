// Brings the adapter up and down against a camera whose descriptors,
// registers, format banks and property records come from the input. Any
// verifier finding, sanitizer report or crash is a failure.
#include <vector>

#include "camera_input.h"
#include "kernel/kernel.h"
#include "rig/rig.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    winsim::SetDebugSink([](std::string_view) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ornixfuzz::Input in(data, size);
    ornixrig::RigOptions options;
    ornixfuzz::CameraFromInput(in, options.profile);

    winsim::ResetKernel();
    winsim::SetVerifierMode(winsim::VerifierMode::Record);
    // USB requests are answered in microseconds; time-outs pass quickly.
    winsim::SetTimeScale(1000.0);
    try {
        ornixrig::Rig rig(std::move(options));
        rig.Start();
        rig.Stop();
    } catch (const ornixcam::ProfileError&) {
        // A camera the model cannot be built as: not a driver input.
        return -1;
    }
    winsim::CheckPoolEmpty("end of bring-up");
    std::vector<winsim::Violation> findings = winsim::TakeViolations();
    if (!findings.empty()) {
        ornixfuzz::Fail(findings);
    }
    winsim::ClearDebugLog();
    return 0;
}
