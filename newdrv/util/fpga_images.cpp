// The FPGA configuration images the driver carries, by device release number.
#include "ornix.h"

// The lengths are constants so that the table is plain read-only data with
// no initialisation code; the tests hold them to the embedded files.
const ORNIX_FPGA_IMAGE FpgaImageTable[] = {
    {OrnixFpgaImageRelease0, 97991},  // release 0 (0x17EC7 bytes)
};

const ULONG FpgaImageCount = ORNIX_ROW_COUNT(FpgaImageTable);
