# shellcheck shell=bash
# Shared by the scripts beside it; sourced, never run. Leaves the shell in the project's folder.

cd "$(dirname "${BASH_SOURCE[0]}")/.."

# Web servers live where an ordinary user does not look.
PATH="$PATH:/usr/sbin:/sbin"

say() { printf '== %s\n' "$*"; }

die() {
    printf '%s: %s\n' "$0" "$*" >&2
    exit 1
}

# Runs a command and shows what it printed only when it fails.
quietly() {
    local output status=0
    output=$("$@" 2>&1 </dev/null) || status=$?
    ((status == 0)) || printf '%s\n' "$output" >&2
    return "$status"
}

# build PRESET [TARGET...]
# Configures and builds one preset: all of it, or these targets.
build() {
    say "building '$1' in build/$1"
    quietly cmake --preset "$1" || die "cannot configure '$1'"
    cmake --build --preset "$1" -- --quiet "${@:2}" || die "cannot build '$1'"
}

# install_packages PACKAGE...
# Installs what is missing of these Debian packages. Asks nothing, and starts no service, now or at the next boot.
install_packages() {
    local package missing=() asRoot=()
    command -v dpkg-query >/dev/null ||
        die "this is no Debian system; install the counterparts of: $*; then use --no-install"
    for package; do
        [[ $(dpkg-query -W -f '${Status}' "$package" 2>/dev/null) == 'install ok installed' ]] ||
            missing+=("$package")
    done
    ((${#missing[@]} > 0)) || return 0

    say "installing ${missing[*]}"
    ((EUID == 0)) || asRoot=(sudo -n)
    quietly "${asRoot[@]}" bash -c "$(declare -f install_as_root); install_as_root \"\$@\"" install "${missing[@]}" ||
        die "cannot install ${missing[*]}; install them yourself, then use --no-install"
}

# A package's own scripts ask policy-rc.d whether they may start its service. One that says no stands there meanwhile.
install_as_root() {
    set -euo pipefail
    policy=/usr/sbin/policy-rc.d
    [[ ! -e $policy || -e $policy.velarto ]] || mv "$policy" "$policy.velarto"
    trap 'rm -f "$policy"; [[ ! -e $policy.velarto ]] || mv "$policy.velarto" "$policy"' EXIT
    printf '#!/bin/sh\nexit 101\n' >"$policy"
    chmod 755 "$policy"

    export DEBIAN_FRONTEND=noninteractive
    apt-get -q -o DPkg::Lock::Timeout=300 update
    apt-get -q -y -o DPkg::Lock::Timeout=300 install --no-install-recommends "$@"
    for package; do
        [[ ! -e /etc/init.d/$package ]] || update-rc.d "$package" disable
    done
}
