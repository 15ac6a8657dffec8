#!/usr/bin/env bash
# Installs what a fresh Debian 12 machine lacks for one or more purposes, and
# for the 32-bit ARM build unpacks the armhf OpenSSL and libp11 files it links
# against (and the SoftHSM2 module its tests load).
#
#   bash scripts/setup.sh [PURPOSE...]    default: test
#
#   demo      compiler, CMake, Ninja, OpenSSL, and the CLI11, nlohmann-json
#             and libp11 headers: what scripts/demo.sh (and any build) needs
#   native    demo + GoogleTest, Google Benchmark, scdoc, man-db, python3,
#             bash-completion and SoftHSM2: the native and sanitize stages
#   sanitize  the same as native
#   fuzz      clang and libFuzzer
#   arm       the ARM cross compiler, qemu-user, GoogleTest's sources and the
#             armhf sysroot (OpenSSL, libp11, SoftHSM2)
#   package   dpkg-dev, lintian, file: building and checking the .deb files
#   bench     Google Benchmark, hyperfine, GNU time, valgrind
#   test      every test stage: native sanitize fuzz arm package
#   --arm-sysroot   only the armhf sysroot
#
# The machine's apt set-up is left as it was: the armhf packages are fetched
# through a private apt configuration and state folder under .cache/, never
# by adding armhf to dpkg's architectures. A step that fails says so and
# stops the script.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# What each purpose installs, beyond what the ones it builds on install.
# Every configuration of the tree needs these: the compiler, CMake, OpenSSL,
# and the headers of CLI11, nlohmann-json, libp11 and p11-kit (the programs'
# own).
DEMO_PACKAGES=(build-essential cmake ninja-build openssl libssl-dev pkg-config libcli11-dev nlohmann-json3-dev
    libp11-dev libp11-kit-dev jq xxd)
NATIVE_PACKAGES=(
    "${DEMO_PACKAGES[@]}"
    googletest libgtest-dev libbenchmark-dev
    scdoc man-db python3 bash-completion softhsm2 opensc
    # A token shared through p11-kit's server and client module, the link
    # forwarded by socat between network namespaces made with ip.
    p11-kit p11-kit-modules socat iproute2
)
FUZZ_PACKAGES=("${DEMO_PACKAGES[@]}" clang libfuzzer-14-dev libclang-rt-14-dev)
ARM_PACKAGES=("${DEMO_PACKAGES[@]}" googletest g++-arm-linux-gnueabihf qemu-user)
PACKAGE_PACKAGES=("${NATIVE_PACKAGES[@]}" dpkg-dev lintian file systemd)
BENCH_PACKAGES=("${DEMO_PACKAGES[@]}" libbenchmark-dev hyperfine time valgrind softhsm2 opensc p11-kit p11-kit-modules
    socat)

# The private apt folder for the armhf download: its own package lists,
# cache and (empty) dpkg status, with armhf as its only architecture.
ARM_APT="$MARKFORGE_ROOT/.cache/apt-armhf"
ARM_DEBS=(libssl-dev libssl3)
# The agent's libp11 and p11-kit (with the libffi p11-kit loads) and, for
# its tests under qemu, the SoftHSM2 module: taken at the armhf lists' own
# versions.
ARM_AGENT_DEBS=(libp11-dev libp11-3 libp11-kit-dev libp11-kit0 libffi8 libsofthsm2)

export DEBIAN_FRONTEND=noninteractive
APT_UPDATED=0

apt_update() {
    [ "$APT_UPDATED" -eq 0 ] || return 0
    note "apt-get update"
    if ! as_root apt-get update -qq; then
        if dpkg --print-foreign-architectures | grep -qx armhf; then
            note "armhf is one of dpkg's architectures (an earlier set-up added it); when no armhf"
            note "package is installed, 'dpkg --remove-architecture armhf' undoes that"
        fi
        die "apt-get update failed"
    fi
    APT_UPDATED=1
}

is_installed() {
    dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'
}

