// Who holds each IRP that IoAllocateIrp handed out: a lower driver, the
// completion walk, or its owner. IoFreeIrp checks this.
#pragma once

#include <wdm.h>

#include <string_view>

namespace winsim::kernel {

// IoCallDriver hands the IRP to a driver below.
void NoteIrpSentDown(PIRP irp);

// IoCompleteRequest starts: the lower driver has let go and the walk owns
// the IRP. False for IRPs that IoAllocateIrp did not allocate.
bool BeginCompletionWalk(PIRP irp);

// A completion routine is about to run: it may take the IRP over.
void PauseCompletionWalk(PIRP irp);

// The routine let the walk go on; false when it freed the IRP meanwhile.
bool ResumeCompletionWalk(PIRP irp);

void EndCompletionWalk(PIRP irp);

// The IRP's memory is freed or initialised again: dispatch calls still
// waiting for its completion (see irp_dispatch.cpp) are dropped unchecked.
void ForgetDispatchCalls(PIRP irp);

// IRP_LEAK for IRPs allocated and never freed; true when none is left.
bool ReportIrpLeaks(std::string_view when);

void ResetIrps();

}  // namespace winsim::kernel
