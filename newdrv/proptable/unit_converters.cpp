// Conversions between the camera's register units and the units of the
// standard video property sets. All arithmetic is 32-bit: products wrap as
// the camera's own firmware tools compute them, and signed division
// truncates toward zero.
#include "ornix.h"

// Exposure property range: log2 of seconds, clamped to the register's reach.
#define ORNIX_EXPOSURE_PROPERTY_MIN (-21)
#define ORNIX_EXPOSURE_PROPERTY_MAX 12
#define ORNIX_ONE_SECOND_US ((ULONG)1000000)

// Gain register value of property 0, and register units per property step.
#define ORNIX_GAIN_OFFSET ((ULONG)0x1000)
#define ORNIX_GAIN_SHIFT 4

// Multiplies in unsigned arithmetic so that an overflow wraps instead of
// being undefined.
static LONG OrnixWrappingProduct(LONG Value, LONG Factor) {
    return (LONG)((ULONG)Value * (ULONG)Factor);
}

LONG OrnixBrightnessToProperty(LONG Value) {
    return OrnixWrappingProduct(Value, 100) / 655;
}

LONG OrnixBrightnessToRegister(LONG Value) {
    return OrnixWrappingProduct(Value, 655) / 100;
}

LONG OrnixContrastToProperty(LONG Value) {
    return OrnixWrappingProduct(Value, 100) / 4096;
}

LONG OrnixContrastToRegister(LONG Value) {
    return OrnixWrappingProduct(Value, 4096) / 100;
}

ULONG OrnixGainToProperty(ULONG Value) {
    return (Value - ORNIX_GAIN_OFFSET) >> ORNIX_GAIN_SHIFT;
}

ULONG OrnixGainToRegister(ULONG Value) {
    return (Value << ORNIX_GAIN_SHIFT) + ORNIX_GAIN_OFFSET;
}

// Microseconds to log2(seconds). The factor 1.5 puts the step from n to
// n + 1 near 1,333,333 * 2^n us, so values round to the nearest power.
LONG OrnixExposureToProperty(ULONG Value) {
    if (Value == 0) {
        return ORNIX_EXPOSURE_PROPERTY_MIN;
    }
    ULONG scaled = Value + (Value >> 1);
    // The sum wraps above 0xAAAAAAAA, and at exactly 0xAAAAAAAB it wraps to 0,
    // which no doubling would ever lift to a second. Such a value reads as the
    // shortest exposure, like a register of 0; every other value leaves the
    // loops below within 32 halvings or 20 doublings.
    if (scaled == 0) {
        return ORNIX_EXPOSURE_PROPERTY_MIN;
    }
    LONG power = 0;
    while (scaled >= 2 * ORNIX_ONE_SECOND_US) {
        scaled >>= 1;
        power++;
    }
    while (scaled < ORNIX_ONE_SECOND_US) {
        scaled <<= 1;
        power--;
    }
    return power;
}

ULONG OrnixExposureToRegister(LONG Value) {
    if (Value > ORNIX_EXPOSURE_PROPERTY_MAX) {
        Value = ORNIX_EXPOSURE_PROPERTY_MAX;
    }
    if (Value < ORNIX_EXPOSURE_PROPERTY_MIN) {
        Value = ORNIX_EXPOSURE_PROPERTY_MIN;
    }
    ULONG microseconds = ORNIX_ONE_SECOND_US;
    if (Value > 0) {
        microseconds <<= Value;
    } else {
        microseconds >>= -Value;
    }
    return microseconds;
}
