#!/usr/bin/env bash
# Sets the machine up, then builds and tests markforge in stages:
#   native    the tree the amd64 packages are made from (Release, for /usr,
#             Debian's hardening flags, -Werror), the whole ctest suite
#   sanitize  AddressSanitizer + UndefinedBehaviorSanitizer build, whole suite
#   fuzz      clang + libFuzzer build, each fuzz target for FUZZ_SECONDS
#   arm       32-bit ARM cross build, whole suite under qemu-arm
#   package   Debian packages for amd64 (from the native stage's tree) and
#             armhf, lintian, then the amd64 ones installed, used and
#             removed, the armhf programs run under qemu-arm
#
# Environment:
#   MARKFORGE_STAGES      stages to run, in order (default "native sanitize fuzz arm package")
#   FUZZ_SECONDS          seconds per fuzz target (default 30)
#   MARKFORGE_CLEAN=1     remove each stage's build folder first
#   MARKFORGE_SKIP_SETUP=1  do not run scripts/setup.sh
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

STAGES="${MARKFORGE_STAGES:-native sanitize fuzz arm package}"
FUZZ_SECONDS="${FUZZ_SECONDS:-30}"
FUZZ_TARGETS=(header_fuzz der_sig_fuzz hex_string_fuzz key_file_fuzz pem_key_fuzz public_key_fuzz build_words_fuzz
    sign_request_fuzz container_fuzz table_fuzz requests_fuzz audit_chain_fuzz pkcs11_uri_fuzz)
LOGS="$MARKFORGE_ROOT/build-logs"

# Any sanitizer report ends the process with status 86, which no test
# expects, in the test programs and in every recaster they start (which
# inherit these). The runtimes share one exit-code setting, whichever of the
# three variables is read last wins, so all three name the same code.
SANITIZER_ENV=(
    ASAN_OPTIONS="halt_on_error=1:abort_on_error=0:detect_leaks=1:exitcode=86:check_initialization_order=1:strict_init_order=1:detect_stack_use_after_return=1:print_summary=1"
    UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1:exitcode=86"
    LSAN_OPTIONS="exitcode=86"
)

TESTS_PASSED=0
TESTS_FAILED=0
TESTS_SKIPPED=0

build_dir() {
    local dir="$MARKFORGE_ROOT/build-$1"
    if [ "${MARKFORGE_CLEAN:-0}" = 1 ]; then rm -rf "$dir"; fi
    echo "$dir"
}

# Every folder outside the run's own TMPDIR that tests and fuzz targets
# write to: /tmp for those that ignore TMPDIR, /dev/shm for memory-backed
# scratch files.
SHARED_SCRATCH_FOLDERS=(/tmp /dev/shm)

# Fails when the tests left anything behind in the run's own TMPDIR, which
# must be empty again. A markforge-* entry made in a shared scratch folder
# during the run fails it in CI, where no other run shares the machine;
# elsewhere another worktree's run may have made it, so it is shown.
check_no_leftovers() {
    local tmp="$1" since="$2" left stray="" found folder
    left="$(find "$tmp" -mindepth 1 -maxdepth 1)"
    for folder in "${SHARED_SCRATCH_FOLDERS[@]}"; do
        [ -d "$folder" ] || continue
        found="$(find "$folder" -mindepth 1 -maxdepth 1 -name 'markforge*' -newer "$since" ! -path "$since")"
        if [ -n "$found" ]; then stray+="${stray:+$'\n'}$found"; fi
    done
    rm -f "$since"
    if [ "${CI:-}" = true ]; then left="$left${left:+$'\n'}$stray"; fi
    if [ -n "$stray" ] && [ "${CI:-}" != true ]; then
        note "new in /tmp during the run (this run's or another's):" $stray
    fi
    if [ -n "$left" ]; then
        echo "!!! the tests left these behind:" >&2
        sed 's/^/!!!   /' <<<"$left" >&2
        return 1
    fi
    rmdir "$tmp"
}

# The names of the tests a ctest log lists as failed, one per line.
failed_tests_in() {
    sed -n '/^The following tests FAILED:/,/^[^[:space:]]/p' "$1" |
        sed -nE 's/^[[:space:]]+[0-9]+ - (.*) \([^)]*\)$/\1/p'
}

