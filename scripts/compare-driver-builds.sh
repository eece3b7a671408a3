#!/usr/bin/env bash
# Runs ornixctl's formats, controls and info against every camera profile
# twice, once with the driver linked into ornixctl (the Linux build) and once
# with the Windows binary loaded in-process, and fails on any difference:
# the JSON answer and exit status, the driver's debugger output, and the USB
# traffic (the usbmon trace without time stamps and transfer ids). Both runs
# are the same driver source, so any difference is a fault of one build.
#
#   compare-driver-builds.sh --ornixctl build/default/tools/ornixctl/ornixctl \
#       --driver build/win-x64/windows/ornix.sys [--profiles DIR|FILE...] [--keep DIR]
#
# Without --profiles: camera/profiles/*.json and tests/profiles/*.json.
# --keep DIR keeps every run's files there (else a temporary directory).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

usage() {
    sed -n '2,13p' "$0" | sed 's/^# \{0,1\}//' >&2
    exit 2
}

ornixctl="" driver="" keep=""
sources=()
while (($# > 0)); do
    case $1 in
    --ornixctl) ornixctl=${2:?--ornixctl needs a path}; shift 2 ;;
    --driver) driver=${2:?--driver needs a path}; shift 2 ;;
    --keep) keep=${2:?--keep needs a directory}; shift 2 ;;
    --profiles)
        shift
        while (($# > 0)) && [[ $1 != --* ]]; do
            sources+=("$1")
            shift
        done
        ;;
    *) usage ;;
    esac
done
[[ -n $ornixctl && -n $driver ]] || usage
[[ -x $ornixctl ]] || { echo "compare: $ornixctl is not an executable" >&2; exit 2; }
[[ -f $driver ]] || { echo "compare: no driver binary $driver" >&2; exit 2; }
((${#sources[@]} > 0)) || sources=("$root/camera/profiles" "$root/tests/profiles")

profiles=()
for source in "${sources[@]}"; do
    if [[ -d $source ]]; then
        profiles+=("$source"/*.json)
    elif [[ -f $source ]]; then
        profiles+=("$source")
    else
        echo "compare: no profile or directory $source" >&2
        exit 2
    fi
done

if [[ -n $keep ]]; then
    work=$keep
    mkdir -p "$work"
else
    work=$(mktemp -d)
    trap 'rm -rf "$work"' EXIT
fi
commands=(formats controls info)

# One run: <dir>/answer (stdout, then the exit status), log and trace.pcap.
# Standard error is kept for the reader only: it names the driver binary in
# one build's messages.
run() {
    local dir=$1 profile=$2 command=$3
    shift 3
    mkdir -p "$dir"
    local status=0
    "$ornixctl" "$@" --camera "$profile" --json --log "$dir/log" --trace "$dir/trace.pcap" \
        "$command" >"$dir/answer" 2>"$dir/stderr" || status=$?
    echo "exit status $status" >>"$dir/answer"
}

# Each profile's runs go into a directory named after it (two profiles of
# the same name in different directories get a number).
names=()
for profile in "${profiles[@]}"; do
    name=$(basename "$profile" .json)
    while [[ " ${names[*]-} " == *" $name "* ]]; do
        name=$name-${#names[@]}
    done
    names+=("$name")
done

# The runs are independent: two at a time, the linked build beside the binary.
runs=()
for i in "${!profiles[@]}"; do
    profile=${profiles[i]} name=${names[i]}
    for command in "${commands[@]}"; do
        run "$work/$name/$command/linked" "$profile" "$command" &
        linked=$!
        run "$work/$name/$command/binary" "$profile" "$command" --driver "$driver" &
        wait "$linked" $!
        runs+=("$work/$name/$command/linked" "$work/$name/$command/binary")
    done
done
# Logs and traces into comparable text (log.txt, trace.txt beside them).
python3 "$root/scripts/normalise-driver-run.py" runs "${runs[@]}"

differences=0
for i in "${!profiles[@]}"; do
    profile=${profiles[i]} name=${names[i]}
    for command in "${commands[@]}"; do
        base=$work/$name/$command
        for part in answer log.txt trace.txt; do
            if ! diff -u --label "$name $command $part (linked driver)" \
                --label "$name $command $part ($driver)" \
                "$base/linked/$part" "$base/binary/$part" >"$base/$part.diff"; then
                echo "DIFFERENT: profile $profile, command $command, ${part%.txt}"
                head -n 60 "$base/$part.diff"
                if (($(wc -l <"$base/$part.diff") > 60)); then
                    echo "... (whole diff: $base/$part.diff with --keep)"
                fi
                if [[ -s $base/binary/stderr ]]; then
                    echo "--- standard error of the binary's run:"
                    head -n 20 "$base/binary/stderr"
                fi
                differences=$((differences + 1))
            fi
        done
    done
done

count=$((${#profiles[@]} * ${#commands[@]}))
if ((differences > 0)); then
    echo "compare: $differences difference(s) in $count runs of each build" \
        "(${#profiles[@]} profiles x ${commands[*]})"
    exit 1
fi
echo "compare: $(basename "$driver") and the linked driver agree in $count runs" \
    "(${#profiles[@]} profiles x ${commands[*]}: answer, exit status, log, USB trace)"
