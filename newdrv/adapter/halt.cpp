// Stopping the interrupt transfer and the open streams, the common part of
// surprise removal, paging out and adapter teardown.
#include "ornix.h"

// IRQL: PASSIVE_LEVEL. Takes InterruptMutex; the caller may hold RequestMutex.
VOID OrnixHaltInterruptPipe(PORNIX_DEVICE_CONTEXT Ext) {
    KeWaitForSingleObject(&Ext->InterruptMutex, Executive, KernelMode, FALSE, NULL);
    InterruptStop(Ext);
    InterruptFreeResources(Ext);
    KeReleaseMutex(&Ext->InterruptMutex, FALSE);
}

// IRQL: PASSIVE_LEVEL (stopping a stream waits for its transfers). A running
// stream is stopped and then released; a paused or acquiring one only
// released; a stopped one holds nothing.
VOID OrnixHaltOpenStreams(PORNIX_DEVICE_CONTEXT Ext) {
    for (ULONG i = 0; i < Ext->StreamCount && i < ORNIX_MAX_STREAMS; i++) {
        PORNIX_STREAM_CONTEXT stream = Ext->StreamContexts[i];
        if (stream == NULL) {
            continue;
        }
        if (stream->State == KSSTATE_RUN) {
            StreamDisarmDelayedStart(stream);
            if (!NT_SUCCESS(StreamStop(Ext, stream))) {
                StreamWaitForTransfers(Ext, stream);
            }
            StreamSetKsState(stream, KSSTATE_PAUSE);
            DbgPrint(ORNIX_PREFIX "S# %d is paused.\n", i);
        }
        if (stream->State == KSSTATE_PAUSE || stream->State == KSSTATE_ACQUIRE) {
            StreamFreeResources(Ext, stream);
            StreamSetKsState(stream, KSSTATE_STOP);
            DbgPrint(ORNIX_PREFIX "S# %d is stopped.\n", i);
        }
    }
}
