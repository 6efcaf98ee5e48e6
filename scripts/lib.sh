# shellcheck shell=bash
# What the scripts share. To be sourced; sets the shell's strict mode and goes to the project's folder.

set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly ROOT
cd "$ROOT"

# The same messages and the same sorting wherever we run; every Debian has this locale.
export LC_ALL=C.UTF-8

# Precompiled headers are cached by what they contain.
export CCACHE_SLOPPINESS=pch_defines,time_macros

if [[ -t 2 && -z ${NO_COLOR:-} ]]; then
    BOLD=$'\e[1m' RED=$'\e[31m' GREEN=$'\e[32m' PLAIN=$'\e[0m'
else
    BOLD='' RED='' GREEN='' PLAIN=''
fi
readonly BOLD RED GREEN PLAIN

# Headings and messages go to standard error: standard output is for results.
say() { printf '%s==>%s %s\n' "$BOLD" "$PLAIN" "$*" >&2; }
good() { printf '%s==>%s %s\n' "$GREEN" "$PLAIN" "$*" >&2; }
bad() { printf '%s==>%s %s\n' "$RED" "$PLAIN" "$*" >&2; }
die() {
    printf '%s: %s%s%s\n' "$(basename "$0")" "$RED" "$*" "$PLAIN" >&2
    exit 1
}
usageError() {
    printf '%s: %s\nTry --help.\n' "$(basename "$0")" "$*" >&2
    exit 2
}

# The comment at the head of the calling script is its help text.
showHelp() { sed -n '2,/^[^#]/{/^#/!q; s/^# \{0,1\}//; p}' "$0"; }

processors() { nproc; }

# packagesOf GROUP...: the names of those groups, from the one list.
packagesOf() {
    awk -v groups=" $* " '!/^#/ && NF == 2 && index(groups, " " $1 " ") { print $2 }' scripts/packages | sort -u
}

asRoot() {
    if [[ $(id -u) -eq 0 ]]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        die "this needs root: run it as root, or install sudo"
    fi
}

# installPackages GROUP...: installs what is missing of those groups. Asks apt nothing when nothing is missing.
installPackages() {
    local wanted missing log
    mapfile -t wanted < <(packagesOf "$@")
    if ! command -v apt-get >/dev/null; then
        bad "No apt-get here. Make sure that the equivalents of these are installed: ${wanted[*]}"
        return
    fi
    mapfile -t missing < <(comm -13 \
        <(dpkg-query -W -f='${db:Status-Status} ${Package}\n' "${wanted[@]}" 2>/dev/null |
            awk '$1 == "installed" { print $2 }' | sort -u) \
        <(printf '%s\n' "${wanted[@]}"))
    if [[ ${#missing[@]} -eq 0 ]]; then
        return
    fi
    say "Installing ${#missing[@]} packages: ${missing[*]}"
    log=$(mktemp)
    if ! { asRoot apt-get -q -o DPkg::Lock::Timeout=300 update &&
        asRoot env DEBIAN_FRONTEND=noninteractive apt-get -q -y -o DPkg::Lock::Timeout=300 \
            install --no-install-recommends "${missing[@]}"; } >"$log" 2>&1 </dev/null; then
        cat "$log" >&2
        rm -f "$log"
        die "the packages could not be installed"
    fi
    rm -f "$log"
}
