// What a stress run is told from outside: the seed of its random decisions,
// how long it runs and how long the watchdog lets it stand still.
#pragma once

#include <cstdint>

namespace ornixstress {

struct StressSettings {
    uint64_t seed = 0;    // ORNIX_STRESS_SEED, else random
    double seconds = 20;  // ORNIX_STRESS_SECONDS: rounds start until this much real time passed
    double watchdogSeconds =
        60;  // ORNIX_STRESS_WATCHDOG_SECONDS: longest real time without progress
    // ORNIX_STRESS_CANCELS: 1 (the default) the pins cancel reads now and
    // then; 0 they never do.
    bool cancels = true;
    // ORNIX_STRESS_POWER: 0 no power cycles; 1 in rounds whose camera keeps
    // its FPGA through D3; 2 (the default) also in rounds where the driver
    // reloads it.
    int powerCycles = 2;
};

// Reads the environment once; an unreadable value stops the run with a message.
const StressSettings& Settings();

}  // namespace ornixstress
