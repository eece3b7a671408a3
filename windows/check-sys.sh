#!/usr/bin/env bash
# Checks that a linked ornix.sys is a kernel driver image Windows will load:
# native subsystem, right machine, an entry point in code, base relocations,
# a valid checksum, no TLS, no writable code, no static constructors (nothing
# would run them), and imports only from the kernel, the HAL and the
# stream-class/USB/KS drivers, all by plain name. Prints the imports.
#
# usage: check-sys.sh [--arch x64|x86] [--objdump OBJDUMP] [--map LINKER.map] ORNIX.SYS
set -uo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
arch= objdump= map=
while (($#)); do
    case $1 in
        --arch) arch=$2; shift 2 ;;
        --objdump) objdump=$2; shift 2 ;;
        --map) map=$2; shift 2 ;;
        -*) echo "check-sys: unknown option $1" >&2; exit 2 ;;
        *) break ;;
    esac
done
sys=${1:?usage: check-sys.sh [--arch x64|x86] [--objdump OBJDUMP] [--map MAP] ORNIX.SYS}
[[ -f $sys ]] || { echo "check-sys: $sys: no such file" >&2; exit 2; }

case $arch in
    x64) format=pei-x86-64 magic=020b ;;
    x86) format=pei-i386 magic=010b ;;
    '') format= magic= ;;
    *) echo "check-sys: --arch must be x64 or x86" >&2; exit 2 ;;
esac
if [[ -z $objdump ]]; then
    case $arch in x86) objdump=i686-w64-mingw32-objdump ;; *) objdump=x86_64-w64-mingw32-objdump ;; esac
fi

failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
ok() { echo "ok:   $*"; }

# An objdump for one machine reads only that machine's PE images.
headers= sections=
if ! headers=$("$objdump" -p "$sys" 2>&1) || ! sections=$("$objdump" -h "$sys" 2>&1); then
    echo "FAIL: file format is not one $objdump reads: $(grep -m1 . <<<"$headers$sections")"
    exit 1
fi
field() { awk -v k="$1" '$1 == k { print $2; exit }' <<<"$headers"; }
# Hex parsing that works in any awk (Debian's default, mawk, has no strtonum).
hexfn='function hex(s,  i, n) { s = tolower(s); sub(/^0x/, "", s); n = 0
    for (i = 1; i <= length(s); i++) n = n * 16 + index("0123456789abcdef", substr(s, i, 1)) - 1
    return n }'
# data_dir N: size of data directory entry N (hex digit) from objdump -p.
data_dir() { awk -v e="$1" "$hexfn"' $1 == "Entry" && $2 == e { print hex($4); exit }' <<<"$headers"; }

echo "== $sys"

# --- Machine and image kind ---------------------------------------------------
got_format=$(sed -n 's/.*file format \(.*\)$/\1/p' <<<"$headers" | head -1)
if [[ -n $format && $got_format != "$format" ]]; then
    fail "file format is '$got_format', expected $format for $arch"
elif [[ $got_format != pei-x86-64 && $got_format != pei-i386 ]]; then
    fail "file format is '$got_format', not a PE image for x64 or x86"
else
    ok "file format $got_format"
fi
got_magic=$(field Magic)
[[ -z $magic || $got_magic == "$magic" ]] && ok "optional header magic $got_magic" ||
    fail "optional header magic is $got_magic, expected $magic"
grep -q $'^\texecutable$' <<<"$headers" && ok "executable image" ||
    fail "image is not marked executable"
# The kernel loads a driver wherever there is room, so it must be relocatable.
if grep -q $'^\trelocations stripped$' <<<"$headers"; then
    fail "base relocations are stripped"
elif [[ $(data_dir 5) -eq 0 ]]; then
    fail "no base relocation table"
else
    ok "base relocations present"
fi

