// Privileged instructions inside a loaded image run on the platform's
// per-thread state: CR8 is the IRQL, gs:[0x188] the running thread; any other
// fault inside an image names the image and the offset before it kills.
#include "loader/privileged_instructions.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>
#include <initializer_list>

#include "kernel/kernel.h"

#if defined(__SANITIZE_THREAD__)
// The emulation runs in the fault handler but on a synchronous fault of the
// thread's own instruction, never inside the allocator or a lock the
// interrupted code holds; the verifier's reports allocate there safely.
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0";
}
#endif

namespace {

using winsim::loader::AddEmulatedImage;
using winsim::loader::RemoveEmulatedImage;

// A page of code registered as an image, holding one routine.
class CodePage {
  public:
    explicit CodePage(std::initializer_list<unsigned char> code) {
        page_ = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        std::memcpy(page_, std::data(code), code.size());
        mprotect(page_, kSize, PROT_READ | PROT_EXEC);
        AddEmulatedImage(page_, kSize, "test.sys");
    }
    ~CodePage() {
        RemoveEmulatedImage(page_);
        munmap(page_, kSize);
    }
    template <class Fn>
    Fn As() const {
        return reinterpret_cast<Fn>(page_);
    }

  private:
    static constexpr size_t kSize = 4096;
    void* page_;
};

using ReadFn = uint64_t(__attribute__((ms_abi)) *)();
using WriteFn = void(__attribute__((ms_abi)) *)(uint64_t);

class PrivilegedInstructionTest : public testing::Test {
  protected:
    void SetUp() override {
        winsim::ResetKernel();
        winsim::SetVerifierMode(winsim::VerifierMode::Record);
    }
    void TearDown() override {
        if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
            KeLowerIrql(PASSIVE_LEVEL);
        }
        EXPECT_TRUE(winsim::TakeViolations().empty());
    }
};

TEST_F(PrivilegedInstructionTest, Cr8ReadsTheThreadsIrqlAtEachLevel) {
    const CodePage rax({0x44, 0x0F, 0x20, 0xC0, 0xC3});  // mov rax, cr8; ret
    // mov r9, cr8; mov rax, r9; ret: the register in REX.B's upper half.
    const CodePage r9({0x45, 0x0F, 0x20, 0xC1, 0x4C, 0x89, 0xC8, 0xC3});
    for (KIRQL level : {PASSIVE_LEVEL, APC_LEVEL, DISPATCH_LEVEL}) {
        KIRQL old;
        KeRaiseIrql(level, &old);
        EXPECT_EQ(rax.As<ReadFn>()(), level);
        EXPECT_EQ(r9.As<ReadFn>()(), level);
        KeLowerIrql(PASSIVE_LEVEL);
    }
}

TEST_F(PrivilegedInstructionTest, Cr8WritesRaiseAndLowerThroughTheVerifiedPath) {
    const CodePage write({0x44, 0x0F, 0x22, 0xC1, 0xC3});  // mov cr8, rcx; ret
    write.As<WriteFn>()(DISPATCH_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    write.As<WriteFn>()(PASSIVE_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);

    // Lowering below DISPATCH_LEVEL with a spin lock held is a finding,
    // whether the driver calls KeLowerIrql or writes CR8 itself.
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL old;
    KeAcquireSpinLock(&lock, &old);
    write.As<WriteFn>()(PASSIVE_LEVEL);
    EXPECT_EQ(winsim::TakeViolations().size(), 1u);
    KeReleaseSpinLock(&lock, old);
}

TEST_F(PrivilegedInstructionTest, GsCurrentThreadIsThePlatformsThread) {
    // mov rax, gs:[0x188]; ret
    const CodePage thread({0x65, 0x48, 0x8B, 0x04, 0x25, 0x88, 0x01, 0x00, 0x00, 0xC3});
    EXPECT_EQ(thread.As<ReadFn>()(), reinterpret_cast<uint64_t>(KeGetCurrentThread()));
}

TEST(PrivilegedInstructionDeathTest, OtherFaultsNameTheImageAndOffset) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers take SIGSEGV for themselves";
#else
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // nop; cli (privileged); ret
    EXPECT_EXIT(
        {
            const CodePage cli({0x90, 0xFA, 0xC3});
            cli.As<ReadFn>()();
        },
        testing::KilledBySignal(SIGSEGV),
        "test.sys: fault at test.sys\\+0x1 .*not an instruction the platform emulates");
    // mov rax, gs:[0x20]: a processor field the platform does not keep.
    EXPECT_EXIT(
        {
            const CodePage gs({0x65, 0x48, 0x8B, 0x04, 0x25, 0x20, 0x00, 0x00, 0x00, 0xC3});
            gs.As<ReadFn>()();
        },
        testing::KilledBySignal(SIGSEGV), "test.sys\\+0x0 \\(bytes 65 48 8b 04 25 20\\)");
#endif
}

}  // namespace