# Runs ctest in `dir`, keeping its summary for the closing count. The tests
# get an empty TMPDIR of their own, checked afterwards. A test that fails is
# run once more on its own: one that passes then is named in the summary as
# flaky (and in $LOGS/flaky-NAME), one that fails again fails the stage. Both
# runs' output stays in the log.
run_ctest() {
    local dir="$1" name="$2"
    shift 2
    local log="$LOGS/ctest-$name.log" status=0 tmp="$dir/test-tmp" since
    rm -rf "$tmp"
    mkdir -p "$tmp"
    rm -f "$LOGS/flaky-$name" "$LOGS/failed-$name"
    since="$(mktemp /tmp/markforge-run-start.XXXXXX)"
    env TMPDIR="$tmp" "$@" ctest --test-dir "$dir" -j "$MARKFORGE_JOBS" --output-on-failure --no-tests=error \
        2>&1 | tee "$log" || status=$?
    local summary failed_first
    summary="$(grep -E '^[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -1 || true)"
    failed_first="$(failed_tests_in "$log")"
    if [ "$status" -ne 0 ] && [ -n "$failed_first" ]; then
        echo "!!! failed on the first run, run again on their own:" >&2
        sed 's/^/!!!   /' <<<"$failed_first" >&2
        local rerun="$LOGS/ctest-$name-rerun.log"
        status=0
        env TMPDIR="$tmp" "$@" ctest --test-dir "$dir" --rerun-failed --output-on-failure 2>&1 | tee "$rerun" ||
            status=$?
        cat "$rerun" >>"$log"
        failed_tests_in "$rerun" >"$LOGS/failed-$name"
        grep -vxF -f "$LOGS/failed-$name" <<<"$failed_first" >"$LOGS/flaky-$name" || true
    fi
    check_no_leftovers "$tmp" "$since" || status=1
    if [ -n "$summary" ]; then
        local failed total skipped
        failed="$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\1/' <<<"$summary")"
        total="$(sed -E 's/.* failed out of ([0-9]+).*/\1/' <<<"$summary")"
        skipped="$(grep -cE '^[[:space:]]+[0-9]+ - .* \(Skipped\)$' "$log" || true)"
        if [ -f "$LOGS/failed-$name" ]; then failed="$(grep -c . "$LOGS/failed-$name" || true)"; fi
        echo "$((total - failed - skipped)) $failed $skipped" >"$LOGS/count-$name"
    fi
    return "$status"
}

configure_and_build() {
    local dir="$1"
    shift
    cmake -S "$MARKFORGE_ROOT" -B "$dir" -G Ninja -DMARKFORGE_WERROR=ON "$@"
    ninja -C "$dir" -j "$MARKFORGE_JOBS"
}

# The suite runs on the very build the amd64 packages are made from, so
# what ships is what was tested. The package stage makes its packages from
# this tree (building it first when the native stage did not run).
native_package_tree() {
    local dir="$1"
    build_packages "$dir" amd64 gcc -DMARKFORGE_EXPECTED_POINTER_SIZE=8 -DMARKFORGE_BENCH=ON
}

stage_native() {
    local dir
    dir="$(build_dir native)"
    native_package_tree "$dir"
    run_ctest "$dir" native
}

stage_sanitize() {
    local dir
    dir="$(build_dir sanitize)"
    configure_and_build "$dir" -DCMAKE_BUILD_TYPE=Debug -DMARKFORGE_SANITIZE=ON -DMARKFORGE_EXPECTED_POINTER_SIZE=8 \
        -DMARKFORGE_BENCH=ON
    note "sanitizer settings: ${SANITIZER_ENV[*]}"
    run_ctest "$dir" sanitize "${SANITIZER_ENV[@]}"
}

# One figure of libFuzzer's final statistics (-print_final_stats=1).
fuzz_stat() {
    grep -E "^stat::$2:" "$1" | awk '{print $2}' | tail -1
}

