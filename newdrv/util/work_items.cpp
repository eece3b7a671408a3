// Accounting of the driver's work items, so that teardown can wait for the
// last one before it frees what they use, and the checks workers make before
// they talk to the camera.
#include "ornix.h"

// IRQL: up to DISPATCH_LEVEL. Counts one more item unless the count has
// already dropped to 0, which only teardown's closing of the gate allows.
BOOLEAN OrnixBeginWorkItem(PORNIX_DEVICE_CONTEXT Ext) {
    LONG count = InterlockedCompareExchange(&Ext->WorkItemCount, 0, 0);
    for (;;) {
        if (count == 0) {
            return FALSE;
        }
        LONG seen = InterlockedCompareExchange(&Ext->WorkItemCount, count + 1, count);
        if (seen == count) {
            return TRUE;
        }
        count = seen;
    }
}

// IRQL: up to DISPATCH_LEVEL. Once the count reaches 0 teardown may free the
// context: nothing may touch it after this call.
VOID OrnixEndWorkItem(PORNIX_DEVICE_CONTEXT Ext) {
    if (InterlockedDecrement(&Ext->WorkItemCount) == 0) {
        KeSetEvent(&Ext->WorkItemsDone, IO_NO_INCREMENT, FALSE);
    }
}

// IRQL: PASSIVE_LEVEL. Closes the gate (once, however often teardown runs)
// and waits until every item queued before has finished.
VOID OrnixDrainWorkItems(PORNIX_DEVICE_CONTEXT Ext) {
    if (InterlockedExchange(&Ext->WorkItemsClosed, 1) == 0) {
        OrnixEndWorkItem(Ext);  // the count the gate itself held
    }
    KeWaitForSingleObject(&Ext->WorkItemsDone, Executive, KernelMode, FALSE, NULL);
}

BOOLEAN OrnixDeviceGoingAway(PORNIX_DEVICE_CONTEXT Ext) {
    return OrnixFlagIsSet(&Ext->Removed) || OrnixFlagIsSet(&Ext->Uninitializing);
}

// IRQL: PASSIVE_LEVEL. A deferred reset holds PipeMutex from its look at the
// flags to its last request: once the mutex has been ours, every reset that
// saw the flags clear is done, and later ones see them set.
VOID OrnixWaitForPipeResets(PORNIX_DEVICE_CONTEXT Ext) {
    KeWaitForSingleObject(&Ext->PipeMutex, Executive, KernelMode, FALSE, NULL);
    KeReleaseMutex(&Ext->PipeMutex, FALSE);
}
