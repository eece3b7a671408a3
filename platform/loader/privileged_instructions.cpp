#include "loader/privileged_instructions.h"

#include <signal.h>
#include <ucontext.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>

#include <ntddk.h>

namespace winsim::loader {

namespace {

struct Range {
    std::atomic<uintptr_t> base{0};
    std::atomic<size_t> size{0};
    char name[64] = {};
};

// Read by the fault handler without a lock: slots are filled before their
// base is published and cleared base first.
std::array<Range, 8> ranges;
std::mutex rangesMutex;
std::once_flag handlersInstalled;
struct sigaction previousSegv;
struct sigaction previousIll;

const Range* RangeOf(uintptr_t address) {
    for (const Range& range : ranges) {
        const uintptr_t base = range.base.load(std::memory_order_acquire);
        if (base != 0 && address - base < range.size.load(std::memory_order_relaxed)) {
            return &range;
        }
    }
    return nullptr;
}

// x64 operand encodings: register number 0-15 to its slot in the saved context.
constexpr int kContextSlot[16] = {REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP,
                                  REG_RSI, REG_RDI, REG_R8,  REG_R9,  REG_R10, REG_R11,
                                  REG_R12, REG_R13, REG_R14, REG_R15};

// KPCR offset of the running thread on x64 (KPCR.Prcb.CurrentThread).
constexpr uint32_t kPcrCurrentThread = 0x188;

enum class Kind { None, ReadCr8, WriteCr8, ReadCurrentThread };

struct Decoded {
    Kind kind = Kind::None;
    unsigned reg = 0;  // the general register read or written
    size_t length = 0;
};

Decoded Decode(const unsigned char* code) {
    size_t at = 0;
    bool gs = false;
    if (code[at] == 0x65) {
        gs = true;
        ++at;
    }
    unsigned rex = 0;
    if ((code[at] & 0xF0) == 0x40) {
        rex = code[at++];
    }
    const bool rexW = rex & 8, rexR = rex & 4, rexB = rex & 1;
    if (!gs && code[at] == 0x0F && (code[at + 1] == 0x20 || code[at + 1] == 0x22)) {
        // mov r64, CRn / mov CRn, r64: always register to register.
        const unsigned modrm = code[at + 2];
        const unsigned cr = (rexR ? 8u : 0u) | ((modrm >> 3) & 7);
        if ((modrm >> 6) != 3 || cr != 8) {
            return {};
        }
        return {code[at + 1] == 0x20 ? Kind::ReadCr8 : Kind::WriteCr8,
                (rexB ? 8u : 0u) | (modrm & 7), at + 3};
    }
    if (gs && rexW && code[at] == 0x8B) {
        // mov r64, gs:[disp32]: ModRM mod 00 rm 100, SIB with no base or index.
        const unsigned modrm = code[at + 1];
        if ((modrm & 0xC7) != 0x04 || code[at + 2] != 0x25) {
            return {};
        }
        uint32_t displacement;
        std::memcpy(&displacement, code + at + 3, 4);
        if (displacement != kPcrCurrentThread) {
            return {};
        }
        return {Kind::ReadCurrentThread, (rexR ? 8u : 0u) | ((modrm >> 3) & 7), at + 7};
    }
    return {};
}

void SetIrql(KIRQL wanted) {
    const KIRQL current = KeGetCurrentIrql();
    if (wanted > current) {
        KIRQL old;
        KeRaiseIrql(wanted, &old);
    } else if (wanted < current) {
        KeLowerIrql(wanted);
    }
}

void WriteText(const char* text) {
    const ssize_t ignored = write(STDERR_FILENO, text, std::strlen(text));
    (void)ignored;
}

// Tells where in which image the fault happened, then lets it take its
// course: the default action re-runs on return.
void ReportFault(int signal, const siginfo_t* info, const Range& range, uintptr_t pc) {
    char text[256];
    const unsigned char* code = reinterpret_cast<const unsigned char*>(pc);
    std::snprintf(text, sizeof text,
                  "%s: %s at %s+0x%zx (bytes %02x %02x %02x %02x %02x %02x), address %p: "
                  "not an instruction the platform emulates\n",
                  range.name, signal == SIGILL ? "illegal instruction" : "fault", range.name,
                  static_cast<size_t>(pc - range.base.load()), code[0], code[1], code[2], code[3],
                  code[4], code[5], info->si_addr);
    WriteText(text);
    struct sigaction fallback {};
    fallback.sa_handler = SIG_DFL;
    sigaction(signal, &fallback, nullptr);
}

void PassOn(int signal, siginfo_t* info, void* context) {
    const struct sigaction& previous = signal == SIGILL ? previousIll : previousSegv;
    if ((previous.sa_flags & SA_SIGINFO) && previous.sa_sigaction != nullptr) {
        previous.sa_sigaction(signal, info, context);
        return;
    }
    if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
        previous.sa_handler(signal);
        return;
    }
    // Nobody else handles it: die of it when the instruction runs again.
    struct sigaction fallback {};
    fallback.sa_handler = SIG_DFL;
    sigaction(signal, &fallback, nullptr);
}

void OnFault(int signal, siginfo_t* info, void* context) {
    auto* uc = static_cast<ucontext_t*>(context);
    greg_t* regs = uc->uc_mcontext.gregs;
    const uintptr_t pc = static_cast<uintptr_t>(regs[REG_RIP]);
    const Range* range = RangeOf(pc);
    if (range == nullptr) {
        PassOn(signal, info, context);
        return;
    }
    const Decoded op =
        signal == SIGSEGV ? Decode(reinterpret_cast<const unsigned char*>(pc)) : Decoded{};
    switch (op.kind) {
        case Kind::ReadCr8:
            regs[kContextSlot[op.reg]] = KeGetCurrentIrql();
            break;
        case Kind::WriteCr8:
            SetIrql(static_cast<KIRQL>(regs[kContextSlot[op.reg]] & 0xF));
            break;
        case Kind::ReadCurrentThread:
            regs[kContextSlot[op.reg]] = reinterpret_cast<greg_t>(KeGetCurrentThread());
            break;
        case Kind::None:
            ReportFault(signal, info, *range, pc);
            return;
    }
    regs[REG_RIP] = static_cast<greg_t>(pc + op.length);
}

void InstallHandlers() {
    struct sigaction action {};
    action.sa_sigaction = OnFault;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigemptyset(&action.sa_mask);
    sigaction(SIGSEGV, &action, &previousSegv);
    sigaction(SIGILL, &action, &previousIll);
}

}  // namespace

void AddEmulatedImage(const void* base, size_t size, const std::string& name) {
    std::call_once(handlersInstalled, InstallHandlers);
    std::lock_guard lock(rangesMutex);
    for (Range& range : ranges) {
        if (range.base.load(std::memory_order_relaxed) == 0) {
            std::snprintf(range.name, sizeof range.name, "%s", name.c_str());
            range.size.store(size, std::memory_order_relaxed);
            range.base.store(reinterpret_cast<uintptr_t>(base), std::memory_order_release);
            return;
        }
    }
    WriteText("loader: more than 8 images loaded at once\n");
    std::abort();
}

void RemoveEmulatedImage(const void* base) {
    std::lock_guard lock(rangesMutex);
    for (Range& range : ranges) {
        if (range.base.load(std::memory_order_relaxed) == reinterpret_cast<uintptr_t>(base)) {
            range.base.store(0, std::memory_order_release);
        }
    }
}

size_t EmulatedInstructionLength(const unsigned char* code) {
    return Decode(code).length;
}

}  // namespace winsim::loader