# One libFuzzer run; new inputs go to the build folder, never into the
# committed seeds.
fuzz_one() {
    local dir="$1" target="$2"
    local work="$dir/corpus/$target" artifacts="$dir/artifacts" log="$LOGS/fuzz-$target.log"
    mkdir -p "$work" "$artifacts"
    local status=0
    env "${SANITIZER_ENV[@]}" "$dir/bin/$target" -max_total_time="$FUZZ_SECONDS" -print_final_stats=1 \
        -timeout=25 -rss_limit_mb=2048 -artifact_prefix="$artifacts/$target-" \
        "$work" "$MARKFORGE_ROOT/fuzz/corpus/$target" </dev/null >"$log" 2>&1 || status=$?
    local done_line
    done_line="$(grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -1 || true)"
    printf '  %-16s runs %-9s exec/s %-7s cov %-5s ft %-6s new %-5s rss %s MB\n' "$target" \
        "$(fuzz_stat "$log" number_of_executed_units)" "$(fuzz_stat "$log" average_exec_per_sec)" \
        "$(sed -nE 's/.* cov: ([0-9]+).*/\1/p' <<<"$done_line")" \
        "$(sed -nE 's/.* ft: ([0-9]+).*/\1/p' <<<"$done_line")" \
        "$(fuzz_stat "$log" new_units_added)" "$(fuzz_stat "$log" peak_rss_mb)"
    if [ "$status" -ne 0 ]; then
        echo "!!! $target failed (status $status); the end of its log:" >&2
        tail -n 80 "$log" >&2
        for artifact in "$artifacts/$target"-*; do
            [ -e "$artifact" ] || continue
            echo "!!! input saved as $artifact (first 512 bytes):" >&2
            od -A d -t x1 -N 512 "$artifact" >&2
        done
    fi
    return "$status"
}

stage_fuzz() {
    local dir
    dir="$(build_dir fuzz)"
    CC=clang CXX=clang++ configure_and_build "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMARKFORGE_FUZZ=ON \
        -DMARKFORGE_SANITIZE=ON -DMARKFORGE_TESTS=OFF
    note "each target runs ${FUZZ_SECONDS}s with ASan + UBSan over fuzz/corpus/<target>"
    local failed=0 tmp="$dir/fuzz-tmp" since
    rm -rf "$tmp"
    mkdir -p "$tmp"
    since="$(mktemp /tmp/markforge-run-start.XXXXXX)"
    for target in "${FUZZ_TARGETS[@]}"; do
        TMPDIR="$tmp" fuzz_one "$dir" "$target" || failed=1
    done
    check_no_leftovers "$tmp" "$since" || failed=1
    return "$failed"
}

# Reads the ELF machine field: 40 is 32-bit ARM.
elf_machine() {
    od -A n -t u2 -j 18 -N 2 "$1" | tr -d ' '
}

stage_arm() {
    bash "$MARKFORGE_ROOT/scripts/setup.sh" --arm-sysroot
    local dir
    dir="$(build_dir arm)"
    configure_and_build "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_TOOLCHAIN_FILE="$MARKFORGE_ROOT/cmake/arm-linux-gnueabihf.cmake" \
        -DMARKFORGE_ARM_SYSROOT="$MARKFORGE_ARM_SYSROOT" -DMARKFORGE_EXPECTED_POINTER_SIZE=4
    local machine
    machine="$(elf_machine "$dir/bin/recaster")"
    [ "$machine" = 40 ] || die "build-arm/bin/recaster is not a 32-bit ARM program (ELF machine $machine)"
    note "recaster is a 32-bit ARM program; tests run under qemu-arm"
    run_ctest "$dir" arm
}

