// Blocks that must live until shutdown, released together. The list is
// changed only by atomic operations, so pushes from any thread and a flush
// need no lock. IRQL: up to DISPATCH_LEVEL.
#include "ornix.h"

static PVOID volatile* OrnixDeferredHead(PORNIX_DEVICE_CONTEXT Ext) {
    return (PVOID volatile*)&Ext->DeferredFreeList;
}

NTSTATUS OrnixDeferFree(PORNIX_DEVICE_CONTEXT Ext, PVOID Block) {
    PORNIX_DEFERRED_BLOCK node = (PORNIX_DEFERRED_BLOCK)OrnixAllocatePool(sizeof(*node));
    if (node == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;  // the caller keeps the block
    }
    node->Block = Block;

    // The node links to the old head before it becomes visible.
    PVOID expected = NULL;
    for (;;) {
        node->Next = (PORNIX_DEFERRED_BLOCK)expected;
        PVOID seen = InterlockedCompareExchangePointer(OrnixDeferredHead(Ext), node, expected);
        if (seen == expected) {
            return STATUS_SUCCESS;
        }
        expected = seen;
    }
}

VOID OrnixFreeDeferred(PORNIX_DEVICE_CONTEXT Ext) {
    PORNIX_DEFERRED_BLOCK node =
        (PORNIX_DEFERRED_BLOCK)InterlockedExchangePointer(OrnixDeferredHead(Ext), NULL);
    while (node != NULL) {
        PORNIX_DEFERRED_BLOCK next = node->Next;
        OrnixFreePool(node->Block);
        OrnixFreePool(node);
        node = next;
    }
}
