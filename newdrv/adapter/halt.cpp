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
// stream is stopped and then released; a paused one only released; streams
// in KSSTATE_ACQUIRE or KSSTATE_STOP are left alone.
VOID OrnixHaltOpenStreams(PORNIX_DEVICE_CONTEXT Ext) {
    for (ULONG i = 0; i < Ext->StreamCount && i < ORNIX_MAX_STREAMS; i++) {
        PORNIX_STREAM_CONTEXT stream = Ext->StreamContexts[i];
        if (stream == NULL) {
            continue;
        }
        if (stream->State == KSSTATE_RUN) {
            StreamStop(Ext, stream);
            stream->State = KSSTATE_PAUSE;
            DbgPrint(ORNIX_PREFIX "S# %d is paused.\n", i);
        }
        if (stream->State == KSSTATE_PAUSE) {
            StreamFreeResources(Ext, stream);
            stream->State = KSSTATE_STOP;
            DbgPrint(ORNIX_PREFIX "S# %d is stopped.\n", i);
        }
    }
}