# Debian's compiler and linker flags for packages (hardening), for the
# architecture given, as cmake reads them from the environment. Its file
# path mapping is left out: ours (cmake/MarkforgeWarnings.cmake) already
# makes the paths in error trails relative, and the two together would
# turn recaster/x.cpp into ./recaster/x.cpp.
debian_build_flags() {
    local arch="$1" cc="$2"
    export DEB_BUILD_MAINT_OPTIONS="reproducible=-fixfilepath"
    local cppflags
    cppflags="$(DEB_HOST_ARCH="$arch" CC="$cc" dpkg-buildflags --get CPPFLAGS 2>/dev/null)"
    echo "CFLAGS=$(DEB_HOST_ARCH="$arch" CC="$cc" dpkg-buildflags --get CFLAGS 2>/dev/null) $cppflags"
    echo "CXXFLAGS=$(DEB_HOST_ARCH="$arch" CC="$cc" dpkg-buildflags --get CXXFLAGS 2>/dev/null) $cppflags"
    echo "LDFLAGS=$(DEB_HOST_ARCH="$arch" CC="$cc" dpkg-buildflags --get LDFLAGS 2>/dev/null)"
}

# Configures and builds a tree that installs into /usr, as a Debian package
# does, with Debian's flags for the architecture.
build_packages() {
    local dir="$1" arch="$2" cc="$3"
    shift 3
    local flags=()
    mapfile -t flags < <(debian_build_flags "$arch" "$cc")
    # cmake reads the flags' variables only into a new cache.
    rm -f "$dir/CMakeCache.txt"
    env "${flags[@]}" cmake -S "$MARKFORGE_ROOT" -B "$dir" -G Ninja -DMARKFORGE_WERROR=ON \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DMARKFORGE_RELOCATABLE=OFF \
        -DMARKFORGE_MAN_PAGES=ON "$@"
    ninja -C "$dir" -j "$MARKFORGE_JOBS"
}

# Makes a tree's packages and has lintian judge them: errors fail, warnings
# are shown.
make_debs() {
    local dir="$1"
    rm -rf "$dir/packages"
    (cd "$dir" && cpack -G DEB >"$LOGS/cpack-$(basename "$dir").log")
    note "packages: $(cd "$dir/packages" && echo ./*.deb)"
    local report
    report="$(lintian --tag-display-limit 0 "$dir"/packages/*.deb 2>&1 | grep -v 'running with root privileges' || true)"
    [ -z "$report" ] || sed 's/^/  lintian| /' <<<"$report"
    ! grep -q '^E:' <<<"$report" || die "lintian reports errors"
}

# `man recaster` opens the installed page. A machine whose dpkg leaves out
# man pages (path-exclude, as in Debian's container images) has none to
# open; there the page is read from the package itself, and that is said.
check_installed_man_page() {
    local dir="$1" work="$2"
    if [ -e /usr/share/man/man1/recaster.1.gz ]; then
        MANWIDTH=80 man recaster 2>/dev/null | grep -q '^EXIT STATUS' || die "man recaster does not open"
        return 0
    fi
    grep -qs '^path-exclude[= ]/usr/share/man' /etc/dpkg/dpkg.cfg.d/* || die "the man page was not installed"
    note "dpkg here leaves out man pages (path-exclude); reading the page from the package"
    dpkg-deb -x "$dir"/packages/markforge-tools_*.deb "$work/deb"
    MANWIDTH=80 man -l "$work/deb/usr/share/man/man1/recaster.1.gz" 2>/dev/null | grep -q '^EXIT STATUS' ||
        die "the packaged man page does not open"
}

# markforge from /usr/bin makes a key, builds a container with the installed
# key-directory plug-in, and openssl alone verifies it; the installed agent
# loads the key.
check_installed_markforge() {
    local work="$1"
    mkdir -p "$work/keys"
    /usr/bin/markforge keygen --bits 2048 -o "$work/keys/dev.markforge" --public-out "$work/dev.pem" ||
        die "/usr/bin/markforge keygen failed"
    /usr/bin/markforge build -o "$work/container.img" --key dev --mode development --key-dir "$work/keys" \
        readme="$MARKFORGE_ROOT/samples/payload.txt" >/dev/null || die "/usr/bin/markforge build failed"
    sh "$MARKFORGE_ROOT/docs/examples/verify-with-openssl.sh" "$work/container.img" "$work/dev.pem" >/dev/null ||
        die "the container built by /usr/bin/markforge does not verify"
    /usr/sbin/markforge-agent --check --key-dir "$work/keys" >/dev/null || die "/usr/sbin/markforge-agent --check failed"
    note "/usr/bin/markforge keygen and build (with the installed keydir plug-in) and markforge-agent --check work"
    # systemd's own reading of the installed unit: its programs, its man
    # page and every setting; it prints nothing when all is well.
    local verdict
    verdict="$(systemd-analyze verify markforge-agent.service 2>&1)" || die "systemd-analyze verify: $verdict"
    [ -z "$verdict" ] || die "systemd-analyze verify complains: $verdict"
    note "systemd-analyze verify accepts the installed markforge-agent.service"
}

# The package of this machine that holds the library `soname` for its own
# architecture (not a cross toolchain's copy), or nothing.
system_package_of() {
    dpkg -S "*/$(dpkg-architecture -qDEB_HOST_MULTIARCH)/$1" 2>/dev/null | head -n 1 | cut -d: -f1
}

