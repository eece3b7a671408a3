#include "camera/register_file.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <string>

namespace ornixcam {
namespace {

constexpr uint32_t kIndexSpace = 0x10000;

constexpr uint32_t RegisterOf(uint32_t byteIndex) {
    return byteIndex & ~3u;
}

}  // namespace

RegisterFile::RegisterFile(const RegisterLayout& layout,
                           const std::map<uint16_t, uint32_t>& powerUpValues) {
    for (const auto& [index, access] : layout) {
        Slot& slot = slots_[index];
        slot.access = access;
        if (auto it = powerUpValues.find(index); it != powerUpValues.end()) {
            slot.powerUp = it->second;
        }
        slot.value = slot.powerUp;
    }
}

bool RegisterFile::Allows(uint32_t firstByte, size_t count, bool (*allows)(Access)) const {
    if (firstByte >= kIndexSpace || count > kIndexSpace - firstByte) {
        return false;
    }
    const uint32_t lastByte = firstByte + static_cast<uint32_t>(count == 0 ? 0 : count - 1);
    for (uint32_t index = RegisterOf(firstByte); index <= lastByte; index += 4) {
        auto it = slots_.find(static_cast<uint16_t>(index));
        if (it == slots_.end() || !allows(it->second.access)) {
            return false;
        }
    }
    return true;
}

bool RegisterFile::Read(uint32_t firstByte, std::span<uint8_t> out) {
    if (!Allows(firstByte, out.size(), AllowsRead)) {
        return false;
    }
    size_t done = 0;
    for (uint32_t index = RegisterOf(firstByte); done < out.size(); index += 4) {
        Slot& slot = slots_.at(static_cast<uint16_t>(index));
        const uint32_t value =
            slot.onRead ? slot.onRead(static_cast<uint16_t>(index), slot.value) : slot.value;
        for (uint32_t byte = std::max(index, firstByte); byte < index + 4 && done < out.size();
             ++byte) {
            out[done++] = static_cast<uint8_t>(value >> (8 * (byte - index)));
        }
    }
    return true;
}

bool RegisterFile::Write(uint32_t firstByte, std::span<const uint8_t> in) {
    if (!Allows(firstByte, in.size(), AllowsWrite)) {
        return false;
    }
    for (size_t done = 0; done < in.size();) {
        const uint32_t byte = firstByte + static_cast<uint32_t>(done);
        size_t consumed = 0;
        if (const Window* window = WindowAt(byte)) {
            consumed = std::min<size_t>(in.size() - done, window->last + 4u - byte);
            if (!window->handler(byte - window->first, in.subspan(done, consumed))) {
                return false;
            }
        } else if (!WriteRegister(byte, in.subspan(done), consumed)) {
            return false;
        }
        done += consumed;
    }
    return true;
}

bool RegisterFile::WriteRegister(uint32_t byteIndex, std::span<const uint8_t> in,
                                 size_t& consumed) {
    const uint32_t index = RegisterOf(byteIndex);
    Slot& slot = slots_.at(static_cast<uint16_t>(index));
    RegisterWrite write{
        .index = static_cast<uint16_t>(index),
        .value = slot.value,
        .previous = slot.value,
        .firstByte = static_cast<uint8_t>(byteIndex - index),
        .byteCount = static_cast<uint8_t>(std::min<size_t>(in.size(), 4 - (byteIndex - index)))};
    for (unsigned n = 0; n < write.byteCount; ++n) {
        const unsigned shift = 8 * (write.firstByte + n);
        write.value = (write.value & ~(0xFFu << shift)) | (uint32_t{in[n]} << shift);
    }
    consumed = write.byteCount;
    const WriteOutcome outcome = slot.onWrite ? slot.onWrite(write) : WriteOutcome::Store;
    if (outcome == WriteOutcome::Store) {
        slot.value = write.value;
    }
    return outcome != WriteOutcome::Stall;
}

const RegisterFile::Window* RegisterFile::WindowAt(uint32_t byteIndex) const {
    for (const Window& window : windows_) {
        if (byteIndex >= window.first && byteIndex < window.last + 4u) {
            return &window;
        }
    }
    return nullptr;
}

void RegisterFile::SetWindowHandler(uint16_t first, uint16_t last, WindowHandler handler) {
    std::erase_if(windows_, [&](const Window& w) { return w.first == first; });
    if (handler) {
        windows_.push_back({first, last, std::move(handler)});
    }
}

RegisterFile::Slot& RegisterFile::At(uint16_t index) {
    auto it = slots_.find(index);
    if (it == slots_.end()) {
        char name[8];
        std::snprintf(name, sizeof name, "0x%04X", index);
        throw std::out_of_range(std::string("the camera has no register ") + name);
    }
    return it->second;
}

const RegisterFile::Slot& RegisterFile::At(uint16_t index) const {
    return const_cast<RegisterFile*>(this)->At(index);
}

uint32_t RegisterFile::Peek(uint16_t index) const {
    return At(index).value;
}

void RegisterFile::Poke(uint16_t index, uint32_t value) {
    At(index).value = value;
}

Access RegisterFile::AccessOf(uint16_t index) const {
    auto it = slots_.find(index);
    return it == slots_.end() ? Access::None : it->second.access;
}

void RegisterFile::SetReadHook(uint16_t index, ReadHook hook) {
    At(index).onRead = std::move(hook);
}

void RegisterFile::SetWriteHook(uint16_t index, WriteHook hook) {
    At(index).onWrite = std::move(hook);
}

void RegisterFile::ResetSettings() {
    for (auto& [index, slot] : slots_) {
        if (AllowsWrite(slot.access)) {
            slot.value = slot.powerUp;
        }
    }
}

}  // namespace ornixcam