# --- Subsystem and DLL characteristics ------------------------------------------
subsystem=$(field Subsystem)
[[ $((16#${subsystem:-ff})) -eq 1 ]] && ok "subsystem native (1)" ||
    fail "subsystem is ${subsystem:-missing}, expected 00000001 (native)"
for flag in DYNAMIC_BASE NX_COMPAT WDM_DRIVER; do
    grep -q $'^\t*'"$flag"'$' <<<"$headers" && ok "DllCharacteristics $flag" ||
        fail "DllCharacteristics lacks $flag"
done

# --- Entry point inside an executable section -----------------------------------
entry=$(field AddressOfEntryPoint)
base=$(field ImageBase)
if [[ -z $entry || $((16#$entry)) -eq 0 ]]; then
    fail "no entry point (AddressOfEntryPoint is ${entry:-missing})"
else
    # objdump -h: "Idx Name Size VMA LMA Off Algn" then a line of flags.
    code=$(awk -v rva=$((16#$entry)) -v base="$base" "$hexfn"'
        $1 ~ /^[0-9]+$/ { name = $2; size = hex($3); vma = hex($4) - hex(base); next }
        name != "" && /CODE/ && rva >= vma && rva < vma + size { print name; exit }' <<<"$sections")
    [[ -n $code ]] && ok "entry point RVA 0x$entry in $code" ||
        fail "entry point RVA 0x$entry is not inside a code section"
fi

# --- Sections: no writable code, no thread-local storage -----------------------
writable_code=$(awk '$1 ~ /^[0-9]+$/ { name = $2; next } /CODE/ && !/READONLY/ { print name }' <<<"$sections")
[[ -z $writable_code ]] && ok "no writable code sections" ||
    fail "writable code section(s): $writable_code"
if [[ $(data_dir 9) -ne 0 ]]; then
    fail "image has a TLS directory; drivers cannot use thread-local storage"
else
    ok "no TLS directory"
fi

# --- Checksum -------------------------------------------------------------------
want=$(bash "$here/pe-checksum.sh" "$sys")
have=$(field CheckSum)
[[ $((16#${have:-0})) -ne 0 && $((16#${have:-0})) -eq $((16#$want)) ]] && ok "checksum 0x$want" ||
    fail "checksum is 0x${have:-missing}, the image sums to 0x$want"

# --- Static constructors (from the linker map) ----------------------------------
if [[ -n $map ]]; then
    # Input sections .ctors[.N] with a non-zero size; ld may wrap a long
    # section name onto its own line.
    ctors=$(awk "$hexfn"'
        /^ \.ctors(\.[0-9]+)?$/ { pending = 1; next }
        pending { pending = 0; if (hex($2) > 0) print $3; next }
        /^ \.ctors(\.[0-9]+)? +0x/ { if (hex($3) > 0) print $4 }' "$map" | sort -u)
    [[ -z $ctors ]] && ok "no static constructors" ||
        fail "static constructors, which nothing runs in a driver, in: $(paste -sd' ' <<<"$ctors")"
fi

# --- Imports --------------------------------------------------------------------
# One "DLL<TAB>function" line per import; "<ordinal>" for imports without a name.
imports=$(awk '
    /^\tDLL Name: / { dll = $3; next }
    dll != "" && /^\tvma:/ { next }
    dll != "" && /^\t[0-9a-f]+\t/ { name = $3; if (name == "" || name == "<none>") name = "<ordinal " $2 ">"; print dll "\t" name; next }
    dll != "" && /^$/ { dll = "" }' <<<"$headers")
if [[ -z $imports ]]; then
    fail "no imports found; the import table is missing or unreadable"
fi
allowed=" ntoskrnl.exe hal.dll stream.sys usbd.sys ks.sys "
bad_dlls=$(cut -f1 <<<"$imports" | sort -u | while read -r dll; do
    [[ -n $dll && $allowed != *" ${dll,,} "* ]] && echo "$dll"; done)
[[ -z $bad_dlls ]] && ok "imports only from:${allowed% }" ||
    fail "imports from a DLL a driver cannot use: $(paste -sd' ' <<<"$bad_dlls")"
# A decorated name (x86 stdcall "Name@N") or an ordinal resolves against no
# export of these drivers: the load would fail.
unresolvable=$(awk -F'\t' '$2 ~ /@|^<ordinal/ { print $1 "!" $2 }' <<<"$imports")
[[ -z $unresolvable ]] && ok "every import is by plain name" ||
    fail "unresolvable import(s): $(paste -sd' ' <<<"$unresolvable")"

echo "-- imports of $(basename "$sys"):"
awk -F'\t' '$1 != dll { dll = $1; print "  " dll } { print "    " $2 }' <<<"$imports"

if ((failures)); then
    echo "check-sys: $failures check(s) failed for $sys"
    exit 1
fi
echo "check-sys: all checks passed for $sys"
