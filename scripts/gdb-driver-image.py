"""gdb support for the driver binary (ornix.sys) that the platform hosts.

    gdb -x scripts/gdb-driver-image.py --args build/default/tools/ornixctl/ornixctl \\
        --driver build/win-x64/windows/ornix.sys info

What it does (docs/debugging.md tells more):

- The platform's loader calls ornix_driver_image_loaded(path, twinPath, base,
  preferredBase) after it maps an image. A breakpoint there adds the symbols
  and DWARF of the unstripped twin (ornix.unstripped.sys) shifted by
  base - preferredBase, and lets the program go on. Breakpoints on driver
  routines set before the load gain a location in the image when it arrives;
  `bt` then walks the driver's frames with their source lines.
- The platform emulates the privileged instructions the image runs (CR8 for
  the IRQL, gs:[0x188] for the running thread) by catching the SIGSEGV they
  raise. Those go to the program unseen; any other SIGSEGV stops at the
  faulting instruction (catchpoint on SIGSEGV, "!$_ornix_emulated()").
"""

import os
import struct

import gdb

LOAD_HOOK = "ornix_driver_image_loaded"

# Every image mapped so far, base -> size. The loader reports loads only, so
# an image stays here after it is unloaded; a later fault at that address
# would have to be an emulated instruction too to go unseen.
mapped_images = {}

# Twin path -> the offset its symbols were added at.
symbol_offsets = {}


def image_size(path):
    """SizeOfImage from the PE header: the extent of the mapped image."""
    with open(path, "rb") as file:
        header = file.read(4096)
    (nt_headers,) = struct.unpack_from("<I", header, 0x3C)
    # Signature (4) + file header (20) + SizeOfImage's place in the optional header (56).
    (size,) = struct.unpack_from("<I", header, nt_headers + 4 + 20 + 56)
    return size


def inferior_path(path):
    """The program resolves relative paths from its own working directory."""
    if os.path.isabs(path):
        return path
    try:
        cwd = os.readlink("/proc/%d/cwd" % gdb.selected_inferior().pid)
    except OSError:
        cwd = os.getcwd()
    return os.path.normpath(os.path.join(cwd, path))


def quoted(path):
    return '"' + path.replace("\\", "\\\\").replace('"', '\\"') + '"'


def load_twin_symbols(twin, offset):
    """Adds the twin's symbols at offset, replacing those of an earlier load."""
    if symbol_offsets.get(twin) == offset:
        return
    if twin in symbol_offsets:
        gdb.execute("remove-symbol-file " + quoted(twin), to_string=True)
        del symbol_offsets[twin]
    gdb.execute("add-symbol-file %s -o %#x" % (quoted(twin), offset), to_string=True)
    symbol_offsets[twin] = offset


def hook_arguments(frame):
    """(path, twinPath, base, preferredBase) of the hook's call."""
    names = ("path", "twinPath", "base", "preferredBase")
    try:
        values = [frame.read_var(name) for name in names]
    except (ValueError, gdb.error):
        # No debug information for the hook: its arguments are still in the
        # SysV argument registers, since its body keeps them there.
        values = [frame.read_register(register) for register in ("rdi", "rsi", "rdx", "rcx")]
    char_pointer = gdb.lookup_type("char").pointer()
    path, twin = (value.cast(char_pointer).string() for value in values[:2])
    base, preferred = (int(value.cast(gdb.lookup_type("unsigned long long")))
                       for value in values[2:])
    return path, twin, base, preferred


class ImageLoaded(gdb.Breakpoint):
    def __init__(self):
        super().__init__(LOAD_HOOK, internal=True)
        self.silent = True

    def stop(self):
        path, twin, base, preferred = hook_arguments(gdb.selected_frame())
        path, twin = inferior_path(path), inferior_path(twin)
        name = os.path.basename(path)
        try:
            mapped_images[base] = image_size(path)
        except (OSError, struct.error) as error:
            gdb.write("%s: cannot read its size (%s); faults in it will stop\n" % (name, error))
        if not os.path.exists(twin):
            gdb.write("%s mapped at %#x; no %s, so its frames have no symbols\n" %
                      (name, base, twin))
            return False
        offset = (base - preferred) % (1 << 64)
        try:
            load_twin_symbols(twin, offset)
        except gdb.error as error:
            gdb.write("%s mapped at %#x; cannot add %s: %s\n" % (name, base, twin, error))
            return False
        gdb.write("%s mapped at %#x: symbols from %s\n" % (name, base, os.path.basename(twin)))
        return False


def is_emulated_instruction(code):
    """Whether the platform's fault handler emulates this instruction
    (platform/loader/privileged_instructions.cpp): mov to or from CR8, and
    mov r64, gs:[0x188]. Any other instruction that faults stops in gdb."""
    at = 0
    gs = code[at] == 0x65
    if gs:
        at += 1
    rex = 0
    if code[at] & 0xF0 == 0x40:
        rex = code[at]
        at += 1
    if not gs and code[at] == 0x0F and code[at + 1] in (0x20, 0x22):
        modrm = code[at + 2]
        control_register = (8 if rex & 4 else 0) | ((modrm >> 3) & 7)
        return modrm >> 6 == 3 and control_register == 8
    if gs and rex & 8 and code[at] == 0x8B:
        modrm = code[at + 1]
        displacement = int.from_bytes(code[at + 3:at + 7], "little")
        return modrm & 0xC7 == 0x04 and code[at + 2] == 0x25 and displacement == 0x188
    return False


class EmulatedFault(gdb.Function):
    """$_ornix_emulated() is 1 when the thread faulted on an instruction of a
    driver image that the platform emulates, 0 otherwise."""

    def __init__(self):
        super().__init__("_ornix_emulated")

    def invoke(self):
        pc = int(gdb.parse_and_eval("$pc").cast(gdb.lookup_type("unsigned long long")))
        if not any(0 <= pc - base < size for base, size in mapped_images.items()):
            return 0
        try:
            code = bytes(gdb.selected_inferior().read_memory(pc, 9))
        except gdb.MemoryError:
            return 0
        return int(is_emulated_instruction(code))


def install():
    # Driver routines named before the image is loaded resolve when it is.
    gdb.execute("set breakpoint pending on")
    ImageLoaded()
    EmulatedFault()
    gdb.execute("handle SIGSEGV nostop noprint pass", to_string=True)
    gdb.execute("catch signal SIGSEGV", to_string=True)
    gdb.breakpoints()[-1].condition = "!$_ornix_emulated()"


install()
