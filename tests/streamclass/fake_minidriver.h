// A minimal stream-class minidriver whose behaviour each test scripts, to
// check the simulated stream class itself.
#pragma once

#include <strmini.h>

#include <functional>

namespace sctest {

struct FakeMinidriver {
    // What the minidriver does with each adapter SRB; the default completes
    // it with STATUS_SUCCESS.
    std::function<void(PHW_STREAM_REQUEST_BLOCK)> onSrb;
    // Edits the registration before it is handed to the stream class.
    std::function<void(HW_INITIALIZATION_DATA&)> editRegistration;
    ULONG extensionSize = 64;
};

// The one fake in use; FakeDriverEntry reads it.
FakeMinidriver& Fake();

extern "C" NTSTATUS NTAPI FakeDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);

// Completes an adapter SRB the way a minidriver does.
void CompleteAdapterSrb(PHW_STREAM_REQUEST_BLOCK srb, NTSTATUS status);

}  // namespace sctest