# Every library that a packaged ELF file loads comes from the same package,
# from another of ours, or from a package its Depends names: a missing name
# shows only on a machine without that package, never on this one.
check_declared_dependencies() {
    local dir="$1" root="$1/depends-check" deb name file soname provider
    rm -rf "$root"
    mkdir -p "$root"
    local -A ours=()
    for deb in "$dir"/packages/*.deb; do
        name="$(dpkg-deb -f "$deb" Package)"
        dpkg-deb -x "$deb" "$root/$name"
        while read -r file; do ours["$(basename "$file")"]="$name"; done < <(find "$root/$name" -name 'lib*.so.*')
    done
    for deb in "$dir"/packages/*.deb; do
        name="$(dpkg-deb -f "$deb" Package)"
        local depends  # the package names alone, one per line
        depends="$(dpkg-deb -f "$deb" Depends | tr ',' '\n' | awk '{ print $1 }')"
        while read -r file; do
            local needed
            needed="$(objdump -p "$file" 2>/dev/null)" || continue  # not an ELF file
            while read -r soname; do
                provider="${ours[$soname]:-$(system_package_of "$soname")}"
                [ -n "$provider" ] || die "$name: ${file#"$root/$name"} needs $soname, which no package here holds"
                [ "$provider" != "$name" ] || continue
                grep -qxF "$provider" <<<"$depends" ||
                    die "$name: ${file#"$root/$name"} needs $soname from $provider, which its Depends does not name"
            done < <(awk '$1 == "NEEDED" { print $2 }' <<<"$needed")
        done < <(find "$root/$name" -type f)
    done
    rm -rf "$root"
    note "every library the packaged programs and libraries load comes from a package their Depends name"
}

# Installs the amd64 packages on this machine with the one command the
# README gives (apt resolves their dependencies on each other and on
# Debian's packages), uses recaster from /usr/bin and its man page, removes
# the packages and checks their files are gone.
check_installed_debs() {
    local dir="$1" work="$1/installed-check"
    local packages=(markforge-tools libmarkforge-dev libmarkforge1 libgridview1 liblockbase1)
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends \
        "$dir"/packages/*_amd64.deb >"$LOGS/apt-install-debs.log" 2>&1 ||
        die "apt-get install of the packages failed: $(tail -n 5 "$LOGS/apt-install-debs.log")"
    note "apt-get install ./packages/*_amd64.deb installed the packages with their dependencies"
    local files
    files="$(dpkg -L "${packages[@]}" | sort -u)"
    rm -rf "$work"
    mkdir -p "$work"
    local status=0
    # A subshell, so that a failed check still reaches the removal below.
    (
        [ "$(command -v recaster)" = /usr/bin/recaster ] || die "recaster is not /usr/bin/recaster"
        /usr/bin/recaster --version | head -n 1 | grep -qx "recaster 1.1.0" || die "/usr/bin/recaster --version"
        /usr/bin/recaster --convertkey -i "$MARKFORGE_ROOT/samples/rsa2048-public.pem" -o "$work/key.markforge" \
            -I pem -O markforge >/dev/null || die "/usr/bin/recaster conversion failed"
        cmp -s "$work/key.markforge" "$MARKFORGE_ROOT/samples/rsa2048-public.markforge" ||
            die "/usr/bin/recaster wrote a different key file"
        check_installed_man_page "$dir" "$work"
        local doc listing
        # The listing is read whole first: grep -q stopping early would
        # break dpkg-deb's pipe.
        listing="$(dpkg-deb -c "$dir"/packages/markforge-tools_*_amd64.deb)"
        for doc in container-format.md json.md plugins.md sign-agent.md signing-outside.md \
            examples/verify-with-openssl.sh examples/sign-requests.sh; do
            grep -q " ./usr/share/doc/markforge-tools/$doc\$" <<<"$listing" ||
                die "markforge-tools does not ship /usr/share/doc/markforge-tools/$doc"
        done
        note "markforge-tools ships the documents its help screens and man page name"
        note "/usr/bin/recaster --version, a conversion and 'man recaster' work"
        check_installed_markforge "$work"
    ) || status=$?
    as_root dpkg -r "${packages[@]}" >/dev/null
    rm -rf "$work"
    local left=() file
    while read -r file; do
        if [ -f "$file" ] || [ -L "$file" ]; then left+=("$file"); fi
    done <<<"$files"
    [ "${#left[@]}" -eq 0 ] || die "dpkg -r left files behind: ${left[*]}"
    note "dpkg -r removed every file of the packages"
    return "$status"
}

# Unpacks the armhf packages and runs their recaster under qemu-arm with the
# packages' own libraries (and the sysroot's armhf OpenSSL).
check_armhf_debs() {
    local dir="$1" root="$1/unpacked"
    rm -rf "$root"
    mkdir -p "$root"
    local deb
    for deb in "$dir"/packages/*_armhf.deb; do dpkg -x "$deb" "$root"; done
    local program
    for program in "$root"/usr/bin/* "$root"/usr/sbin/* "$root"/usr/lib/arm-linux-gnueabihf/lib*.so.*.*.*; do
        [ "$(elf_machine "$program")" = 40 ] || die "$program is not 32-bit ARM"
    done
    local libs="$root/usr/lib/arm-linux-gnueabihf:$MARKFORGE_ARM_SYSROOT/usr/lib/arm-linux-gnueabihf"
    local run=(qemu-arm -L /usr/arm-linux-gnueabihf -E "LD_LIBRARY_PATH=$libs" "$root/usr/bin/recaster")
    "${run[@]}" --version | head -n 1 | grep -qx "recaster 1.1.0" || die "armhf recaster --version"
    "${run[@]}" --convertkey -i "$MARKFORGE_ROOT/samples/rsa2048-public.pem" -o "$root/key.markforge" \
        -I pem -O markforge >/dev/null || die "armhf recaster conversion failed"
    cmp -s "$root/key.markforge" "$MARKFORGE_ROOT/samples/rsa2048-public.markforge" ||
        die "armhf recaster wrote a different key file"
    # markforge finds the packaged keydir plug-in beside its own libraries.
    mkdir -p "$root/keys"
    cp "$MARKFORGE_ROOT/samples/rsa2048-private.markforge" "$root/keys/dev.markforge"
    local markforge=(qemu-arm -L /usr/arm-linux-gnueabihf -E "LD_LIBRARY_PATH=$libs" "$root/usr/bin/markforge")
    "${markforge[@]}" build -o "$root/container.img" --key dev --mode development --key-dir "$root/keys" \
        readme="$MARKFORGE_ROOT/samples/payload.txt" >/dev/null || die "armhf markforge build failed"
    sh "$MARKFORGE_ROOT/docs/examples/verify-with-openssl.sh" "$root/container.img" \
        "$MARKFORGE_ROOT/samples/rsa2048-public.pem" >/dev/null || die "the armhf markforge container does not verify"
    # The agent loads the same key and names its fingerprint, as openssl
    # computes it from the public key.
    local agent=(qemu-arm -L /usr/arm-linux-gnueabihf -E "LD_LIBRARY_PATH=$libs" "$root/usr/sbin/markforge-agent")
    local fingerprint
    fingerprint="$(openssl pkey -pubin -in "$MARKFORGE_ROOT/samples/rsa2048-public.pem" -outform DER |
        openssl dgst -sha256 -r | cut -d' ' -f1)"
    [ "$("${agent[@]}" --check --key-dir "$root/keys")" = "dev SHA256:$fingerprint" ] ||
        die "armhf markforge-agent --check does not name the key's fingerprint"
    rm -rf "$root"
    note "armhf programs and libraries are 32-bit ARM; recaster, markforge and markforge-agent --check run under"
    note "qemu-arm with the packages' libraries"
}

stage_package() {
    local dir arm
    dir="$MARKFORGE_ROOT/build-native"
    native_package_tree "$dir"
    make_debs "$dir"
    check_declared_dependencies "$dir"
    check_installed_debs "$dir"

    bash "$MARKFORGE_ROOT/scripts/setup.sh" --arm-sysroot
    arm="$(build_dir package-arm)"
    # Debian's multiarch library folder, which GNUInstallDirs picks by itself
    # only for native builds.
    build_packages "$arm" armhf arm-linux-gnueabihf-gcc -DMARKFORGE_TESTS=OFF \
        -DCMAKE_INSTALL_LIBDIR=lib/arm-linux-gnueabihf \
        -DCMAKE_TOOLCHAIN_FILE="$MARKFORGE_ROOT/cmake/arm-linux-gnueabihf.cmake" \
        -DMARKFORGE_ARM_SYSROOT="$MARKFORGE_ARM_SYSROOT"
    make_debs "$arm"
    check_armhf_debs "$arm"
}

# Names, per stage, the tests that $LOGS/KIND-STAGE lists.
list_named_tests() {
    local kind="$1" what="$2" file
    for file in "$LOGS/$kind"-*; do
        [ -s "$file" ] || continue
        echo "${file##*/$kind-}: $what:"
        sed 's/^/    /' "$file"
    done
}

