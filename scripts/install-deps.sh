#!/usr/bin/env bash
# Installs the Debian packages the project needs, only those missing.
#   install-deps.sh          everything (tests, sanitizers, 32-bit host, fuzzing, Windows cross-build)
#   install-deps.sh --run    just what building and running ornixctl needs
set -euo pipefail

run_packages=(cmake ninja-build g++ nlohmann-json3-dev libcli11-dev libpng-dev libedit-dev libgtest-dev libgmock-dev)
all_packages=("${run_packages[@]}" googletest g++-multilib libbenchmark-dev clang libclang-rt-14-dev clang-format
              tshark g++-mingw-w64-x86-64 g++-mingw-w64-i686 binutils-mingw-w64-x86-64
              binutils-mingw-w64-i686 mingw-w64-x86-64-dev mingw-w64-i686-dev python3)

packages=("${all_packages[@]}")
if [[ "${1:-}" == "--run" ]]; then
    packages=("${run_packages[@]}")
fi

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
if ((${#missing[@]} == 0)); then
    exit 0
fi

echo "Installing: ${missing[*]}"
sudo_cmd=()
if [[ $(id -u) -ne 0 ]]; then
    sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
