#!/usr/bin/env bash
# Prints the tests that failed in a build directory's last ctest run and the
# last lines of each one's output, from ctest's own logs.
set -uo pipefail
dir=$1
lines=${2:-40}
failed_list="$dir/Testing/Temporary/LastTestsFailed.log"
log="$dir/Testing/Temporary/LastTest.log"
[[ -f $failed_list ]] || exit 0
echo "=== failed in $dir"
while IFS=: read -r _ name; do
    echo "--- $name"
    # A test's block runs from its "Test: NAME" line to the "Test Failed"
    # (or "Test Passed") line that ends it.
    awk -v name="$name" '
        $0 ~ /^[0-9]+\/[0-9]+ Test: / { current = ($3 == name) }
        current { print }
        current && /^Test (Failed|Passed)/ { current = 0 }
    ' "$log" | tail -n "$lines"
done <"$failed_list"
