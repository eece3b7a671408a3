#include "watchdog.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "kernel/kernel.h"

namespace ornixstress {
namespace {

int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::string FirstLine(const std::filesystem::path& file) {
    std::ifstream in(file);
    std::string line;
    std::getline(in, line);
    return line;
}

// Every host thread as Linux sees it: name, scheduler state and the kernel
// function it sleeps in; the only view of threads the platform never met.
std::string DescribeHostThreads() {
    std::string text;
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", error)) {
        const std::string stat = FirstLine(task.path() / "stat");
        const size_t close = stat.rfind(')');
        const std::string state =
            close != std::string::npos && close + 2 < stat.size() ? stat.substr(close + 2, 1) : "?";
        text += "  Linux thread " + task.path().filename().string() + " '" +
                FirstLine(task.path() / "comm") + "' state " + state + ", in " +
                FirstLine(task.path() / "wchan") + "\n";
    }
    return text;
}

}  // namespace

Watchdog::Party::Party(std::string name) : name_(std::move(name)), lastProgressNs_(NowNs()) {}

void Watchdog::Party::Progress(const char* doing) {
    doing_.store(doing, std::memory_order_relaxed);
    lastProgressNs_.store(NowNs(), std::memory_order_relaxed);
}

void Watchdog::Party::Doing(const char* doing) {
    doing_.store(doing, std::memory_order_relaxed);
}

Watchdog::Watchdog(double limitSeconds, std::string context)
    : limit_(std::chrono::nanoseconds(static_cast<int64_t>(limitSeconds * 1e9))),
      context_(std::move(context)),
      thread_([this] { Run(); }) {}

Watchdog::~Watchdog() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

Watchdog::Party& Watchdog::Watch(std::string name) {
    std::lock_guard lock(mutex_);
    parties_.push_back(std::unique_ptr<Party>(new Party(std::move(name))));
    return *parties_.back();
}

void Watchdog::Release(Party& party) {
    std::lock_guard lock(mutex_);
    std::erase_if(parties_, [&](const std::unique_ptr<Party>& p) { return p.get() == &party; });
}

std::string Watchdog::Describe(const Party& stalled) const {
    std::ostringstream text;
    const double limit = std::chrono::duration<double>(limit_).count();
    text << "WATCHDOG: '" << stalled.name_ << "' made no progress for " << limit << " s while "
         << stalled.doing_.load(std::memory_order_relaxed) << " (" << context_
         << ")\nWhat each party of the test was doing:\n";
    {
        std::lock_guard lock(mutex_);
        for (const auto& party : parties_) {
            const double idle =
                double(NowNs() - party->lastProgressNs_.load(std::memory_order_relaxed)) / 1e9;
            text << "  " << party->name_ << ": " << party->doing_.load(std::memory_order_relaxed)
                 << ", last progress " << idle << " s ago\n";
        }
    }
    text << "Threads as the simulated kernel knows them:\n";
    std::istringstream kernelThreads(winsim::DescribeThreads());
    for (std::string line; std::getline(kernelThreads, line);) {
        text << "  " << line << '\n';
    }
    text << "Threads as Linux knows them:\n" << DescribeHostThreads();
    const std::vector<std::string> log = winsim::DebugLog();
    if (const char* file = std::getenv("ORNIX_STRESS_LOG_FILE"); file != nullptr) {
        std::ofstream out(file);
        for (const std::string& line : log) {
            out << line << (line.ends_with('\n') ? "" : "\n");
        }
        text << "The driver's debugger output of the round is in " << file << "\n";
    }
    const size_t shown = std::min<size_t>(log.size(), 60);
    text << "The driver's last " << shown << " debugger lines:\n";
    for (size_t i = log.size() - shown; i < log.size(); ++i) {
        text << "  " << log[i] << (log[i].ends_with('\n') ? "" : "\n");
    }
    return text.str();
}

void Watchdog::Run() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        wake_.wait_for(lock, std::chrono::milliseconds(250));
        const int64_t now = NowNs();
        for (const auto& party : parties_) {
            if (now - party->lastProgressNs_.load(std::memory_order_relaxed) > limit_.count()) {
                const Party& stalled = *party;
                lock.unlock();
                const std::string report = Describe(stalled);
                std::fputs(report.c_str(), stderr);
                std::fflush(stderr);
                std::abort();
            }
        }
    }
}

}  // namespace ornixstress
