#!/usr/bin/env bash
# Sets up a fresh Debian machine, builds the host tools and runs ornixctl on
# the built-in simulated camera.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh --run
cmake --preset default >/dev/null
cmake --build --preset default --target ornixctl
build/default/tools/ornixctl/ornixctl info "$@"
