// The kernel debugger's side of the machine: DbgPrint output, assertion
// failures and breakpoints.
#include "kernel/dbgprint.h"
#include "kernel/describe.h"
#include "kernel/kernel.h"
#include "kernel/win_var_args.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace winsim {
namespace {

struct DebugOutputState {
    std::mutex logMutex;
    std::vector<std::string> log;
    // Held while the sink runs, so that it sees one output at a time.
    std::mutex sinkMutex;
    std::function<void(std::string_view)> sink;
};

DebugOutputState& State() {
    static auto* state = new DebugOutputState;
    return *state;
}

bool EchoToStderr() {
    static const bool echo = [] {
        const char* value = std::getenv("ORNIX_DBGPRINT");
        return value != nullptr && std::strcmp(value, "1") == 0;
    }();
    return echo;
}

void Emit(const std::string& text) {
    DebugOutputState& state = State();
    {
        std::lock_guard lock(state.sinkMutex);
        if (state.sink)
            state.sink(text);
    }
    if (EchoToStderr())
        std::fputs(text.c_str(), stderr);
    // One log entry per line; empty lines are dropped and a call that does
    // not end its line still forms an entry of its own.
    std::lock_guard lock(state.logMutex);
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        if (end > start)
            state.log.emplace_back(text, start, end - start);
        start = end + 1;
    }
}

}  // namespace

std::vector<std::string> DebugLog() {
    DebugOutputState& state = State();
    std::lock_guard lock(state.logMutex);
    return state.log;
}

void ClearDebugLog() {
    DebugOutputState& state = State();
    std::lock_guard lock(state.logMutex);
    state.log.clear();
}

void SetDebugSink(std::function<void(std::string_view)> sink) {
    DebugOutputState& state = State();
    std::lock_guard lock(state.sinkMutex);
    state.sink = std::move(sink);
}

}  // namespace winsim

ULONG WINAPIV DbgPrint(PCSTR Format, ...) {
    WINSIM_WIN_VA_BEGIN(args, Format);
    std::string unicode;
    std::string text = winsim::kernel::FormatDbgPrintNotingUnicode(Format, args, unicode);
    WINSIM_WIN_VA_END(args);
    // Unicode conversions may touch paged tables.
    if (KIRQL irql = KeGetCurrentIrql(); !unicode.empty() && irql > PASSIVE_LEVEL) {
        winsim::ReportViolation(
            "DBGPRINT_IRQL", "DbgPrint with the Unicode conversion " + unicode + " at " +
                                 winsim::kernel::IrqlName(irql) +
                                 "; Unicode conversions need PASSIVE_LEVEL (\"" + Format + "\")");
    }
    winsim::Emit(text);
    return STATUS_SUCCESS;
}

void NTAPI WinsimCheckPagedCode(PCSTR File, ULONG Line) {
    if (KIRQL irql = KeGetCurrentIrql(); irql > APC_LEVEL) {
        winsim::ReportViolation("PAGED_CODE", std::string("pageable code (PAGED_CODE) at ") + File +
                                                  ":" + std::to_string(Line) + " runs at " +
                                                  winsim::kernel::IrqlName(irql) +
                                                  "; it may run at APC_LEVEL or below");
    }
}

void NTAPI DbgBreakPoint(void) {
    // Without a kernel debugger attached, a breakpoint brings the machine down.
    winsim::ReportViolation("BREAKPOINT", "DbgBreakPoint reached with no kernel debugger attached");
}

void NTAPI RtlAssert(PVOID FailedAssertion, PVOID FileName, ULONG LineNumber, PSTR Message) {
    std::string message =
        "assertion failed: " + std::string(static_cast<const char*>(FailedAssertion)) + " at " +
        static_cast<const char*>(FileName) + ":" + std::to_string(LineNumber);
    if (Message != nullptr)
        message += " (" + std::string(Message) + ")";
    winsim::ReportViolation("ASSERT", std::move(message));
}
