// The camera's register storage and the rules for touching it from the bus.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <vector>

#include "camera/register_layout.h"

namespace ornixcam {

// What a register does with a value written to it.
enum class WriteOutcome {
    Store,    // keep the value
    Discard,  // acknowledge, but do not keep it
    Stall,    // refuse: the request stalls
};

// One register's share of a host write. A write may cover only some of its bytes.
struct RegisterWrite {
    uint16_t index = 0;
    uint32_t value = 0;     // the stored value with the written bytes merged in
    uint32_t previous = 0;  // the stored value before the write
    uint8_t firstByte = 0;  // bytes [firstByte, firstByte + byteCount) came from the host
    uint8_t byteCount = 4;

    uint8_t Byte(unsigned n) const { return static_cast<uint8_t>(value >> (8 * n)); }
};

// Hooks give registers behaviour beyond storing values. They run with the
// camera locked and must not call back into the camera's public interface.
using ReadHook = std::function<uint32_t(uint16_t index, uint32_t stored)>;
using WriteHook = std::function<WriteOutcome(const RegisterWrite& write)>;
// A block window takes the bytes of one write that fall inside it in a single
// call, `offset` counting from the window's first byte. False stalls the write.
using WindowHandler = std::function<bool(size_t offset, std::span<const uint8_t> bytes)>;

class RegisterFile {
  public:
    RegisterFile(const RegisterLayout& layout, const std::map<uint16_t, uint32_t>& powerUpValues);

    // Bus access to bytes [firstByte, firstByte + count). Every register touched
    // must exist and allow the direction, or nothing happens and the result is
    // false (a stall). A zero-length access checks the register at firstByte.
    bool Read(uint32_t firstByte, std::span<uint8_t> out);
    // Registers are written in order; a hook that stalls stops the write there.
    bool Write(uint32_t firstByte, std::span<const uint8_t> in);

    // Backdoor access for tests and device models: no hooks, no direction
    // checks. Throws std::out_of_range for a register the camera does not have.
    uint32_t Peek(uint16_t index) const;
    void Poke(uint16_t index, uint32_t value);

    bool Contains(uint16_t index) const { return slots_.contains(index); }
    Access AccessOf(uint16_t index) const;

    // Replaces the register's hook; an empty function restores plain storage.
    void SetReadHook(uint16_t index, ReadHook hook);
    void SetWriteHook(uint16_t index, WriteHook hook);
    // Writes to the registers in [first, last] go to `handler` instead of
    // their write hooks or storage. Access rules still apply per register.
    void SetWindowHandler(uint16_t first, uint16_t last, WindowHandler handler);

    // Writable registers (the settings) go back to their power-up values.
    void ResetSettings();

  private:
    struct Slot {
        Access access = Access::None;
        uint32_t value = 0;
        uint32_t powerUp = 0;
        ReadHook onRead;
        WriteHook onWrite;
    };

    struct Window {
        uint16_t first = 0;
        uint16_t last = 0;
        WindowHandler handler;
    };

    bool Allows(uint32_t firstByte, size_t count, bool (*allows)(Access)) const;
    const Window* WindowAt(uint32_t byteIndex) const;
    // Writes the bytes of `in` that belong to the register holding `byteIndex`.
    bool WriteRegister(uint32_t byteIndex, std::span<const uint8_t> in, size_t& consumed);
    Slot& At(uint16_t index);
    const Slot& At(uint16_t index) const;

    std::map<uint16_t, Slot> slots_;
    std::vector<Window> windows_;
};

}  // namespace ornixcam
