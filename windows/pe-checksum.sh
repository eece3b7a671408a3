#!/usr/bin/env bash
# Computes the PE image checksum (the value MS link /RELEASE writes and the
# kernel loader verifies for drivers); GNU ld leaves the field zero.
#   pe-checksum.sh FILE          print the checksum the image should carry
#   pe-checksum.sh --write FILE  store it in the optional header
set -euo pipefail

write=0
if [[ ${1:-} == --write ]]; then write=1; shift; fi
file=${1:?usage: pe-checksum.sh [--write] FILE}

le32() { od -An -v -tu4 --endian=little -j "$1" -N 4 "$file" | tr -d ' '; }

[[ $(od -An -c -N 2 "$file" | tr -d ' ') == MZ ]] || { echo "$file: not an MZ/PE image" >&2; exit 1; }
pe=$(le32 60)
# The CheckSum field sits 64 bytes into the optional header, which follows
# the 4-byte signature and the 20-byte file header, for PE32 and PE32+ alike.
field=$((pe + 24 + 64))
size=$(stat -c %s "$file")

# Sum of all 16-bit words with end-around carry, skipping the field itself,
# plus the file length.
sum=$(od -An -v -tu2 --endian=little "$file" | awk -v skip=$((field / 2)) '
    { for (i = 1; i <= NF; i++) {
          if (n != skip && n != skip + 1) { s += $i; s = s % 65536 + int(s / 65536) }
          n++ } }
    END { printf "%d", s }')
printf -v checksum '%08x' $(((sum % 65536 + sum / 65536) % 65536 + size))

if ((write)); then
    # Little-endian bytes of the checksum, written in place.
    printf "\\x${checksum:6:2}\\x${checksum:4:2}\\x${checksum:2:2}\\x${checksum:0:2}" |
        dd of="$file" bs=1 seek="$field" conv=notrunc status=none
else
    echo "$checksum"
fi
