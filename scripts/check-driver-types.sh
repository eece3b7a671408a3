#!/usr/bin/env bash
# Fails when driver code uses a type whose width differs between Windows
# (LLP64: long is 32 bits) and the Linux host build (LP64: long is 64 bits):
# the keyword `long` (also in `long long`, `unsigned long`, `long double`) and
# integer literals with an L suffix (1L, 0x1000UL, 5lu, 2.0L). Use ULONG,
# LONG, LONGLONG, ULONGLONG or casts; LL and ULL literals are 64-bit on both
# and allowed. Comments and string and character literals are ignored, and
# so are the lines of `#ifdef ORNIX_LP64_PROBE` blocks: the probe that proves
# the comparison of the two builds catches exactly this kind of fault
# (docs/driver-binary.md), compiled only into a test build of ornix.sys.
#
# Usage: scripts/check-driver-types.sh [FILE_OR_DIRECTORY...]  (default: newdrv)
# Prints file:line: text for every finding; exits 1 when there is one.
set -euo pipefail
cd "$(dirname "$0")/.."
if (($# == 0)); then
    set -- newdrv
fi

exec python3 - "$@" <<'PYTHON'
import os
import re
import sys

SOURCE_SUFFIXES = (".c", ".cc", ".cpp", ".cxx", ".h", ".hh", ".hpp", ".inc")


def strip(text):
    """Blanks comments and string/character literals, keeping line breaks."""
    out = []
    i, n = 0, len(text)
    while i < n:
        c = text[i]
        if text.startswith("//", i):
            end = text.find("\n", i)
            end = n if end < 0 else end
            out.append(" " * (end - i))
            i = end
        elif text.startswith("/*", i):
            end = text.find("*/", i + 2)
            end = n if end < 0 else end + 2
            out.append(re.sub(r"[^\n]", " ", text[i:end]))
            i = end
        elif c in "\"'":
            # A quote inside a number (1'000) is a digit separator.
            run = re.search(r"[\w']*$", text[max(0, i - 64) : i]).group(0)
            if c == "'" and run[:1].isdigit() and i + 1 < n and text[i + 1].isalnum():
                out.append(c)
                i += 1
                continue
            j = i + 1
            while j < n and text[j] != c and text[j] != "\n":
                j += 2 if text[j] == "\\" else 1
            j = min(j + 1, n)
            out.append(c + re.sub(r"[^\n]", " ", text[i + 1 : j - 1]) + c)
            i = j
        else:
            out.append(c)
            i += 1
    return "".join(out)


KEYWORD = re.compile(r"\blong\b")
# A pp-number: digits (or a hex/binary prefix), fraction, exponent, then letters.
NUMBER = re.compile(
    r"(?<![\w.])(?:0[xX][0-9a-fA-F']*(?:\.[0-9a-fA-F']*)?(?:[pP][+-]?\d+)?"
    r"|0[bB][01']+|(?:\d[\d']*\.?[\d']*|\.\d[\d']*)(?:[eE][+-]?\d+)?)([A-Za-z_]\w*)"
)
ALLOWED_SUFFIXES = {"u", "ll", "ull", "llu", "f", "z", "uz", "zu"}


CONDITIONAL_START = re.compile(r"^\s*#\s*if")
CONDITIONAL_ELSE = re.compile(r"^\s*#\s*(else|elif)\b")
CONDITIONAL_END = re.compile(r"^\s*#\s*endif\b")
PROBE_START = re.compile(r"^\s*#\s*ifdef\s+ORNIX_LP64_PROBE\b")


def probe_lines(code):
    """Line numbers inside the first branch of an #ifdef ORNIX_LP64_PROBE."""
    inside = set()
    depth = 0  # conditionals open
    probe = None  # depth of the probe's #ifdef while in its first branch
    for number, line in enumerate(code, 1):
        if PROBE_START.match(line) and probe is None:
            depth += 1
            probe = depth
        elif CONDITIONAL_START.match(line):
            depth += 1
        elif CONDITIONAL_ELSE.match(line) and depth == probe:
            probe = None
        elif CONDITIONAL_END.match(line):
            if depth == probe:
                probe = None
            depth -= 1
        elif probe is not None:
            inside.add(number)
    return inside


def findings(path):
    with open(path, encoding="utf-8", errors="replace") as f:
        original = f.read().split("\n")
        f.seek(0)
        code = strip(f.read()).split("\n")
    skipped = probe_lines(code)
    for number, line in enumerate(code, 1):
        if number in skipped:
            continue
        why = []
        if KEYWORD.search(line):
            why.append("`long`")
        for match in NUMBER.finditer(line):
            suffix = match.group(1)
            lowered = suffix.lower()
            if "l" in lowered and lowered not in ALLOWED_SUFFIXES:
                why.append("literal suffix `%s` in %s" % (suffix, match.group(0)))
        if why:
            yield number, ", ".join(why), original[number - 1].strip()


def sources(paths):
    for path in paths:
        if os.path.isdir(path):
            for root, dirs, files in os.walk(path):
                dirs.sort()
                for name in sorted(files):
                    if name.endswith(SOURCE_SUFFIXES):
                        yield os.path.join(root, name)
        else:
            yield path


count = 0
for path in sources(sys.argv[1:]):
    for number, why, text in findings(path):
        print("%s:%d: %s (use ULONG, LONG, LONGLONG or a cast): %s" % (path, number, why, text))
        count += 1
if count:
    print("check-driver-types: %d finding(s)" % count, file=sys.stderr)
    sys.exit(1)
PYTHON
