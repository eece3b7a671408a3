#!/usr/bin/env bash
# Tests the x64 driver binary (ornix.sys, loaded in-process by the platform)
# against the same tests and answers as the Linux build:
#   - every driver test, run by driver_tests_image (the bring-up fault sweep
#     included);
#   - a short stress run, by stress_tests_image;
#   - compare-driver-builds.sh: every camera profile's formats, controls and
#     info, from both builds, must agree;
#   - check-lp64-probe.sh: that comparison must catch a fault that lives only
#     in the binary.
#
#   run-image-tests.sh [--host-build build/default] [--driver build/win-x64/windows/ornix.sys]
#
# Runs every part, prints the time each took and exits 1 if any failed.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root" || exit 2

host=build/default
driver=build/win-x64/windows/ornix.sys
while (($# > 0)); do
    case $1 in
    --host-build) host=${2:?}; shift 2 ;;
    --driver) driver=${2:?}; shift 2 ;;
    *) sed -n '12,14p' "$0" | sed 's/^# \{0,1\}//' >&2; exit 2 ;;
    esac
done
for file in "$driver" "$(dirname "$driver")/ornix.unstripped.sys" \
    "$host/tools/ornixctl/ornixctl" "$host/tests/driver/driver_tests_image" \
    "$host/tests/stress/stress_tests_image"; do
    if [[ ! -e $file ]]; then
        echo "run-image-tests: $file is missing (build presets default and win-x64 first)" >&2
        exit 2
    fi
done
export ORNIX_DRIVER=$root/$driver
[[ $driver == /* ]] && ORNIX_DRIVER=$driver

failed=()
timings=()
part() {
    local name=$1
    shift
    echo "--- $name"
    local start=$SECONDS
    if ! "$@"; then
        failed+=("$name")
        echo "--- $name: FAILED"
    fi
    timings+=("$(printf '%5d s  %s' $((SECONDS - start)) "$name")")
}

# A gtest binary under a time bound: its whole output goes to a log beside
# the binary, and what failed is printed; for a crash or a hang, also the
# test that was running. KILL, because a hung driver thread may keep the
# process from acting on anything gentler.
gtest() {
    local bound=$1 binary=$2
    local log=$binary.log status=0
    timeout -s KILL "$bound" "$binary" >"$log" 2>&1 || status=$?
    grep -E '^\[  (PASSED|FAILED) |^\[stress\]' "$log" | tail -n 40
    if ((status > 1)); then
        echo "$(basename "$binary"): exit status $status, in the middle of:"
        awk '/^\[ RUN/ { running = $NF } /^\[ +(OK|FAILED) +\]/ { running = "" }
             END { print "    " (running == "" ? "(no test)" : running) }' "$log"
        tail -n 15 "$log"
    fi
    echo "(whole output: $log)"
    return "$status"
}

# The linked driver_tests take a few seconds: the bound only keeps a hang
# in the binary from holding up the whole test command.
part "driver tests" gtest 60 "$host/tests/driver/driver_tests_image"
# Rounds start for 10 s; the watchdog ends a round that makes no progress.
export ORNIX_STRESS_SECONDS=10 ORNIX_STRESS_WATCHDOG_SECONDS=30
part "stress" gtest 120 "$host/tests/stress/stress_tests_image"
ornixctl=$host/tools/ornixctl/ornixctl
part "compare builds" scripts/compare-driver-builds.sh --ornixctl "$ornixctl" --driver "$driver"
part "lp64 probe" scripts/check-lp64-probe.sh --ornixctl "$ornixctl" --driver "$driver"

printf '%s\n' "${timings[@]}"
if ((${#failed[@]} > 0)); then
    echo "run-image-tests: FAILED: ${failed[*]}"
    exit 1
fi
echo "run-image-tests: the x64 binary passed every test"
