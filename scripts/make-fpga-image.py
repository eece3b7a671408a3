#!/usr/bin/env python3
"""Writes the FPGA configuration image for device release 0.

The image is opaque to the driver and the simulated camera alike: the
driver sends it byte for byte and the camera checks it byte for byte. It was
generated once with this script (fixed seed) and committed; run it again
only to re-create the identical file.
"""
import random
import sys
from pathlib import Path

IMAGE_LENGTH = 97_991  # bytes of the release-0 image
SEED = 0x0A2F_0000


def main() -> int:
    out = Path(sys.argv[1]) if len(sys.argv) > 1 else Path(__file__).parent.parent / "data/fpga/ornix_fpga_r0.bin"
    rng = random.Random(SEED)
    image = bytes(rng.getrandbits(8) for _ in range(IMAGE_LENGTH))
    out.write_bytes(image)
    print(f"{out}: {len(image)} bytes")
    return 0


if __name__ == "__main__":
    sys.exit(main())
