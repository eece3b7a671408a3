#!/usr/bin/env bash
# Runs every fuzz target of BUILD_DIR for a bounded time, starting from a
# scratch copy of its committed seed corpus (fuzz/corpus/<name>/), so the
# committed corpus is never changed. Exits non-zero when a target crashes,
# reports a sanitizer error or a verifier finding, or times out on an input.
#   scripts/run-fuzz.sh BUILD_DIR [SECONDS_PER_TARGET]
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:?usage: run-fuzz.sh BUILD_DIR [SECONDS_PER_TARGET]}
seconds=${2:-60}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

declare -A seeds=([bringup_fuzzer]=bringup [intersection_fuzzer]=intersection [property_fuzzer]=property)
failed=()
# The targets run side by side, each into a log of its own, printed in turn
# once it is done: the run takes one target's time.
declare -A running=()
for target in "${!seeds[@]}"; do
    binary=$(find "$build" -type f -name "$target" -perm -u+x | head -n 1)
    if [[ -z $binary ]]; then
        echo "run-fuzz: $target is not built in $build" >&2
        failed+=("$target")
        continue
    fi
    corpus="$work/${seeds[$target]}"
    mkdir -p "$corpus" "$work/$target-artifacts"
    cp fuzz/corpus/"${seeds[$target]}"/* "$corpus"/
    "$binary" "$corpus" -max_total_time="$seconds" -runs=200000 -timeout=10 -rss_limit_mb=2048 \
        -max_len=1024 -print_final_stats=1 -artifact_prefix="$work/$target-artifacts/" \
        >"$work/$target.log" 2>&1 &
    running[$target]=$!
done
for target in "${!running[@]}"; do
    status=0
    wait "${running[$target]}" || status=$?
    echo "=== $target (${seconds}s)"
    cat "$work/$target.log"
    if ((status != 0)); then
        failed+=("$target")
        for artifact in "$work/$target-artifacts"/*; do
            [[ -e $artifact ]] && cp "$artifact" "$build/" && echo "kept $build/$(basename "$artifact")"
        done
    fi
done

if ((${#failed[@]} > 0)); then
    echo "FUZZ FAILED: ${failed[*]}"
    exit 1
fi
echo "All fuzz targets ran clean."
