// A fresh machine whose verifier records; a finding the test did not take fails it.
#pragma once

#include <gtest/gtest.h>

#include "kernel/kernel.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace kerneltest {

class KernelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        winsim::ResetKernel();
        winsim::SetVerifierMode(winsim::VerifierMode::Record);
    }

    void TearDown() override {
        for (const winsim::Violation& v : winsim::TakeViolations()) {
            ADD_FAILURE() << "unexpected verifier finding " << v.check << ": " << v.message;
        }
    }

    // Takes the findings so far: exactly one, of `check`, holding every one of `gists`.
    static void ExpectViolation(std::string_view check,
                                const std::vector<std::string>& gists = {}) {
        std::vector<winsim::Violation> found = winsim::TakeViolations();
        std::string all;
        for (const auto& v : found)
            all += v.check + ": " + v.message + "\n";
        ASSERT_EQ(found.size(), 1u) << (all.empty() ? "no findings" : all);
        EXPECT_EQ(found[0].check, check) << found[0].message;
        for (const std::string& gist : gists) {
            EXPECT_NE(found[0].message.find(gist), std::string::npos)
                << "'" << gist << "' not in: " << found[0].message;
        }
    }
};

// Pool guard pages on or off for the object's lifetime; the mode before comes back after.
class ScopedPoolGuardPages {
  public:
    explicit ScopedPoolGuardPages(bool on) : before_(winsim::PoolGuardPages()) {
        winsim::SetPoolGuardPages(on);
    }
    ~ScopedPoolGuardPages() { winsim::SetPoolGuardPages(before_); }
    ScopedPoolGuardPages(const ScopedPoolGuardPages&) = delete;
    ScopedPoolGuardPages& operator=(const ScopedPoolGuardPages&) = delete;

  private:
    bool before_;
};

// A Windows relative time-out: negative, in 100 ns units.
inline LARGE_INTEGER RelativeTimeout(double seconds) {
    LARGE_INTEGER timeout;
    timeout.QuadPart = -static_cast<int64_t>(seconds * 1e7);
    return timeout;
}

// A wait that does not block, and one that must succeed.
inline NTSTATUS Poll(PVOID object) {
    LARGE_INTEGER poll = RelativeTimeout(0);
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, &poll);
}

inline void Wait(PVOID object) {
    ASSERT_EQ(KeWaitForSingleObject(object, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
}

// How verifier messages name an address: all the digits of a pointer.
inline std::string AddressText(const void* address) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%0*llx", int(2 * sizeof(void*)),
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(address)));
    return text;
}

}  // namespace kerneltest
