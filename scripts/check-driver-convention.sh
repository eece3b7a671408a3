#!/usr/bin/env bash
# Fails when a driver routine is declared without a calling convention. On
# 64-bit Linux the driver's routines use the Windows x64 convention, as they do
# in ornix.sys, so that a test calls either build's routines the same way.
# Every function declared at file scope (in headers and sources) or defined in
# a header needs ORNIXAPI, NTAPI or STREAMAPI before its name, unless it is
# inline or static; every function type, and every pointer to a function,
# needs one too (inside the parentheses for a pointer):
#     NTSTATUS ORNIXAPI OrnixRegRead(...);
#     typedef VOID(ORNIXAPI* PORNIX_RESET_CALLBACK)(...);
# A definition in a source takes the convention of its declaration, and the
# driver is built with -Wmissing-declarations, so every external definition has
# a declaration this script has seen. Comments, string literals and
# preprocessor lines are ignored; structure members are checked; bodies of
# functions and enums and initialisers are skipped.
#
# Usage: scripts/check-driver-convention.sh [FILE_OR_DIRECTORY...]  (default: newdrv)
# Prints file:line: name for every finding; exits 1 when there is one.
set -euo pipefail
cd "$(dirname "$0")/.."
if (($# == 0)); then
    set -- newdrv
fi

exec python3 - "$@" <<'PYTHON'
import os
import re
import sys

HEADER_SUFFIXES = (".h", ".hh", ".hpp", ".inc")
SOURCE_SUFFIXES = (".c", ".cc", ".cpp", ".cxx")
CONVENTION = re.compile(r"\b(?:ORNIXAPI|NTAPI|STREAMAPI)\b")
EXEMPT = re.compile(r"\b(?:inline|static|constexpr)\b")
NOT_A_NAME = {"__attribute__", "alignas", "decltype", "operator", "static_assert"}


def blank(match):
    return re.sub(r"[^\n]", " ", match.group(0))


def strip(text):
    """Blanks comments, string contents and preprocessor lines, keeping line breaks."""
    text = re.sub(r"//[^\n]*|/\*.*?\*/", blank, text, flags=re.S)
    text = re.sub(
        r'"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'',
        lambda m: m.group(0)[0] + " " * (len(m.group(0)) - 2) + m.group(0)[-1],
        text,
    )
    return re.sub(r"^[ \t]*#(?:[^\n]*\\\n)*[^\n]*", blank, text, flags=re.M)


# Bodies whose contents are declarations in their own right.
TRANSPARENT = re.compile(
    r'(?:\bextern\s*"[^"]*"|\bnamespace\b[\w\s:]*|\b(?:struct|union|class)\b[^=(){};]*)$'
)


def statements(code):
    """Yields (offset, text, is_definition) of each declaration with the bodies
    of functions, enums and initialisers removed; structures and linkage
    blocks are entered."""
    stack, parts, segment, start = [], [], 0, None
    i = 0
    while i < len(code):
        c = code[i]
        if stack and stack[-1] == "opaque":
            if c == "{":
                stack.append("opaque")
            elif c == "}":
                stack.pop()
                if not stack or stack[-1] != "opaque":
                    segment = i + 1
                    # A function body ends its declaration; `} X;` and `};` do not.
                    ends_function = re.search(r"\)[\w\s]*$", parts[-1])
                    if ends_function and not re.match(r"\s*[;,]", code[segment:]):
                        yield start, " ".join(parts), True
                        parts, start = [], None
        elif c == "{":
            head = "".join(parts) + code[segment:i]
            if TRANSPARENT.search(head.strip()):
                stack.append("transparent")
                parts, start = [], None
            else:
                parts.append(code[segment:i])
                stack.append("opaque")
            segment = i + 1
        elif c == "}":
            stack.pop()
            parts, start, segment = [], None, i + 1
        elif c == ";":
            parts.append(code[segment:i])
            if start is not None:
                yield start, " ".join(parts), False
            parts, start, segment = [], None, i + 1
        elif start is None and not c.isspace():
            start = i
        i += 1


def findings(path):
    with open(path, encoding="utf-8", errors="replace") as f:
        code = strip(f.read())
    header = path.endswith(HEADER_SUFFIXES)
    for start, text, is_definition in statements(code):
        if is_definition and not header:
            continue  # a source's definitions take the convention of their declaration
        line = code.count("\n", 0, start) + 1
        head = re.sub(r"__attribute__\s*\(\(.*?\)\)", " ", text)
        first = top_level_paren(head)
        if first is None:
            continue  # no parentheses: data, a forward declaration or a type
        before = head[:first]
        declarator = head[first : matching(head, first) + 1]
        typedef = re.match(r"\s*typedef\b", before)
        if "=" in before:
            continue  # a variable with an initialiser
        name = re.search(r"(\w+)\s*$", before)
        if "*" in declarator and re.match(r"\)\s*\(", head[matching(head, first) :]):
            # A pointer to a function: the convention goes inside the declarator.
            if not CONVENTION.search(declarator):
                yield line, re.findall(r"\w+", declarator)[-1]
        elif name and name.group(1) not in NOT_A_NAME:
            # A function or function type: the convention goes before its name.
            if not CONVENTION.search(before) and (typedef or not EXEMPT.search(before)):
                yield line, name.group(1)


def top_level_paren(text):
    """Index of the first '(' outside brackets, or None."""
    depth = 0
    for i, c in enumerate(text):
        if c == "[":
            depth += 1
        elif c == "]":
            depth -= 1
        elif c == "(" and depth == 0:
            return i
    return None


def matching(text, open_index):
    depth = 0
    for i in range(open_index, len(text)):
        depth += {"(": 1, ")": -1}.get(text[i], 0)
        if depth == 0:
            return i
    return len(text) - 1


def sources(paths):
    for path in paths:
        if os.path.isdir(path):
            for root, dirs, files in os.walk(path):
                dirs.sort()
                for name in sorted(files):
                    if name.endswith(HEADER_SUFFIXES + SOURCE_SUFFIXES):
                        yield os.path.join(root, name)
        else:
            yield path


count = 0
for path in sources(sys.argv[1:]):
    for line, name in findings(path):
        print("%s:%d: %s has no ORNIXAPI, NTAPI or STREAMAPI" % (path, line, name))
        count += 1
if count:
    print("check-driver-convention: %d finding(s)" % count, file=sys.stderr)
    sys.exit(1)
PYTHON
