#!/usr/bin/env bash
# Proves that check-sys.sh catches the faults it is there for: it damages
# copies of a good ornix.sys one way at a time (re-sealing the checksum so
# only the intended check can trip) and expects exactly that check to fail.
# With --inf and --profile it does the same for check-inf.sh.
#
# usage: check-selftest.sh --arch x64|x86 [--objdump OBJDUMP]
#                          [--inf ORNIX.INF --profile PROFILE.json] ORNIX.SYS
set -uo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
arch= objdump_args=() inf= profile=
while (($#)); do
    case $1 in
        --arch) arch=$2; shift 2 ;;
        --objdump) objdump_args=(--objdump "$2"); shift 2 ;;
        --inf) inf=$2; shift 2 ;;
        --profile) profile=$2; shift 2 ;;
        *) break ;;
    esac
done
good=${1:?usage: check-selftest.sh --arch x64|x86 [--objdump OBJDUMP] ORNIX.SYS}
[[ $arch == x64 || $arch == x86 ]] || { echo "check-selftest: --arch x64|x86 required" >&2; exit 2; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

passed=0 failed=0

# --- Little-endian field access by file offset --------------------------------
rd() { od -An -v -tu"$2" --endian=little -j "$1" -N "$2" "$img" | tr -d ' '; }
wr() { # wr OFFSET BYTES VALUE
    local hex i out=
    printf -v hex "%0$(($2 * 2))x" "$3"
    for ((i = $2 * 2 - 2; i >= 0; i -= 2)); do out+="\\x${hex:i:2}"; done
    printf "$out" | dd of="$img" bs=1 seek="$1" conv=notrunc status=none
}
reseal() { bash "$here/pe-checksum.sh" --write "$img"; }
offset_of() { # byte offset of the first NUL-terminated string (an import name)
    LC_ALL=C grep -obUaP -- "$1\\x00" "$img" | head -1 | cut -d: -f1
}

img=$good
pe=$(rd 60 4)
opt=$((pe + 24))
first_section=$((opt + $(rd $((pe + 20)) 2)))

# expect NAME PATTERN [check-sys options]: check-sys must fail on $img, and
# every FAIL line must match PATTERN (so no other check tripped).
expect() {
    local name=$1 pattern=$2 out fails
    shift 2
    out=$(bash "$here/check-sys.sh" --arch "$arch" "${objdump_args[@]}" "$@" "$img" 2>&1)
    local rc=$?
    fails=$(grep '^FAIL:' <<<"$out")
    if ((rc != 0)) && [[ -n $fails ]] && ! grep -qv -- "$pattern" <<<"$fails"; then
        echo "ok:   $name -> $(sed 's/^FAIL: //' <<<"$fails" | paste -sd';')"
        passed=$((passed + 1))
    else
        echo "FAIL: $name: expected only failures matching '$pattern' (exit $rc), got:"
        sed 's/^/      /' <<<"${fails:-<no failures>}"
        failed=$((failed + 1))
    fi
}
# fresh NAME: a new copy of the good image to damage.
fresh() { img=$work/$1.sys; cp "$good" "$img"; }

# The untouched image passes.
out=$(bash "$here/check-sys.sh" --arch "$arch" "${objdump_args[@]}" "$good" 2>&1)
if (($? == 0)); then
    echo "ok:   good image passes"; passed=$((passed + 1))
else
    echo "FAIL: good image does not pass:"; grep '^FAIL' <<<"$out"; failed=$((failed + 1))
fi

fresh subsystem; wr $((opt + 68)) 2 2; reseal
expect "Windows GUI subsystem" "subsystem is 00000002"

fresh wrongarch
if [[ $arch == x64 ]]; then other=x86; else other=x64; fi
arch=$other expect "checked as the other machine" "file format is\|optional header magic"

fresh relocs; wr $((pe + 22)) 2 $(($(rd $((pe + 22)) 2) | 1)); reseal
expect "relocations stripped" "relocations are stripped"

fresh noentry; wr $((opt + 16)) 4 0; reseal
expect "no entry point" "no entry point"

fresh nx; wr $((opt + 70)) 2 $(($(rd $((opt + 70)) 2) & ~0x100)); reseal
expect "not NX compatible" "lacks NX_COMPAT"

fresh wx; wr $((first_section + 36)) 4 $(($(rd $((first_section + 36)) 4) | 0x80000000)); reseal
expect "writable code" "writable code section"

fresh checksum; wr $((opt + 64)) 4 $(($(rd $((opt + 64)) 4) ^ 0x10))
expect "stale checksum" "checksum is"

fresh foreign_dll; at=$(offset_of 'stream\.sys'); wr "$at" 4 $((0x72657375)); reseal # "user"
expect "import from another DLL" "cannot use: useram.sys"

fresh decorated; at=$(offset_of StreamClassRegisterAdapter); wr $((at + 25)) 1 $((0x40)); reseal # '@'
expect "decorated import name" "StreamClassRegisterAdapte@"

fresh ctors
printf ' *(.ctors)\n .ctors         0x0000000000001498        0x8 static_object.cpp.obj\n' >"$work/ctors.map"
expect "static constructor" "static_object.cpp.obj" --map "$work/ctors.map"

# --- check-inf.sh ---------------------------------------------------------------
# expect_inf NAME PATTERN INF PROFILE: check-inf must fail, every FAIL matching.
expect_inf() {
    local out rc fails
    out=$(bash "$here/check-inf.sh" "$3" "$4" 2>&1); rc=$?
    fails=$(grep '^FAIL:' <<<"$out")
    if ((rc != 0)) && [[ -n $fails ]] && ! grep -qv -- "$2" <<<"$fails"; then
        echo "ok:   $1 -> $(sed 's/^FAIL: //' <<<"$fails" | paste -sd';')"; passed=$((passed + 1))
    else
        echo "FAIL: $1: expected only failures matching '$2' (exit $rc), got:"
        sed 's/^/      /' <<<"${fails:-<no failures>}"; failed=$((failed + 1))
    fi
}
if [[ -n $inf && -n $profile ]]; then
    if bash "$here/check-inf.sh" "$inf" "$profile" >/dev/null 2>&1; then
        echo "ok:   INF matches the profile"; passed=$((passed + 1))
    else
        echo "FAIL: INF does not pass against the profile"; failed=$((failed + 1))
    fi
    # The same ids written as integers still match.
    vid=$(grep -o '"idVendor"[^,}]*' "$profile" | head -1 | grep -o '0x[0-9A-Fa-f]*')
    pid=$(grep -o '"idProduct"[^,}]*' "$profile" | head -1 | grep -o '0x[0-9A-Fa-f]*')
    sed "s/\"$vid\"/$((vid))/; s/\"$pid\"/$((pid))/" "$profile" >"$work/int.json"
    if bash "$here/check-inf.sh" "$inf" "$work/int.json" >/dev/null 2>&1; then
        echo "ok:   integer ids in the profile"; passed=$((passed + 1))
    else
        echo "FAIL: integer ids $((vid))/$((pid)) in the profile do not match"; failed=$((failed + 1))
    fi
    sed "s/\"$pid\"/\"0x$(printf '%04X' $((pid + 1)))\"/" "$profile" >"$work/other.json"
    expect_inf "another product id" "is not the profile's" "$inf" "$work/other.json"
    sed 's/^\[Ornix.Service\]/[Ornix.Srvice]/' "$inf" >"$work/nosvc.inf"
    expect_inf "missing service section" "Ornix.Service" "$work/nosvc.inf" "$profile"
    sed 's/^\(%Ornix% *= *Ornix, *NTx86\), *NTamd64/\1/' "$inf" >"$work/nox64.inf"
    expect_inf "no amd64 models" "no NTamd64 decoration" "$work/nox64.inf" "$profile"
fi

echo "$passed passed, $failed failed"
((failed == 0))
