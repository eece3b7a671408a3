// The kernel's account of its threads, which a watchdog prints before it
// ends a hung run: who waits on which mutex or spin lock, and who holds it.
#include <chrono>
#include <thread>

#include "kernel_test.h"

namespace kerneltest {
namespace {

// Lines of DescribeThreads naming `thread` and holding `gist`, waited for
// (the other thread has to get there first) at most a generous real time.
bool EventuallyDescribed(const std::string& thread, const std::string& gist) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < end) {
        const std::string text = winsim::DescribeThreads();
        for (size_t start = 0; start < text.size();) {
            const size_t stop = text.find('\n', start);
            const std::string line = text.substr(start, stop - start);
            if (line.find("thread '" + thread + "'") == 0 && line.find(gist) != std::string::npos) {
                return true;
            }
            start = stop == std::string::npos ? text.size() : stop + 1;
        }
        std::this_thread::yield();
    }
    ADD_FAILURE() << "no '" << gist << "' for " << thread << " in:\n" << winsim::DescribeThreads();
    return false;
}

TEST_F(KernelTest, EachBlockedThreadIsDescribedWithWhatHoldsIt) {
    winsim::NameCurrentThread("holder");
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    KSPIN_LOCK spinLock;
    KeInitializeSpinLock(&spinLock);
    Wait(&mutex);
    KIRQL irql;
    KeAcquireSpinLock(&spinLock, &irql);

    std::thread waiter([&] {
        winsim::NameCurrentThread("mutex waiter");
        Wait(&mutex);
        KeReleaseMutex(&mutex, FALSE);
    });
    std::thread spinner([&] {
        winsim::NameCurrentThread("spinner");
        KIRQL old;
        KeAcquireSpinLock(&spinLock, &old);
        KeReleaseSpinLock(&spinLock, old);
    });
    EXPECT_TRUE(EventuallyDescribed("mutex waiter", "blocked in KeWaitForSingleObject on mutex"));
    EXPECT_TRUE(EventuallyDescribed("mutex waiter", "held by thread 'holder'"));
    EXPECT_TRUE(EventuallyDescribed("spinner", "blocked in KeAcquireSpinLock on spin lock"));
    EXPECT_TRUE(EventuallyDescribed("spinner", "held by thread 'holder'"));
    EXPECT_TRUE(EventuallyDescribed("holder", "running"));

    KeReleaseSpinLock(&spinLock, irql);
    KeReleaseMutex(&mutex, FALSE);
    waiter.join();
    spinner.join();
    // Threads that ended are no longer listed.
    EXPECT_EQ(winsim::DescribeThreads().find("'spinner'"), std::string::npos);
    EXPECT_EQ(winsim::DescribeThreads().find("'mutex waiter'"), std::string::npos);
    winsim::NameCurrentThread("");  // the main thread is anonymous again for later tests
}

}  // namespace
}  // namespace kerneltest
