#include "stress_settings.h"

#include <cstdio>
#include <cstdlib>
#include <random>
#include <stdexcept>
#include <string>

namespace ornixstress {
namespace {

template <typename Parse>
void ReadVariable(const char* name, Parse parse) {
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0') {
        return;
    }
    try {
        size_t used = 0;
        parse(std::string(text), used);
        if (text[used] != '\0') {
            throw std::invalid_argument(text);
        }
    } catch (const std::exception&) {
        std::fprintf(stderr, "%s=%s is not a number\n", name, text);
        std::exit(2);
    }
}

StressSettings Load() {
    StressSettings settings;
    settings.seed = std::random_device{}();
    settings.seed = settings.seed << 32 | std::random_device{}();
    ReadVariable("ORNIX_STRESS_SEED", [&](const std::string& text, size_t& used) {
        settings.seed = std::stoull(text, &used, 0);
    });
    ReadVariable("ORNIX_STRESS_SECONDS", [&](const std::string& text, size_t& used) {
        settings.seconds = std::stod(text, &used);
    });
    ReadVariable("ORNIX_STRESS_WATCHDOG_SECONDS", [&](const std::string& text, size_t& used) {
        settings.watchdogSeconds = std::stod(text, &used);
    });
    ReadVariable("ORNIX_STRESS_CANCELS", [&](const std::string& text, size_t& used) {
        settings.cancels = std::stoi(text, &used) != 0;
    });
    ReadVariable("ORNIX_STRESS_POWER", [&](const std::string& text, size_t& used) {
        settings.powerCycles = std::stoi(text, &used);
    });
    return settings;
}

}  // namespace

const StressSettings& Settings() {
    static const StressSettings settings = Load();
    return settings;
}

}  // namespace ornixstress
