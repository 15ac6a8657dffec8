# Helpers shared by the scripts in this folder; sourced, never run.

# The repository root, whatever folder the script was started from.
MARKFORGE_ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
export MARKFORGE_ROOT

# Where the armhf OpenSSL headers and libraries are unpacked for the cross
# build. Outside git's interest (see .gitignore), kept between builds.
MARKFORGE_ARM_SYSROOT="${MARKFORGE_ARM_SYSROOT:-$MARKFORGE_ROOT/.cache/armhf-sysroot}"
export MARKFORGE_ARM_SYSROOT

banner() {
    printf '\n==== %s ====\n' "$*"
}

note() {
    printf '  %s\n' "$*"
}

die() {
    printf '\nERROR: %s\n' "$*" >&2
    exit 1
}

# Runs the command as root: directly when we are root, through sudo otherwise.
as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

# Two cores are shared by everything on the machine; never ask for more.
MARKFORGE_JOBS="${MARKFORGE_JOBS:-2}"
