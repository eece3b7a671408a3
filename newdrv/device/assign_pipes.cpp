// The pipe map: which endpoint serves capture, still, FPGA download and
// device events, and the transfer sizes each is opened with.
#include "ornix.h"

// Largest video transfer the host controller takes per request, by speed.
#define ORNIX_HIGH_SPEED_PACKET 512
#define ORNIX_HIGH_SPEED_TRANSFER_CAP 0x200000
#define ORNIX_FULL_SPEED_TRANSFER_CAP 0x40000

#define ORNIX_ENDPOINT_IN 0x80

// The image for this release of the camera, or the first one.
static ULONG OrnixFpgaImageIndex(PORNIX_DEVICE_CONTEXT Ext) {
    if (Ext->DeviceDescriptor != NULL && Ext->DeviceDescriptor->bcdDevice < FpgaImageCount) {
        return Ext->DeviceDescriptor->bcdDevice;
    }
    return 0;
}

static VOID OrnixUseAsVideoPipe(PUSBD_PIPE_INFORMATION Pipe, ULONG FrameLimit, ULONG Cap) {
    Pipe->MaximumTransferSize = FrameLimit < Cap ? FrameLimit : Cap;
    Pipe->PipeFlags |= USBD_PF_CHANGE_MAX_PACKET;
}

static VOID OrnixAssignBulkPipe(PORNIX_DEVICE_CONTEXT Ext, PUSBD_PIPE_INFORMATION Pipe,
                                ULONG PipeIndex, ULONG AltSetting, ULONG FrameLimit,
                                ULONG FpgaLength) {
    ULONG cap;
    if (Pipe->MaximumPacketSize == ORNIX_HIGH_SPEED_PACKET) {
        Ext->HighSpeed = TRUE;
#ifdef ORNIX_LP64_PROBE
        // A deliberate fault, compiled only into the test build of ornix.sys
        // (windows/CMakeLists.txt, ORNIX_LP64_PROBE): __SIZEOF_LONG__ is 8 on
        // the Linux host and 4 on Windows, so this cap is right on Linux and
        // half of it in the binary.
        // scripts/check-lp64-probe.sh expects comparing the two builds to
        // find it in `ornixctl info`.
        cap = ORNIX_HIGH_SPEED_TRANSFER_CAP * __SIZEOF_LONG__ / 8;
#else
        cap = ORNIX_HIGH_SPEED_TRANSFER_CAP;
#endif
    } else {
        Ext->HighSpeed = FALSE;
        cap = ORNIX_FULL_SPEED_TRANSFER_CAP;
    }

    if ((Pipe->EndpointAddress & ORNIX_ENDPOINT_IN) == 0) {
        if (Ext->FpgaPipe == ORNIX_NO_PIPE) {
            Pipe->MaximumTransferSize = FpgaLength;
            Pipe->PipeFlags |= USBD_PF_CHANGE_MAX_PACKET;
            Ext->FpgaPipe = PipeIndex;
            Ext->FpgaAltSetting = AltSetting;
        }
        return;
    }
    if (Ext->CapturePipe == ORNIX_NO_PIPE) {
        OrnixUseAsVideoPipe(Pipe, FrameLimit, cap);
        Ext->StreamCount = 1;
        Ext->CapturePipe = PipeIndex;
        Ext->VideoAltSetting = AltSetting;
    } else if (Ext->StillPipe == ORNIX_NO_PIPE && AltSetting == Ext->VideoAltSetting) {
        // Both video streams must live in the one setting selected for video.
        OrnixUseAsVideoPipe(Pipe, FrameLimit, cap);
        Ext->StreamCount = 2;
        Ext->StillPipe = PipeIndex;
    }
}

// IRQL: PASSIVE_LEVEL. Edits the pipe records the list entries point at,
// inside a built request that has not been submitted yet.
ULONG OrnixAssignPipes(PORNIX_DEVICE_CONTEXT Ext, PUSBD_INTERFACE_LIST_ENTRY InterfaceList) {
    ULONG frameLimit = OrnixGetMaximumFrameSize(Ext);
    ULONG fpgaLength = FpgaImageCount > 0 ? FpgaImageTable[OrnixFpgaImageIndex(Ext)].Length : 0;

    Ext->StreamCount = 0;
    Ext->CapturePipe = ORNIX_NO_PIPE;
    Ext->StillPipe = ORNIX_NO_PIPE;
    Ext->FpgaPipe = ORNIX_NO_PIPE;
    Ext->InterruptPipe = ORNIX_NO_PIPE;

    for (ULONG a = 0; InterfaceList[a].Interface != NULL; a++) {
        PUSBD_INTERFACE_INFORMATION iface = InterfaceList[a].Interface;
        for (ULONG p = 0; p < iface->NumberOfPipes; p++) {
            PUSBD_PIPE_INFORMATION pipe = &iface->Pipes[p];
            if (pipe->PipeType == UsbdPipeTypeBulk) {
                OrnixAssignBulkPipe(Ext, pipe, p, a, frameLimit, fpgaLength);
            } else if (pipe->PipeType == UsbdPipeTypeInterrupt &&
                       (pipe->EndpointAddress & ORNIX_ENDPOINT_IN) != 0 &&
                       Ext->InterruptPipe == ORNIX_NO_PIPE) {
                pipe->MaximumTransferSize = pipe->MaximumPacketSize;
                Ext->InterruptPipe = p;
            }
        }
    }
    return 0;
}
