// Configuration of the camera's FPGA: the image goes down the FPGA pipe in
// one bulk transfer, framed by writes to the FPGA mode register.
#include "ornix.h"

// Busy polls before the last check; each busy answer costs one delay.
#define ORNIX_FPGA_BUSY_POLLS 2
// 1 ms, relative, in 100 ns units.
#define ORNIX_FPGA_BUSY_DELAY ((LONGLONG)-10000)

// Back to the alternate setting current on entry. When that selection fails
// the device may be in either setting (or none, if it acted on the request
// and the answer was lost), and the pipe handles of neither can be trusted:
// the setting is marked unknown, so that the next selection of any setting
// (the FPGA's after D3, the video one at stream start) is really sent and
// no pipe of the old setting is reset or used before that.
// A setting that was unknown on entry is not restored: the FPGA's setting is
// then the one known.
static NTSTATUS OrnixFpgaRestoreSetting(PORNIX_DEVICE_CONTEXT Ext, ULONG Saved) {
    if (Saved == Ext->CurrentAltSetting || Saved == ORNIX_UNKNOWN_ALT_SETTING) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = OrnixSelectAltSetting(Ext, Saved);
    if (!NT_SUCCESS(status)) {
        Ext->CurrentAltSetting = ORNIX_UNKNOWN_ALT_SETTING;
    }
    return status;
}

// Program mode on: the image, then waiting for the FPGA to finish. Every
// failure is reported here; the caller leaves program mode.
static NTSTATUS OrnixFpgaDownload(PORNIX_DEVICE_CONTEXT Ext, const ORNIX_FPGA_IMAGE* Image) {
    NTSTATUS status = OrnixRegWrite(Ext, ORNIX_FPGA_MODE, ORNIX_FPGA_MODE_ENTER);
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX "Failed to set in fpga program mode\n");
        return status;
    }
    status = OrnixResetPipe(Ext, Ext->FpgaPipe);
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX "Failed to reset fpga pipe with 0x%08lx\n", (ULONG)status);
        return status;
    }
    // The lower driver only reads the image, which stays in read-only data.
    status = BulkAsynchTransfer(Ext, (PVOID)Image->Data, NULL, Image->Length, Ext->FpgaPipe, FALSE);
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX "Failed to program fpga, usb bulk failed:0x%08lx\n", (ULONG)status);
        return status;
    }

    ULONG mode;
    for (ULONG poll = 0; poll < ORNIX_FPGA_BUSY_POLLS; poll++) {
        status = OrnixRegRead(Ext, ORNIX_FPGA_MODE, &mode);
        if (!NT_SUCCESS(status)) {
            DbgPrint(ORNIX_PREFIX "Failed to read fpga mode reg\n");
            return status;
        }
        if ((mode & ORNIX_FPGA_BUSY) == 0) {
            return STATUS_SUCCESS;
        }
        DbgPrint(ORNIX_PREFIX "Delay for fpga still programming\n");
        LARGE_INTEGER delay;
        delay.QuadPart = ORNIX_FPGA_BUSY_DELAY;
        KeDelayExecutionThread(KernelMode, FALSE, &delay);
    }
    status = OrnixRegRead(Ext, ORNIX_FPGA_MODE, &mode);
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX "Could not read fpga mode reg\n");
        return status;
    }
    if ((mode & ORNIX_FPGA_BUSY) != 0) {
        DbgPrint(ORNIX_PREFIX "fpga still programming, failing\n");
        return STATUS_UNSUCCESSFUL;
    }
    return STATUS_SUCCESS;
}

// Program mode off, and the FPGA must then say it is configured.
static NTSTATUS OrnixFpgaFinish(PORNIX_DEVICE_CONTEXT Ext) {
    NTSTATUS status = OrnixRegWrite(Ext, ORNIX_FPGA_MODE, ORNIX_FPGA_MODE_LEAVE);
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX "fpga mode write fialed\n");
        return status;
    }
    ULONG mode;
    status = OrnixRegRead(Ext, ORNIX_FPGA_MODE, &mode);
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX "fpga mode regread failed\n");
        return status;
    }
    if ((mode & ORNIX_FPGA_CONFIGURED) == 0) {
        DbgPrint(ORNIX_PREFIX "Unexpected!: Fpga remained not programmed\n");
        return STATUS_UNSUCCESSFUL;
    }
    return STATUS_SUCCESS;
}

// IRQL: PASSIVE_LEVEL (register waits and delays). Both callers go on
// whatever this returns. Once program mode may have been entered it is
// always left again, and the alternate setting current on entry is restored.
NTSTATUS OrnixProgramFpga(PORNIX_DEVICE_CONTEXT Ext) {
    ASSERT(KeGetCurrentIrql() == PASSIVE_LEVEL);

    if (Ext->FpgaPipe == ORNIX_NO_PIPE) {
        DbgPrint(ORNIX_PREFIX "No FPGA pipe\n");
        return STATUS_SUCCESS;
    }
    if (Ext->DeviceDescriptor == NULL) {
        DbgPrint(ORNIX_PREFIX "No Device Descriptor\n");
        return STATUS_SUCCESS;
    }
    ULONG fpgaConfig = Ext->DeviceDescriptor->bcdDevice;
    if (fpgaConfig >= FpgaImageCount) {
        DbgPrint(ORNIX_PREFIX "No FPGA program, fpgaConfig is %d\n", fpgaConfig);
        return STATUS_SUCCESS;
    }

    ULONG mode;
    NTSTATUS status = OrnixRegRead(Ext, ORNIX_FPGA_MODE, &mode);
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX "fpga mode regread failed\n");
        return status;
    }
    if ((mode & ORNIX_FPGA_CONFIGURED) != 0) {
        DbgPrint(ORNIX_PREFIX "fpga is already programmed!!\n");
        return STATUS_SUCCESS;
    }

    ULONG saved = Ext->CurrentAltSetting;
    if (saved != Ext->FpgaAltSetting) {
        status = OrnixSelectAltSetting(Ext, Ext->FpgaAltSetting);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }

    status = OrnixFpgaDownload(Ext, &FpgaImageTable[fpgaConfig]);
    if (!NT_SUCCESS(status)) {
        OrnixRegWrite(Ext, ORNIX_FPGA_MODE, ORNIX_FPGA_MODE_LEAVE);
        OrnixFpgaRestoreSetting(Ext, saved);
        return status;
    }
    status = OrnixFpgaFinish(Ext);
    if (!NT_SUCCESS(status)) {
        OrnixFpgaRestoreSetting(Ext, saved);
        return status;
    }

    status = OrnixFpgaRestoreSetting(Ext, saved);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    // The version only changes with the image: read it once. A failed read
    // leaves it 0, to be tried again after the next download.
    if (Ext->FpgaVersion == 0) {
        ULONG version;
        status = OrnixRegRead(Ext, ORNIX_FPGA_VERSION, &version);
        if (NT_SUCCESS(status)) {
            Ext->FpgaVersion = version;
        }
        return status;
    }
    return STATUS_SUCCESS;
}
