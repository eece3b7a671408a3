// The camera's register map and vendor request codes.
//
// Every register is a 32-bit little-endian value at a 16-bit byte index (a
// multiple of 4), reached only through the register access routines.
#pragma once

// Vendor requests on the default control pipe (bRequest).
#define ORNIX_REQUEST_REGISTER 0x12  // register and block access
#define ORNIX_REQUEST_SGL 0x13       // pass-through to other camera functions

// Global registers.
#define ORNIX_RESET 0x0000      // write 0xFFFFFFFF: back to power-up settings
#define ORNIX_SPEED 0x0004      // non-zero: high speed
#define ORNIX_FPGA_MODE 0x0008  // 0xFFFFFFFF enter / 0 leave program mode
#define ORNIX_FPGA_VERSION 0x000C
#define ORNIX_SPEC_VERSION 0x0010    // register interface version
#define ORNIX_FORMAT_COUNT 0x019C    // number of capture format banks
#define ORNIX_STREAM_CONTROL 0x0214  // capture start / stop handshake
#define ORNIX_STILL_TRIGGER 0x0218
#define ORNIX_INTERRUPT_EVENT_SUPPORT 0x0220
#define ORNIX_EVENT_ENABLE 0x0224
#define ORNIX_EVENT_DISABLE 0x0228
#define ORNIX_SENSOR_LAYOUT 0x0280
#define ORNIX_SENSOR_ORIGIN 0x0284

// ORNIX_SENSOR_LAYOUT bit 1: the camera places the window itself and must be
// asked to validate it.
#define ORNIX_SENSOR_PLACES_WINDOW 0x00000002

// FPGA mode bits when read.
#define ORNIX_FPGA_MODE_ENTER 0xFFFFFFFF
#define ORNIX_FPGA_MODE_LEAVE 0x00000000
#define ORNIX_FPGA_CONFIGURED 0x20
#define ORNIX_FPGA_BUSY 0x40

// Stream control values.
#define ORNIX_STREAM_CONTROL_START 0xFFFFFFFF
#define ORNIX_STREAM_CONTROL_STOPPING 0x40404040
#define ORNIX_STREAM_CONTROL_IDLE 0x00000000

// Property block: 57 records {control word, value, minimum, maximum}.
#define ORNIX_PROPERTY_BLOCK 0x0400
#define ORNIX_PROPERTY_RECORD_SIZE 16
#define ORNIX_PROPERTY_RECORD_COUNT 57
#define ORNIX_PROPERTY_RECORD(r) (ORNIX_PROPERTY_BLOCK + ORNIX_PROPERTY_RECORD_SIZE * (r))
#define ORNIX_EXPOSURE_LIMITS 0x04A8    // minimum and maximum of the exposure record
#define ORNIX_DEFECT_CORRECTION 0x06A0  // record 42

// Format banks: bank b of a kind sits at its base register + b * stride.
#define ORNIX_FORMAT_BANK_STRIDE 0x80
#define ORNIX_BANK_REGISTER(reg, bank) ((reg) + ORNIX_FORMAT_BANK_STRIDE * (bank))

// Capture format bank 0; ORNIX_BANK_REGISTER gives the other banks.
#define ORNIX_FMT_MAX_SIZE 0x1000
#define ORNIX_FMT_UNIT_SIZE 0x1004
#define ORNIX_FMT_POSITION 0x1008
#define ORNIX_FMT_SIZE 0x100C
#define ORNIX_FMT_COLOR_ID 0x1010
#define ORNIX_FMT_COLOR_INQ 0x1014
#define ORNIX_FMT_BINNING 0x1018
#define ORNIX_BINNING_STATUS 0x101C
#define ORNIX_FMT_FREQ_PARA 0x1040
#define ORNIX_FMT_CUR_FREQ 0x1048
#define ORNIX_FMT_FREQ_COUNT 0x104C
#define ORNIX_FMT_FREQ_ARRAY 0x1050
#define ORNIX_FMT_VALIDATE 0x1060

// Still format bank 0.
#define ORNIX_STILL_POSITION 0x4008
#define ORNIX_STILL_SIZE 0x400C
#define ORNIX_STILL_COLOR_ID 0x4010
#define ORNIX_STILL_BINNING 0x4018
#define ORNIX_STILL_VALIDATE 0x4060

// Optional features and the message window.
#define ORNIX_SUPPORT0 0x4FF8
#define ORNIX_MESSAGE_HEADER 0x4FFC
#define ORNIX_MESSAGE_DATA 0x5000
#define ORNIX_MESSAGE_PIECE_SIZE 64  // the camera takes message bodies in pieces this large
