#include "ornixctl/events_command.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "kernel/kernel.h"
#include "ornix.h"
#include "ornixctl/device_properties.h"
#include "ornixctl/names.h"

namespace ornixctl {
namespace {

using Json = nlohmann::ordered_json;

std::atomic<bool> interrupted{false};

extern "C" void OnInterrupt(int) {
    interrupted = true;
}

// Events in the order the driver signalled them, from every listener.
class Arrivals {
  public:
    void Note(uint32_t id) {
        {
            std::lock_guard lock(mutex_);
            events_.push_back({id, winsim::Now100ns()});
        }
        arrived_.notify_all();
    }
    // The next event, or nullopt when none came within `wait`.
    std::optional<std::pair<uint32_t, int64_t>> Next(std::chrono::milliseconds wait) {
        std::unique_lock lock(mutex_);
        if (!arrived_.wait_for(lock, wait, [&] { return !events_.empty(); })) {
            return std::nullopt;
        }
        auto event = events_.front();
        events_.pop_front();
        return event;
    }

  private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<std::pair<uint32_t, int64_t>> events_;
};

Bytes EventControl(uint32_t flags, uint32_t mask) {
    Bytes data(8, 0);
    PutWord(data, 0, flags);
    PutWord(data, 4, mask);
    return data;
}

std::string Ids(const std::vector<uint32_t>& ids) {
    std::string text;
    for (uint32_t id : ids) {
        text += (text.empty() ? "" : ", ") + std::to_string(id);
    }
    return text;
}

}  // namespace

std::optional<uint32_t> ParseMask(const std::string& text) {
    try {
        size_t used = 0;
        const unsigned long long value = std::stoull(text, &used, 0);
        if (used != text.size() || value > 0xFFFFFFFFull || text.empty() || text[0] == '-') {
            return std::nullopt;
        }
        return static_cast<uint32_t>(value);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

int RunEvents(Session& session, const EventsOptions& options, bool json, std::ostream& out,
              std::ostream& err) {
    winsim::StreamClass& streamClass = session.Rig().StreamClass();
    std::vector<uint32_t> offered;
    for (const winsim::EventSetView& set : streamClass.Filter().eventSets) {
        if (winsim::SameGuid(set.set, OrnixEventSetOxEvents)) {
            offered = set.eventIds;
        }
    }
    if (offered.empty()) {
        err << "ornixctl: this camera reports no device events (it has no interrupt pipe)\n";
        return 1;
    }
    for (uint32_t bit = 0; bit < 32; ++bit) {
        if ((options.enable >> bit & 1) &&
            std::find(offered.begin(), offered.end(), bit) == offered.end()) {
            err << "ornixctl: the camera has no device event " << bit << "; it offers "
                << Ids(offered) << "\n";
            return 1;
        }
    }

    auto arrivals = std::make_shared<Arrivals>();
    std::vector<std::shared_ptr<winsim::DeviceEventListener>> listeners;
    for (uint32_t bit = 0; bit < 32; ++bit) {
        if (options.enable >> bit & 1) {
            NTSTATUS status = STATUS_SUCCESS;
            auto listener = streamClass.EnableDeviceEvent(OrnixEventSetOxEvents, bit, &status);
            if (!listener) {
                err << "ornixctl: enabling device event " << bit
                    << " failed: " << NtStatusName(status) << "\n";
                for (auto& enabled : listeners) {
                    streamClass.DisableDeviceEvent(enabled);
                }
                return 1;
            }
            listener->OnSignal([arrivals, bit] { arrivals->Note(bit); });
            listeners.push_back(std::move(listener));
        }
    }

    int status = 0;
    Json events = Json::array();
    const int64_t startTime = winsim::Now100ns();
    try {
        SetProperty(session, {OrnixPropSetOxCustom, KSPROPERTY_OXCUSTOM_EVENT_CONTROL, "events"},
                    EventControl(0x8000, options.enable));
        if (!json) {
            out << "Listening for device events " << HexText(options.enable, 8)
                << (options.count ? ", " + std::to_string(*options.count) + " in all" : "")
                << (options.count ? "" : "; Ctrl-C ends") << "\n";
            out.flush();
        }
        if (options.inject != 0) {
            session.Rig().Camera().RaiseEvents(options.inject);
        }

        interrupted = false;
        auto previous = std::signal(SIGINT, OnInterrupt);
        const auto start = std::chrono::steady_clock::now();
        uint64_t seen = 0;
        while (!options.count || seen < *options.count) {
            if (interrupted) {
                break;
            }
            if (options.timeoutSeconds > 0 &&
                std::chrono::steady_clock::now() - start >
                    std::chrono::duration<double>(options.timeoutSeconds)) {
                if (options.count) {
                    err << "ornixctl: " << seen << " of " << *options.count
                        << " device events arrived within " << options.timeoutSeconds << " s\n";
                    status = 1;
                }
                break;
            }
            const auto event = arrivals->Next(std::chrono::milliseconds(100));
            if (!event) {
                continue;
            }
            ++seen;
            const double ms = static_cast<double>(event->second - startTime) / 1e4;
            if (json) {
                events.push_back(Json{{"event", event->first}, {"ms", ms}});
            } else {
                char line[96];
                std::snprintf(line, sizeof line, "%8.3f ms  device event %u\n", ms, event->first);
                out << line;
                out.flush();
            }
        }
        std::signal(SIGINT, previous);
        SetProperty(session, {OrnixPropSetOxCustom, KSPROPERTY_OXCUSTOM_EVENT_CONTROL, "events"},
                    EventControl(0, options.enable));
    } catch (const PropertyFailure& e) {
        err << "ornixctl: " << e.what() << "\n";
        status = 1;
    }
    for (auto& listener : listeners) {
        streamClass.DisableDeviceEvent(listener);
    }
    if (json) {
        out << Json{{"camera", session.ProfileName()},
                    {"enabled", options.enable},
                    {"events", events}}
                   .dump(2)
            << "\n";
    }
    return status;
}

}  // namespace ornixctl
