# shellcheck shell=bash
# SPDX-License-Identifier: MIT
# What the other scripts share: packages, builds, terminal. Sourced by them after `set -euo pipefail`.
#
# Packages are those of Debian 12. Only missing ones are installed, so a second run needs no network.

kRoot=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

kBuildPackages=(
    g++ cmake ninja-build pkg-config
    libssl-dev liblmdb-dev libxxhash-dev zlib1g-dev libpcap-dev libcli11-dev libfmt-dev nlohmann-json3-dev
    libgtest-dev libgmock-dev libbenchmark-dev openssl systemd logrotate
)
kTestPackages=(groff-base mandoc bash-completion zsh fish tshark python3 python3-pip python3-setuptools python3-wheel)
kPackagePackages=(dpkg-dev file lintian)
kCheckPackages=(clang-format-14 clang-tidy-14)
kSourceFolders=(include src host bindings examples tools tests bench fuzz)

if [[ -t 1 ]]; then
    kGood=$'\e[32m✓\e[0m' kBad=$'\e[31m✗\e[0m' kBold=$'\e[1m' kDim=$'\e[2m' kPlain=$'\e[0m'
else
    kGood='✓' kBad='✗' kBold='' kDim='' kPlain=''
fi

die() {
    printf '%s %s\n' "$kBad" "$*" >&2
    exit 1
}

# install_packages PACKAGE...: installs those that are missing.
install_packages() {
    local package missing=() as_root=()
    for package in "$@"; do
        if [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) != installed ]]; then
            missing+=("$package")
        fi
    done
    ((${#missing[@]})) || return 0
    if ((EUID != 0)); then
        command -v sudo >/dev/null ||
            die "packages are missing and there is no sudo: run as root 'apt-get install ${missing[*]}'"
        as_root=(sudo)
    fi
    printf 'Installing %s\n' "${missing[*]}"
    run_quietly "$kRoot/build/packages.log" "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        bash -c 'apt-get -q update && apt-get -q install -y --no-install-recommends "$@"' install "${missing[@]}" ||
        die "the packages could not be installed: see build/packages.log"
}

# run_quietly LOG COMMAND...: output into the log; its end is shown when the command fails.
run_quietly() {
    local log=$1
    shift
    mkdir -p "$(dirname "$log")"
    "$@" >"$log" 2>&1 </dev/null && return 0
    tail -n 40 "$log" >&2
    return 1
}

# build PRESET [TARGET...]: configures and builds into build/PRESET.
build() {
    local preset=$1 log=$kRoot/build/$1.log
    shift
    printf 'Building (%s)\n' "$preset"
    (
        cd "$kRoot"
        run_quietly "$log" cmake --preset "$preset" || exit 1
        run_quietly "$log" cmake --build --preset "$preset" ${1:+--target "$@"}
    ) || die "the build failed: see $log"
}
