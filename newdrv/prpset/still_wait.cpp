// KSPROPERTY_OXCUSTOM_STILLWAIT: an application waits until the still
// stream holds a read request, so that a trigger it fires next finds a
// buffer. The read path signals DriverReadyEvent when a read arrives while
// DriverReadyWanted is set.
#include "custom_set.h"

// Word 1: the time-out in microseconds, negative for none. Blocks the
// dispatcher (and every adapter request) meanwhile; reads do not pass
// through it and still arrive.
NTSTATUS OrnixSetStillWait(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    PUCHAR data;
    NTSTATUS status = OrnixSetData(Srb, ORNIX_CUSTOM_SET_DATA, &data);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    LONG timeoutUs = (LONG)OrnixLoadUlong(data + 4);

    PORNIX_STREAM_CONTEXT still = Ext->StreamContexts[ORNIX_STILL_STREAM];
    if (still == NULL || !OrnixFlagIsSet(&still->Running)) {
        return OrnixSetResult(Srb, STATUS_SUCCESS);
    }
    KeResetEvent(&still->DriverReadyEvent);
    // A read that is already held needs no waiting. One that arrives after
    // DriverReadyWanted is set signals the event; one that arrives between
    // the two tests is seen by the second.
    if (InterlockedCompareExchange(&still->OutstandingReads, 0, 0) == 0) {
        OrnixSetFlag(&still->DriverReadyWanted);
        if (InterlockedCompareExchange(&still->OutstandingReads, 0, 0) == 0) {
            OrnixVerbose(ORNIX_PREFIX "Waiting for DriverReadyEvent!!\n");
            LARGE_INTEGER timeout;
            timeout.QuadPart = -(LONGLONG)timeoutUs * 10;
            status = KeWaitForSingleObject(&still->DriverReadyEvent, Executive, KernelMode, FALSE,
                                           timeoutUs < 0 ? NULL : &timeout);
        }
        InterlockedExchange(&still->DriverReadyWanted, 0);
    }
    if (status == STATUS_TIMEOUT) {
        Srb->ActualBytesTransferred = 0;
        return status;
    }
    return OrnixSetResult(Srb, status);
}
