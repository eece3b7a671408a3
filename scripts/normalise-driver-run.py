#!/usr/bin/env python3
"""Turns what one ornixctl run left behind into text that two runs of the
same driver, built for Linux or for Windows, print identically.

    normalise-driver-run.py trace FILE.pcap   one line per usbmon packet
    normalise-driver-run.py log FILE          the driver's debugger output
    normalise-driver-run.py runs DIR...       each DIR's log and trace.pcap
                                              into log.txt and trace.txt

Only values that differ from run to run are taken out; everything the driver
decides stays in.
"""
import hashlib
import os
import re
import struct
import sys

LINKTYPE_USB_LINUX_MMAPPED = 220
USBMON_HEADER = struct.Struct("<QcBBBHccqiiIIQiiII")  # 64 bytes
TRANSFER_TYPES = {0: "iso", 1: "intr", 2: "ctrl", 3: "bulk"}
# Data up to this size is shown whole; longer data as its size, its first
# bytes and a digest, so that a diff stays readable.
SHOWN_DATA = 64


def trace_lines(path):
    """A trace that ends early or is not usbmon ends in a line that says so:
    a run that died while writing it still compares up to there."""
    with open(path, "rb") as f:
        blob = f.read()
    if len(blob) < 24:
        yield f"unreadable trace: not a pcap file (only {len(blob)} bytes)"
        return
    magic = blob[:4]
    if magic == b"\xd4\xc3\xb2\xa1":
        endian = "<"
    elif magic == b"\xa1\xb2\xc3\xd4":
        endian = ">"
    else:
        yield f"unreadable trace: not a pcap file (magic {magic.hex()})"
        return
    linktype = struct.unpack(endian + "I", blob[20:24])[0]
    if linktype != LINKTYPE_USB_LINUX_MMAPPED:
        yield f"unreadable trace: link type {linktype}, not usbmon ({LINKTYPE_USB_LINUX_MMAPPED})"
        return

    # The id pairs a submission with its completion; its value is the
    # stack's counter (or an address on Linux), so only the pairing is kept:
    # each id becomes the number of the submission that first used it.
    pair_numbers = {}
    offset = 24
    number = 0
    while offset < len(blob):
        if offset + 16 > len(blob):
            yield f"unreadable trace: cut off in a record header at byte {offset}"
            return
        # The record's time stamp (first 8 bytes) is left out.
        included, _original = struct.unpack(endian + "II", blob[offset + 8:offset + 16])
        if offset + 16 + included > len(blob):
            yield f"unreadable trace: packet {number} cut off"
            return
        packet = blob[offset + 16:offset + 16 + included]
        offset += 16 + included
        if len(packet) < USBMON_HEADER.size:
            yield f"unreadable trace: packet {number} is {len(packet)} bytes, shorter than a usbmon header"
            return
        (urb_id, kind, xfer, endpoint, device, bus, setup_flag, data_flag, _ts_sec, _ts_usec,
         status, urb_len, data_len, setup, interval, start_frame, xfer_flags,
         ndesc) = USBMON_HEADER.unpack_from(packet)
        pair = pair_numbers.setdefault(urb_id, len(pair_numbers))
        data = packet[USBMON_HEADER.size:]
        fields = [
            f"#{pair}",
            kind.decode("latin-1"),
            TRANSFER_TYPES.get(xfer, str(xfer)),
            f"ep=0x{endpoint:02x}",
            f"dev={device}",
            f"bus={bus}",
            f"status={status}",
            f"len={urb_len}",
            f"captured={data_len}",
        ]
        if setup_flag == b"\0":
            fields.append("setup=" + struct.pack("<Q", setup).hex())
        fields.append(f"flags={setup_flag.hex()}/{data_flag.hex()}")
        fields.append(f"interval={interval} start={start_frame} xfer=0x{xfer_flags:x} ndesc={ndesc}")
        if len(data) <= SHOWN_DATA:
            fields.append("data=" + data.hex())
        else:
            fields.append(f"data={data[:16].hex()}... ({len(data)} bytes, "
                          f"sha1 {hashlib.sha1(data).hexdigest()[:16]})")
        yield " ".join(fields)
        number += 1


# The debugger lines that carry an address (of the device extension, a
# device object, an SRB, a descriptor or a pipe handle, cut to 32 bits): where
# the pool put something differs from run to run. Each address becomes the
# number of the first such line that showed it, so that which ones are equal
# (the PDO and the real PDO) still shows. Anything else in the log is the
# driver's own decision and stays as printed.
ADDRESS_LINE = re.compile(
    r"^(ORNIX: (?:  pExt:|  PDO :|  CDO :|  RPDO:|\*\*OrnixCancelPacket\*\*, SRB:"
    r"|\*\*OrnixTimeoutPacket\*\*: |Handle |Device Descriptor = )(?:0x)?)([0-9a-fA-F]+)")


def log_lines(path):
    addresses = {}
    with open(path, "r", encoding="utf-8", errors="backslashreplace") as f:
        for line in f:
            line = line.rstrip("\n")
            match = ADDRESS_LINE.match(line)
            if match:
                label = addresses.setdefault(int(match.group(2), 16), len(addresses))
                line = f"{match.group(1)}<address {label}>{line[match.end():]}"
            yield line


def write_lines(lines, path):
    with open(path, "w", encoding="utf-8") as out:
        for line in lines:
            out.write(line + "\n")


def normalise_run(directory):
    """A missing or empty file (the run died before writing it) gives an empty text."""
    for source, kind, target in (("log", log_lines, "log.txt"),
                                 ("trace.pcap", trace_lines, "trace.txt")):
        path = os.path.join(directory, source)
        present = os.path.exists(path) and os.path.getsize(path) > 0
        write_lines(kind(path) if present else [], os.path.join(directory, target))


def main(argv):
    if len(argv) == 3 and argv[1] in ("trace", "log"):
        for line in (trace_lines if argv[1] == "trace" else log_lines)(argv[2]):
            sys.stdout.write(line + "\n")
        return 0
    if len(argv) >= 2 and argv[1] == "runs":
        # One process for every run: starting Python per file costs more
        # than the runs themselves.
        for directory in argv[2:]:
            normalise_run(directory)
        return 0
    sys.stderr.write(__doc__)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv))
