#!/usr/bin/env bash
# Checks ornix.inf against the simulated camera's default profile: the model
# sections for x86 and amd64 must list exactly the profile's USB vendor and
# product id, and every section the INF refers to must exist, so Setup would
# match the camera and find every install step.
#
# usage: check-inf.sh ORNIX.INF PROFILE.json
set -uo pipefail

inf=${1:?usage: check-inf.sh ORNIX.INF PROFILE.json}
profile=${2:?usage: check-inf.sh ORNIX.INF PROFILE.json}
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
ok() { echo "ok:   $*"; }

# --- The profile's ids ("0x1B0F" or 6927; the first occurrence is the device's)
json_id() {
    local raw
    raw=$(grep -o "\"$1\"[[:space:]]*:[[:space:]]*[^,}]*" "$profile" | head -1 | sed 's/.*:[[:space:]]*//; s/"//g; s/[[:space:]]//g')
    [[ $raw =~ ^(0[xX][0-9a-fA-F]+|[0-9]+)$ ]] || { echo "check-inf: no usable $1 in $profile (got '$raw')" >&2; exit 2; }
    printf '%04X' $((raw))
}
vid=$(json_id idVendor)
pid=$(json_id idProduct)
want="USB\\VID_${vid}&PID_${pid}"
echo "== $inf against $profile ($want)"

# --- The INF as "section<TAB>line", comments and blank lines dropped ---------
body=$(sed 's/\r$//' "$inf" | awk '
    { sub(/[[:space:]]*;.*$/, ""); sub(/^[[:space:]]+/, "") }
    /^[[:space:]]*$/ { next }
    /^[[:space:]]*\[/ { s = $0; gsub(/^[[:space:]]*\[|\][[:space:]]*$/, "", s); section = tolower(s); print section "\t"; next }
    { print section "\t" $0 }')
has_section() { grep -q "^${1,,}"$'\t' <<<"$body"; }
lines_of() { awk -F'\t' -v s="${1,,}" '$1 == s && $2 != "" { print $2 }' <<<"$body"; }
# value_of SECTION KEY: right-hand side of "KEY = value", trimmed.
value_of() { lines_of "$1" | awk -F= -v k="$2" '
    { key = $1; gsub(/[[:space:]]/, "", key) }
    tolower(key) == tolower(k) { v = substr($0, index($0, "=") + 1); gsub(/^[[:space:]]+|[[:space:]]+$/, "", v); print v; exit }'; }

[[ $(value_of Version Class) == Image ]] && ok "Class = Image" || fail "[Version] Class is not Image"
[[ $(value_of Version ClassGuid) == "{6bdd1fc6-810f-11d0-bec7-08002be2092f}" ]] &&
    ok "ClassGuid of the Image class" || fail "[Version] ClassGuid is not the Image class's"

# --- Model sections and hardware ids --------------------------------------------
# "%Ornix% = Ornix, NTx86, NTamd64" names the sections Ornix.NTx86 and Ornix.NTamd64.
manufacturer=$(lines_of Manufacturer | head -1 | sed 's/^[^=]*=[[:space:]]*//; s/[[:space:]]//g')
models=${manufacturer%%,*}
decorations=,${manufacturer#*,},
installs=
for decoration in NTx86 NTamd64; do
    if [[ ${decorations,,} != *",${decoration,,},"* ]]; then
        fail "[Manufacturer] has no $decoration decoration"
        continue
    fi
    section=$models.$decoration
    entries=$(lines_of "$section")
    if [[ -z $entries ]]; then
        fail "model section [$section] is missing or empty"
        continue
    fi
    while IFS= read -r entry; do
        # "%Desc% = InstallSection, HardwareId[, CompatibleId...]"
        install=$(sed 's/^[^=]*=[[:space:]]*//; s/[[:space:]]*,.*//' <<<"$entry")
        hwid=$(cut -d, -f2 <<<"$entry" | tr -d '[:space:]')
        installs+=" $install"
        [[ ${hwid^^} == "${want^^}" ]] && ok "[$section] hardware id $hwid" ||
            fail "[$section] hardware id '$hwid' is not the profile's $want"
    done <<<"$entries"
done

# --- Every referenced section exists --------------------------------------------
refs=
for install in $(tr ' ' '\n' <<<"$installs" | sort -u); do
    refs+=" $install $install.Services"
    refs+=" $(value_of "$install" CopyFiles | tr ',' ' ') $(value_of "$install" AddReg | tr ',' ' ')"
    # AddInterface = {guid}, reference, InterfaceInstallSection (which has its own AddReg)
    for interface in $(lines_of "$install.Interfaces" | grep -i '^AddInterface' | cut -d, -f3); do
        refs+=" $interface $(value_of "$interface" AddReg | tr ',' ' ')"
    done
    # AddService = name, flags, ServiceInstallSection
    refs+=" $(lines_of "$install.Services" | grep -i '^AddService' | cut -d, -f3)"
done
missing=
for ref in $(tr ' ' '\n' <<<"$refs" | sed '/^$/d' | sort -u); do
    has_section "$ref" || missing+=" [$ref]"
done
[[ -z $missing ]] && ok "every referenced section exists" || fail "missing section(s):$missing"

# --- The service loads ornix.sys as a kernel driver --------------------------
for install in $(tr ' ' '\n' <<<"$installs" | sort -u); do
    service=$(lines_of "$install.Services" | grep -i '^AddService' | head -1 | cut -d, -f3 | tr -d '[:space:]')
    [[ -n $service ]] || continue
    [[ $(value_of "$service" ServiceType) == 1 ]] && ok "[$service] ServiceType 1 (kernel driver)" ||
        fail "[$service] ServiceType is not 1"
    [[ $(value_of "$service" ServiceBinary) == '%12%\ornix.sys' ]] && ok "[$service] ServiceBinary %12%\\ornix.sys" ||
        fail "[$service] ServiceBinary is not %12%\\ornix.sys"
done

if ((failures)); then
    echo "check-inf: $failures check(s) failed"
    exit 1
fi
echo "check-inf: all checks passed"
