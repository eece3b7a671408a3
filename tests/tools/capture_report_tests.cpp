// The capture summary's counters: the driver's stop lines (the last stop
// counts), the dropped-frames property, and the progress line.
#include "ornixctl/capture_report.h"

#include <gtest/gtest.h>

#include <sstream>

namespace ornixtest {
namespace {

TEST(CaptureReport, TheLastStopsCountersCount) {
    const std::vector<std::string> log = {
        "ORNIX: STOP: UsbShortErrors:9\n",     "ORNIX: STOP: ActualFramesCaptured:1\n",
        "ORNIX: something else:4\n",           "ORNIX: STOP: UsbShortErrors:1\n",
        "ORNIX: STOP: UsbXactErrors:2\n",      "ORNIX: STOP: UsbBabbleErrors:3\n",
        "ORNIX: STOP: UsbOtherErrors:0\n",     "ORNIX: STOP: ActualFramesCaptured:25\n",
        "ORNIX: STOP: ActualFramesDropped:4\n"};
    const ornixctl::StopCounters counters = ornixctl::ParseStopCounters(log);
    EXPECT_EQ(counters.usbShortErrors, 1);
    EXPECT_EQ(counters.usbTransactionErrors, 2);
    EXPECT_EQ(counters.usbBabbleErrors, 3);
    EXPECT_EQ(counters.usbOtherErrors, 0);
    EXPECT_EQ(counters.framesCaptured, 25);
    EXPECT_EQ(counters.framesDropped, 4);
    EXPECT_FALSE(ornixctl::ParseStopCounters({"ORNIX: STOP: UsbShortErrors:\n"}).usbShortErrors);
}

TEST(CaptureReport, FramesCapturedArePictureNumberLessDropCount) {
    ornixctl::CaptureSummary summary;
    summary.stop.framesCaptured = 99;
    EXPECT_EQ(ornixctl::SummaryJson(summary)["framesCaptured"], 99) << "without the property";
    summary.pictureNumber = 12;
    summary.dropCount = 3;
    const auto j = ornixctl::SummaryJson(summary);
    EXPECT_EQ(j["framesCaptured"], 9);
    EXPECT_EQ(j["dropCount"], 3);
    EXPECT_TRUE(j["usbBabbleErrors"].is_null()) << "no stop line seen";
}

TEST(CaptureReport, ProgressIsABarOnATerminalAndLinesOtherwise) {
    EXPECT_EQ(ornixctl::ProgressText(3, 4, 2.0, 5'000'000, 1, false),
              "3/4 frames  1.5 fps  2.5 MB/s  1 dropped");
    EXPECT_EQ(ornixctl::ProgressText(1, 4, 0, 0, 0, true).substr(0, 27),
              "[######                  ] ");
    std::ostringstream lines, bar;
    ornixctl::ProgressLine plain(lines, false), terminal(bar, true);
    for (ornixctl::ProgressLine* p : {&plain, &terminal}) {
        p->Show("long text");
        p->Show("short");
        p->Finish();
    }
    EXPECT_EQ(lines.str(), "long text\nshort\n");
    EXPECT_EQ(bar.str(), "\rlong text\rshort    \n");
}

}  // namespace
}  // namespace ornixtest
