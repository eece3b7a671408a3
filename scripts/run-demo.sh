#!/usr/bin/env bash
# Sets up a fresh Debian machine, builds the host tools and runs ornixctl on
# the built-in simulated camera: what it is, then a few frames captured to
# PNG files in ornix-frames/ (extra arguments go to the capture).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh --run
cmake --preset default >/dev/null
cmake --build --preset default --target ornixctl
build/default/tools/ornixctl/ornixctl info
build/default/tools/ornixctl/ornixctl capture --count 5 --out ornix-frames "$@"
echo "The frames are in $(pwd)/ornix-frames (frame_0000.png ...)."