# Installs the packages named that are not installed yet.
install_packages() {
    local missing=() package
    for package in "$@"; do
        is_installed "$package" || missing+=("$package")
    done
    if [ "${#missing[@]}" -eq 0 ]; then
        note "all packages present"
        return 0
    fi
    note "installing: ${missing[*]}"
    apt_update
    # apt's own summary (how many packages, how much to download and how
    # much disk) is shown; the per-package lines go to a log shown only on
    # a failure.
    local log
    log="$(mktemp)"
    if ! as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}" \
        >"$log" 2>&1; then
        tail -n 30 "$log" >&2
        rm -f "$log"
        die "apt-get install ${missing[*]} failed"
    fi
    grep -E '^[0-9]+ upgraded, |^Need to get |^After this operation' "$log" | sed 's/^/  apt: /' || true
    rm -f "$log"
}

sysroot_complete() {
    [ -f "$MARKFORGE_ARM_SYSROOT/usr/include/openssl/opensslv.h" ] &&
        [ -f "$MARKFORGE_ARM_SYSROOT/usr/include/arm-linux-gnueabihf/openssl/configuration.h" ] &&
        [ -e "$MARKFORGE_ARM_SYSROOT/usr/lib/arm-linux-gnueabihf/libcrypto.so" ] &&
        [ -f "$MARKFORGE_ARM_SYSROOT/usr/lib/arm-linux-gnueabihf/libcrypto.so.3" ] &&
        [ -f "$MARKFORGE_ARM_SYSROOT/usr/lib/arm-linux-gnueabihf/pkgconfig/libp11.pc" ] &&
        [ -f "$MARKFORGE_ARM_SYSROOT/usr/lib/arm-linux-gnueabihf/pkgconfig/p11-kit-1.pc" ] &&
        [ -f "$MARKFORGE_ARM_SYSROOT/usr/lib/softhsm/libsofthsm2.so" ]
}

# apt-get and apt-cache on the private armhf state; the machine's sources
# and keys are read, nothing of the machine's is written.
arm_apt() {
    local tool="$1"
    shift
    "$tool" -q -o Dir::State="$ARM_APT/state" -o Dir::State::status="$ARM_APT/state/status" \
        -o Dir::Cache="$ARM_APT/cache" -o APT::Architecture=armhf -o APT::Architectures=armhf \
        -o Debug::NoLocking=true -o APT::Sandbox::User=root "$@"
}

# Fetches the armhf package lists. A mirror whose armhf index is out of step
# with its Release file fails one list (often the security archive's) while
# the others arrive; the download then goes on with those, and says so.
update_arm_lists() {
    note "apt-get update (armhf lists, private to $ARM_APT)"
    if arm_apt apt-get update -qq >"$ARM_APT/update.log" 2>&1; then
        return 0
    fi
    local url
    for url in $(sed -n 's/.*Failed to fetch \([^ ]*\).*/\1/p' "$ARM_APT/update.log"); do
        note "not fetched (mirror out of step?): $url"
    done
}

# The version of the armhf packages to fetch: the native libssl-dev's when
# the armhf lists offer it, else their candidate (said so).
arm_openssl_version() {
    local native offered
    native="$(dpkg-query -W -f='${Version}' libssl-dev 2>/dev/null || true)"
    if [ -n "$native" ] && arm_apt apt-cache madison libssl-dev | awk '{print $3}' | grep -qxF "$native"; then
        echo "$native"
        return 0
    fi
    offered="$(arm_apt apt-cache policy libssl-dev | sed -n 's/^ *Candidate: //p')"
    [ -n "$offered" ] && [ "$offered" != "(none)" ] || return 1
    note "the armhf lists do not offer OpenSSL ${native:-?} (the native one); using $offered" >&2
    echo "$offered"
}

# The Debian version of the OpenSSL packages unpacked in the sysroot.
SYSROOT_STAMP_NAME=".debian-version"

sysroot_version() {
    cat "$MARKFORGE_ARM_SYSROOT/$SYSROOT_STAMP_NAME" 2>/dev/null || true
}

