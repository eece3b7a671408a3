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
    step_failed=false
    if ! "$@"; then
        failed+=("$name")
        step_failed=true
    fi
    timings+=("$(printf '%5d s  %s' $((SECONDS - start)) "$name")")
}

# Driver code must mean the same on LLP64 Windows as on this LP64 host.
step "driver types" scripts/check-driver-types.sh
# ... and be called the same way in both: every routine declared with its convention.
step "driver calling convention" scripts/check-driver-convention.sh

# Host builds with line tables only (see CMakeLists.txt): the same code, built faster.
host_options=-DORNIX_LINE_TABLES_ONLY=ON
for preset in default asan tsan host32; do
    step "build $preset" bash -c \
        "cmake --preset $preset $host_options >/dev/null && cmake --build --preset $preset"
    step "test $preset" ctest --preset "$preset"
done

if [[ -f fuzz/CMakeLists.txt ]]; then
    step "build fuzz" bash -c "cmake --preset fuzz $host_options >/dev/null && cmake --build --preset fuzz"
    # Fifteen seconds, the three targets side by side.
    step "run fuzz" scripts/run-fuzz.sh build/fuzz 15
fi

image_tests_log=build/win-x64/image-tests.log
for preset in win-x64 win-x86; do
    step "build $preset" bash -c "cmake --preset $preset >/dev/null && cmake --build --preset $preset"
    build_failed=$step_failed
    step "test $preset" ctest --preset "$preset"
    # The x64 binary, loaded in-process, against the host build's tests and
    # answers (docs/driver-binary.md).
    if [[ $preset == win-x64 && $build_failed == false && -d build/default ]]; then
        step "test x64 binary" bash -c \
            "scripts/run-image-tests.sh 2>&1 | tee $image_tests_log; exit \${PIPESTATUS[0]}"
    fi
done

echo "=== time per step"
printf '%s\n' "${timings[@]}"

if ((${#failed[@]} > 0)); then
    # The end of the log is what a reader sees first: repeat which tests
    # failed and the last lines each of them printed.
    for name in "${failed[@]}"; do
        if [[ $name == "test x64 binary" ]]; then
            echo "=== failed in the x64 binary's tests (whole log: $image_tests_log)"
            grep -E '^(--- |\[  FAILED|run-image-tests:|DIFFERENT:|lp64 probe:)|exit status|^    \w+[./]' \
                "$image_tests_log" | tail -n 40
        elif [[ $name == test\ * ]]; then
            scripts/print-test-failures.sh "build/${name#test }"
        fi
    done
    echo "FAILED: ${failed[*]}"
    exit 1
fi
echo "All builds and tests passed."