main() {
    mkdir -p "$LOGS"
    rm -f "$LOGS"/count-* "$LOGS"/flaky-* "$LOGS"/failed-*
    if [ "${MARKFORGE_SKIP_SETUP:-0}" != 1 ]; then
        # shellcheck disable=SC2086  # one purpose per stage
        bash "$MARKFORGE_ROOT/scripts/setup.sh" $STAGES
    fi
    for stage in $STAGES; do
        declare -F "stage_$stage" >/dev/null || die "unknown stage '$stage' (native sanitize fuzz arm package)"
    done

    local results=() overall=0
    for stage in $STAGES; do
        banner "stage $stage"
        local start status
        start=$(date +%s)
        # A subshell outside any condition, so `set -e` holds inside the stage.
        set +e
        (set -e; "stage_$stage")
        status=$?
        set -e
        local seconds=$(($(date +%s) - start))
        if [ "$status" -eq 0 ]; then
            results+=("$(printf '%-9s passed  %5d s' "$stage" "$seconds")")
        else
            results+=("$(printf '%-9s FAILED  %5d s' "$stage" "$seconds")")
            overall=1
        fi
        printf '\n---- stage %s: %s in %d s\n' "$stage" "$([ "$status" -eq 0 ] && echo passed || echo FAILED)" "$seconds"
    done

    banner "summary"
    printf '  %s\n' "${results[@]}"
    local counted=0
    for count in "$LOGS"/count-*; do
        [ -e "$count" ] || continue
        read -r passed failed skipped <"$count"
        TESTS_PASSED=$((TESTS_PASSED + passed))
        TESTS_FAILED=$((TESTS_FAILED + failed))
        TESTS_SKIPPED=$((TESTS_SKIPPED + skipped))
        counted=1
    done
    # All ctest runs of the stages together.
    if [ "$counted" -eq 1 ]; then
        echo "tests: $TESTS_PASSED passed, $TESTS_FAILED failed, $TESTS_SKIPPED skipped"
    fi
    list_named_tests failed "failed twice"
    list_named_tests flaky "failed once, passed when run again (flaky: fix the test or the race)"
    return "$overall"
}

# Sourcing the script gives its functions without running the stages.
if [ "${BASH_SOURCE[0]}" = "$0" ]; then
    main "$@"
fi