# The armhf libssl cannot be installed beside the native one without
# multi-arch, so the two packages are only downloaded and unpacked into a
# folder of our own.
fetch_arm_sysroot() {
    local native
    native="$(dpkg-query -W -f='${Version}' libssl-dev 2>/dev/null || true)"
    if sysroot_complete && [ -n "$native" ] && [ "$(sysroot_version)" = "$native" ]; then
        note "ARM sysroot present: $MARKFORGE_ARM_SYSROOT (OpenSSL $native, as the native one)"
        return 0
    fi
    mkdir -p "$ARM_APT/state/lists/partial" "$ARM_APT/cache/archives/partial" "$ARM_APT/download"
    : >"$ARM_APT/state/status"
    update_arm_lists
    local version
    version="$(arm_openssl_version)" || {
        sed 's/^/    /' "$ARM_APT/update.log" >&2
        die "the armhf package lists offer no libssl-dev"
    }
    if sysroot_complete && [ "$(sysroot_version)" = "$version" ]; then
        note "ARM sysroot present: $MARKFORGE_ARM_SYSROOT (OpenSSL $version)"
        return 0
    fi
    rm -f "$ARM_APT/download"/*.deb
    note "apt-get download ${ARM_DEBS[*]} (armhf, $version) ${ARM_AGENT_DEBS[*]} (armhf)"
    (cd "$ARM_APT/download" && arm_apt apt-get download -qq "${ARM_DEBS[@]/%/=$version}" "${ARM_AGENT_DEBS[@]}") ||
        die "apt-get download of the armhf OpenSSL, libp11 and SoftHSM2 packages failed"
    rm -rf "$MARKFORGE_ARM_SYSROOT"
    mkdir -p "$MARKFORGE_ARM_SYSROOT"
    local deb
    for deb in "$ARM_APT/download"/*.deb; do
        note "unpacking $(basename "$deb")"
        dpkg -x "$deb" "$MARKFORGE_ARM_SYSROOT"
    done
    sysroot_complete || die "the unpacked armhf files are incomplete in $MARKFORGE_ARM_SYSROOT"
    echo "$version" >"$MARKFORGE_ARM_SYSROOT/$SYSROOT_STAMP_NAME"
    note "ARM sysroot ready: $MARKFORGE_ARM_SYSROOT (OpenSSL $version)"
}

# Adds the packages of one purpose to WANTED.
WANTED=()
want_packages_for() {
    case "$1" in
    demo) WANTED+=("${DEMO_PACKAGES[@]}") ;;
    native | sanitize) WANTED+=("${NATIVE_PACKAGES[@]}") ;;
    fuzz) WANTED+=("${FUZZ_PACKAGES[@]}") ;;
    arm) WANTED+=("${ARM_PACKAGES[@]}") ;;
    package) WANTED+=("${PACKAGE_PACKAGES[@]}") ;;
    bench) WANTED+=("${BENCH_PACKAGES[@]}") ;;
    *) die "unknown set-up purpose '$1' (demo native sanitize fuzz arm package bench test --arm-sysroot)" ;;
    esac
}

main() {
    local purposes=("$@")
    [ "${#purposes[@]}" -gt 0 ] || purposes=(test)
    if [ "${purposes[*]}" = "--arm-sysroot" ]; then
        fetch_arm_sysroot
        return 0
    fi
    local expanded=() purpose
    for purpose in "${purposes[@]}"; do
        if [ "$purpose" = test ]; then expanded+=(native sanitize fuzz arm package); else expanded+=("$purpose"); fi
    done
    for purpose in "${expanded[@]}"; do
        want_packages_for "$purpose"
    done
    banner "setup: packages for ${expanded[*]}"
    local unique
    mapfile -t unique < <(printf '%s\n' "${WANTED[@]}" | sort -u)
    install_packages "${unique[@]}"
    if printf '%s\n' "${expanded[@]}" | grep -qx arm; then
        banner "setup: armhf sysroot"
        fetch_arm_sysroot
    fi
}

main "$@"
