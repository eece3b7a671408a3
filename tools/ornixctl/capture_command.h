// `ornixctl capture` and `ornixctl still`: negotiate a format, open the pin,
// run it and write the frames that come back into a directory.
#pragma once

#include <optional>
#include <ostream>
#include <string>

#include "ornixctl/negotiation.h"
#include "ornixctl/session.h"

namespace ornixctl {

struct CaptureOptions {
    FormatRequest request;
    unsigned count = 1;  // frames to take
    std::string outDir;
    bool raw = false;                 // the bytes as delivered instead of PNG pictures
    bool still = false;               // trigger the camera's still image for each frame
    std::string fault;                // KIND[:COUNT], injected once the stream runs; empty for none
    bool terminal = false;            // progress as a bar rewritten in place
    double frameTimeoutSeconds = 10;  // real time to wait for each frame
    unsigned cancelEvery = 0;         // cancel every N-th read sent; 0 for none
    bool powerCycle = false;          // the device goes to D3 and back to D0 halfway through
};

// "frame_0007.png": the file name of frame `index` with `extension`.
std::string FrameFileName(unsigned index, const char* extension);

// Exit status 0 when the frames were taken (empty or failed ones are counted,
// not written); 1 with a message on `err` otherwise.
int RunCapture(Session& session, const CaptureOptions& options, bool json, std::ostream& out,
               std::ostream& err);

}  // namespace ornixctl
