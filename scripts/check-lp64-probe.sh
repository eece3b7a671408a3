#!/usr/bin/env bash
# Shows that comparing the two builds of the driver catches a fault that
# lives only in the Windows binary. Builds ornix.sys with the deliberate
# LP64 probe (preset win-x64-lp64-probe: the high-speed transfer cap scaled by
# sizeof(long) / 8, right on the Linux host and half of it on Windows), then
# expects compare-driver-builds.sh on the default camera to pass against the
# normal binary and to fail against the probe, on exactly the probed value:
# the video pipes' maximum transfer size in `info`.
#
#   check-lp64-probe.sh --ornixctl build/default/tools/ornixctl/ornixctl \
#       --driver build/win-x64/windows/ornix.sys
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

ornixctl="" driver=""
while (($# > 0)); do
    case $1 in
    --ornixctl) ornixctl=${2:?}; shift 2 ;;
    --driver) driver=${2:?}; shift 2 ;;
    *) sed -n '2,11p' "$0" | sed 's/^# \{0,1\}//' >&2; exit 2 ;;
    esac
done
[[ -n $ornixctl && -n $driver ]] || { sed -n '2,11p' "$0" | sed 's/^# \{0,1\}//' >&2; exit 2; }

probe=build/win-x64-lp64-probe/windows/ornix.sys
echo "lp64 probe: building $probe"
cmake --preset win-x64-lp64-probe >/dev/null
cmake --build --preset win-x64-lp64-probe >/dev/null

profile=camera/profiles/default.json
compare() {
    scripts/compare-driver-builds.sh --ornixctl "$ornixctl" --driver "$1" --profiles "$profile"
}

if ! compare "$driver" >/dev/null; then
    echo "lp64 probe: FAILED: the normal binary $driver already differs from the linked driver"
    exit 1
fi

status=0
output=$(compare "$probe") || status=$?
if ((status != 1)); then
    echo "$output"
    echo "lp64 probe: FAILED: the comparison passed (status $status) against the probe binary"
    exit 1
fi
# Exactly one difference: info's answer, where the two video pipes carry the
# cap (2 MiB) in the linked driver and half of it in the probe binary.
expected_header="DIFFERENT: profile $profile, command info, answer"
differences=$(grep -c '^DIFFERENT:' <<<"$output" || true)
changed=$(grep -E '^[-+] ' <<<"$output" | sed -E 's/^([-+]) +/\1/; s/,$//' | sort)
# In topology.pipes and topology.openPipes, capture and still each.
expected_changes=$(for _ in 1 2 3 4; do
    echo '-"maximumTransferSize": 2097152'
    echo '+"maximumTransferSize": 1048576'
done | sort)
if [[ $differences != 1 ]] || ! grep -qxF "$expected_header" <<<"$output" ||
    [[ $changed != "$expected_changes" ]]; then
    echo "$output"
    echo "lp64 probe: FAILED: expected one difference, the video pipes' maximumTransferSize" \
        "in info (2097152 in the linked driver, 1048576 in the probe binary)"
    exit 1
fi
echo "lp64 probe: the comparison found the probe and only it:"
grep -E '^(DIFFERENT|[-+] )' <<<"$output" | sed 's/^/    /'
