#!/usr/bin/env bash
# Sets up a fresh Debian machine, builds every variant (normal, ASan+UBSan,
# TSan, 32-bit host, the fuzz targets and the Windows cross-builds) and runs
# every test.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

failed=()
timings=()
step() {
    local name=$1
    shift
    echo "=== $name"
    local start=$SECONDS
    if ! "$@"; then
        failed+=("$name")
    fi
    timings+=("$(printf '%5d s  %s' $((SECONDS - start)) "$name")")
}

# Driver code must mean the same on LLP64 Windows as on this LP64 host.
step "driver types" scripts/check-driver-types.sh
# ... and be called the same way in both: every routine declared with its convention.
step "driver calling convention" scripts/check-driver-convention.sh

for preset in default asan tsan host32; do
    step "build $preset" bash -c "cmake --preset $preset >/dev/null && cmake --build --preset $preset"
    step "test $preset" ctest --preset "$preset"
done

if [[ -f fuzz/CMakeLists.txt ]]; then
    step "build fuzz" bash -c "cmake --preset fuzz >/dev/null && cmake --build --preset fuzz"
    # Thirty seconds for each target.
    step "run fuzz" scripts/run-fuzz.sh build/fuzz 30
fi

for preset in win-x64 win-x86; do
    step "build $preset" bash -c "cmake --preset $preset >/dev/null && cmake --build --preset $preset"
    step "test $preset" ctest --preset "$preset"
done

echo "=== time per step"
printf '%s\n' "${timings[@]}"

if ((${#failed[@]} > 0)); then
    # The end of the log is what a reader sees first: repeat which tests
    # failed and the last lines each of them printed.
    for name in "${failed[@]}"; do
        if [[ $name == test\ * ]]; then
            scripts/print-test-failures.sh "build/${name#test }"
        fi
    done
    echo "FAILED: ${failed[*]}"
    exit 1
fi
echo "All builds and tests passed."
