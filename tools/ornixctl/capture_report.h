// What `capture` and `still` tell the user: a progress line while frames
// come in, and the summary at the end (text or JSON).
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace ornixctl {

// The counters the driver prints when a stream stops ("ORNIX: STOP: Name:N");
// the last stop in the log counts. Absent ones stay empty.
struct StopCounters {
    std::optional<int64_t> usbShortErrors, usbTransactionErrors, usbBabbleErrors, usbOtherErrors;
    std::optional<int64_t> framesCaptured, framesDropped;
};
StopCounters ParseStopCounters(const std::vector<std::string>& debugLog);

struct CaptureSummary {
    std::string camera;
    std::string pin;  // "capture" or "still"
    unsigned format = 0;
    uint32_t width = 0, height = 0;
    uint32_t colourValue = 0;
    int64_t frameInterval = 0;
    std::string fault;  // as given to --fault, empty for none
    unsigned framesRequested = 0;
    unsigned framesReceived = 0;  // reads that came back
    unsigned framesWritten = 0;
    unsigned framesEmpty = 0;   // DataUsed 0
    unsigned framesFailed = 0;  // an error status
    uint64_t bytesReceived = 0;
    double seconds = 0;
    // From the dropped-frames property (capture pin), read before the stop.
    std::optional<int64_t> pictureNumber, dropCount;
    StopCounters stop;
    // --cancel-every: cancels the tool asked for, and reads that came back
    // cancelled (STATUS_CANCELLED, also counted failed).
    unsigned cancelRequests = 0, readsCancelled = 0;
    // --power-cycle: D3/D0 cycles done, and FPGA configurations the camera
    // completed during the capture (the driver reloads it after a power loss).
    unsigned powerCycles = 0;
    uint64_t fpgaReloads = 0;
    std::string outputDirectory;
    std::vector<std::string> files;
};

nlohmann::ordered_json SummaryJson(const CaptureSummary& summary);
void PrintSummary(const CaptureSummary& summary, std::ostream& out);

// One progress report: "3/5 frames  12.5 fps  16.4 MB/s  0 dropped", led
// by a bar ("[######      ] ") when `bar` is set.
std::string ProgressText(unsigned frames, unsigned total, double seconds, uint64_t bytes,
                         int64_t dropped, bool bar);

// Writes the progress: rewritten in place on a terminal, one line per report
// otherwise.
class ProgressLine {
  public:
    ProgressLine(std::ostream& out, bool terminal) : out_(out), terminal_(terminal) {}
    void Show(const std::string& text);
    void Finish();  // ends the rewritten line

  private:
    std::ostream& out_;
    bool terminal_;
    size_t shown_ = 0;  // characters on the rewritten line
};

}  // namespace ornixctl
