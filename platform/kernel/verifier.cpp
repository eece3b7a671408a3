// The verifier's findings: recorded for tests or fatal for tools.
#include "kernel/kernel.h"
#include "kernel/thread_identity.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>

namespace winsim {
namespace {

struct VerifierState {
    std::atomic<VerifierMode> mode{VerifierMode::Abort};
    std::mutex mutex;
    std::vector<Violation> findings;
};

// Never destroyed: platform threads may report while the process exits.
VerifierState& State() {
    static auto* state = new VerifierState;
    return *state;
}

}  // namespace

void SetVerifierMode(VerifierMode mode) {
    State().mode.store(mode);
}

void ReportViolation(std::string_view check, std::string message) {
    VerifierState& state = State();
    if (state.mode.load() == VerifierMode::Abort) {
        std::fprintf(stderr, "*** verifier: %.*s: %s (on %s)\n", int(check.size()), check.data(),
                     message.c_str(), kernel::CurrentThreadName().c_str());
        std::fflush(stderr);
        std::abort();
    }
    std::lock_guard lock(state.mutex);
    state.findings.push_back(Violation{std::string(check), std::move(message)});
}

std::vector<Violation> TakeViolations() {
    VerifierState& state = State();
    std::lock_guard lock(state.mutex);
    return std::exchange(state.findings, {});
}

}  // namespace winsim
