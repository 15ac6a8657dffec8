#!/usr/bin/env bash
# Installs what a fresh Debian 12 machine lacks to build, test, fuzz,
# cross-build and benchmark markforge, and unpacks the armhf OpenSSL files
# that the 32-bit ARM build links against.
#
#   bash scripts/setup.sh                 packages, then the ARM sysroot (a
#                                         sysroot failure is reported, not fatal)
#   bash scripts/setup.sh --arm-sysroot   only the ARM sysroot; fails when it
#                                         cannot be had
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

PACKAGES=(
    build-essential cmake ninja-build git
    openssl libssl-dev
    googletest libgtest-dev libbenchmark-dev
    libcli11-dev nlohmann-json3-dev libp11-dev softhsm2 opensc scdoc pkg-config
    clang libfuzzer-14-dev libclang-rt-14-dev
    g++-arm-linux-gnueabihf qemu-user
    hyperfine time valgrind
)

export DEBIAN_FRONTEND=noninteractive
APT_UPDATED=0

apt_update() {
    if [ "$APT_UPDATED" -eq 0 ]; then
        note "apt-get update"
        as_root apt-get update -qq || return 1
        APT_UPDATED=1
    fi
}

is_installed() {
    dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'
}

install_packages() {
    local missing=()
    for package in "${PACKAGES[@]}"; do
        is_installed "$package" || missing+=("$package")
    done
    if [ "${#missing[@]}" -eq 0 ]; then
        note "all packages present"
        return 0
    fi
    note "installing: ${missing[*]}"
    # An update failure for a foreign architecture's lists must not stop the
    # native packages, which the next command would then report themselves.
    apt_update || note "apt-get update reported errors; trying the install anyway"
    as_root apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

sysroot_complete() {
    [ -f "$MARKFORGE_ARM_SYSROOT/usr/include/openssl/opensslv.h" ] &&
        [ -f "$MARKFORGE_ARM_SYSROOT/usr/include/arm-linux-gnueabihf/openssl/configuration.h" ] &&
        [ -e "$MARKFORGE_ARM_SYSROOT/usr/lib/arm-linux-gnueabihf/libcrypto.so" ] &&
        [ -f "$MARKFORGE_ARM_SYSROOT/usr/lib/arm-linux-gnueabihf/libcrypto.so.3" ]
}

# There is no armhf libssl to install beside the native one without
# multi-arch conflicts, so the two packages are only downloaded and unpacked
# into a folder of our own.
fetch_arm_sysroot() {
    if sysroot_complete; then
        note "ARM sysroot present: $MARKFORGE_ARM_SYSROOT"
        return 0
    fi
    if ! dpkg --print-foreign-architectures | grep -qx armhf; then
        note "dpkg --add-architecture armhf"
        as_root dpkg --add-architecture armhf || {
            echo "!!! could not add the armhf architecture to dpkg" >&2
            return 1
        }
    fi
    if ! apt-cache show libssl-dev:armhf >/dev/null 2>&1 || ! apt-cache show libssl3:armhf >/dev/null 2>&1; then
        APT_UPDATED=0
        apt_update || echo "!!! apt-get update failed with armhf enabled (mirrors out of step?)" >&2
        if ! apt-cache show libssl-dev:armhf >/dev/null 2>&1; then
            echo "!!! the armhf package lists do not offer libssl-dev:armhf" >&2
            return 1
        fi
    fi
    local download
    download="$(mktemp -d)"
    chmod 777 "$download"  # apt's download user must be able to write here
    note "apt-get download libssl-dev:armhf libssl3:armhf"
    if ! (cd "$download" && apt-get download -qq libssl-dev:armhf libssl3:armhf); then
        rm -rf "$download"
        echo "!!! apt-get download of the armhf OpenSSL packages failed" >&2
        return 1
    fi
    rm -rf "$MARKFORGE_ARM_SYSROOT"
    mkdir -p "$MARKFORGE_ARM_SYSROOT"
    for deb in "$download"/*.deb; do
        note "unpacking $(basename "$deb")"
        dpkg -x "$deb" "$MARKFORGE_ARM_SYSROOT"
    done
    rm -rf "$download"
    if ! sysroot_complete; then
        echo "!!! the unpacked armhf OpenSSL files are incomplete in $MARKFORGE_ARM_SYSROOT" >&2
        return 1
    fi
    note "ARM sysroot ready: $MARKFORGE_ARM_SYSROOT"
}

main() {
    if [ "${1:-}" = "--arm-sysroot" ]; then
        fetch_arm_sysroot || die "no armhf OpenSSL sysroot: the 32-bit ARM build cannot be made"
        return 0
    fi
    banner "setup: packages"
    install_packages
    banner "setup: armhf OpenSSL sysroot"
    if ! fetch_arm_sysroot; then
        echo "!!! WARNING: no armhf OpenSSL sysroot; the ARM build and test stage will fail." >&2
        echo "!!! Retry later with: bash scripts/setup.sh --arm-sysroot" >&2
    fi
}

main "$@"
