#include "streamclass/adapter_directory.h"

#include <map>
#include <mutex>

namespace winsim {
namespace {

std::mutex gMutex;

std::map<PDRIVER_OBJECT, HW_INITIALIZATION_DATA>& Registrations() {
    static std::map<PDRIVER_OBJECT, HW_INITIALIZATION_DATA> registrations;
    return registrations;
}

std::map<PVOID, SrbRegistry*>& Adapters() {
    static std::map<PVOID, SrbRegistry*> adapters;
    return adapters;
}

}  // namespace

void RememberRegistration(PDRIVER_OBJECT driver, const HW_INITIALIZATION_DATA& data) {
    std::lock_guard lock(gMutex);
    Registrations()[driver] = data;
}

std::optional<HW_INITIALIZATION_DATA> FindRegistration(PDRIVER_OBJECT driver) {
    std::lock_guard lock(gMutex);
    auto it = Registrations().find(driver);
    if (it == Registrations().end()) {
        return std::nullopt;
    }
    return it->second;
}

void ForgetRegistration(PDRIVER_OBJECT driver) {
    std::lock_guard lock(gMutex);
    Registrations().erase(driver);
}

void RememberAdapter(PVOID deviceExtension, SrbRegistry* srbs) {
    std::lock_guard lock(gMutex);
    Adapters()[deviceExtension] = srbs;
}

SrbRegistry* FindAdapter(PVOID deviceExtension) {
    std::lock_guard lock(gMutex);
    auto it = Adapters().find(deviceExtension);
    return it == Adapters().end() ? nullptr : it->second;
}

void ForgetAdapter(PVOID deviceExtension) {
    std::lock_guard lock(gMutex);
    Adapters().erase(deviceExtension);
}

}  // namespace winsim
