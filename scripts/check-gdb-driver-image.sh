#!/usr/bin/env bash
# Checks scripts/gdb-driver-image.py on the built driver binary in one gdb
# session of `ornixctl --driver ornix.sys info`:
#   - a breakpoint on a driver routine set before the image is loaded stops
#     in the image, and `bt` shows the driver's source lines, then the
#     platform's frames (across the ms_abi call) down to main;
#   - the faults the platform emulates (CR8) go to the program unseen: the
#     second hit of the routine comes after the first one's register read;
#   - any other fault stops at the catchpoint with the driver's frames.
#
# Usage: scripts/check-gdb-driver-image.sh [ORNIXCTL [ORNIX_SYS]]
#   (default: build/default/tools/ornixctl/ornixctl build/win-x64/windows/ornix.sys)
# Exits 0 when every check holds, 1 with gdb's output when one fails, and 77
# when gdb or one of the builds is missing.
set -euo pipefail
cd "$(dirname "$0")/.."
ornixctl=${1:-build/default/tools/ornixctl/ornixctl}
sys=${2:-build/win-x64/windows/ornix.sys}

for needed in "$ornixctl" "$sys" "${sys%.sys}.unstripped.sys"; do
    if [[ ! -f $needed ]]; then
        echo "check-gdb-driver-image: skipped, $needed is not built"
        exit 77
    fi
done
if ! command -v gdb >/dev/null; then
    echo "check-gdb-driver-image: skipped, no gdb"
    exit 77
fi

# Breakpoint 1 is the script's SIGSEGV catchpoint, 2 the routine's. gdb's
# exit status is that of its last command; the checks below judge instead.
# shellcheck disable=SC2016  # $rcx is gdb's, not the shell's
output=$(gdb -nx -batch -x scripts/gdb-driver-image.py \
    -ex 'break OrnixRegRead' -ex run -ex bt \
    -ex continue \
    -ex 'set $rcx = 0x10' -ex 'delete 2' -ex continue -ex bt \
    --args "$ornixctl" --driver "$sys" info 2>&1) || true

failed=0
expect() {
    local pattern=$1 what=$2
    if ! grep -Eq -- "$pattern" <<<"$output"; then
        echo "check-gdb-driver-image: FAILED: $what"
        failed=1
    fi
}
expect '^ornix\.sys mapped at 0x[0-9a-f]+: symbols from ornix\.unstripped\.sys$' \
    "the twin's symbols are loaded where the image landed"
expect '^#0 +OrnixRegRead \(.*\) at .*newdrv/util/register\.cpp:[0-9]+$' \
    "the stop in the image has the routine's source line"
expect '^#[0-9]+ +0x[0-9a-f]+ in [A-Za-z]+ \(.*\) at .*newdrv/[a-z_/]+\.cpp:[0-9]+$' \
    "the driver's callers have source lines"
expect '^#[0-9]+ +0x[0-9a-f]+ in winsim::StreamClass' \
    "bt goes on from the driver into the platform"
expect '^#[0-9]+ +0x[0-9a-f]+ in main \(' "bt reaches main"
if [[ $(grep -Ec '^Thread .* hit Breakpoint 2\.[0-9]+, OrnixRegRead' <<<"$output") -ne 2 ]]; then
    echo "check-gdb-driver-image: FAILED: the routine's second call is reached without stopping on emulated faults"
    failed=1
fi
expect '^Thread .* hit Catchpoint 1 \(signal SIGSEGV\)' "a fault the platform does not emulate stops"
after_fault=$(sed -n '/hit Catchpoint 1/,$p' <<<"$output")
if ! grep -Eq '^#[0-9]+ .* at .*newdrv/[a-z_/]+\.cpp:[0-9]+$' <<<"$after_fault"; then
    echo "check-gdb-driver-image: FAILED: the fault's backtrace shows the driver's frames"
    failed=1
fi

if ((failed)); then
    echo "$output"
    exit 1
fi
echo "check-gdb-driver-image: all checks passed"
