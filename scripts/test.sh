#!/usr/bin/env bash
# Sets the machine up, then builds and tests markforge in stages:
#   native    RelWithDebInfo build with -Werror, the whole ctest suite
#   sanitize  AddressSanitizer + UndefinedBehaviorSanitizer build, whole suite
#   fuzz      clang + libFuzzer build, each fuzz target for FUZZ_SECONDS
#   arm       32-bit ARM cross build, whole suite under qemu-arm
#
# Environment:
#   MARKFORGE_STAGES      stages to run, in order (default "native sanitize fuzz arm")
#   FUZZ_SECONDS          seconds per fuzz target (default 60)
#   MARKFORGE_CLEAN=1     remove each stage's build folder first
#   MARKFORGE_SKIP_SETUP=1  do not run scripts/setup.sh
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

STAGES="${MARKFORGE_STAGES:-native sanitize fuzz arm}"
FUZZ_SECONDS="${FUZZ_SECONDS:-60}"
FUZZ_TARGETS=(header_fuzz der_sig_fuzz hex_string_fuzz key_file_fuzz pem_key_fuzz container_fuzz)
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

# Runs ctest in `dir`, keeping its summary for the closing count.
run_ctest() {
    local dir="$1" name="$2"
    shift 2
    local log="$LOGS/ctest-$name.log" status=0
    env "$@" ctest --test-dir "$dir" -j "$MARKFORGE_JOBS" --output-on-failure --no-tests=error \
        2>&1 | tee "$log" || status=$?
    local summary
    summary="$(grep -E '^[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -1 || true)"
    if [ -n "$summary" ]; then
        local failed total skipped
        failed="$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\1/' <<<"$summary")"
        total="$(sed -E 's/.* failed out of ([0-9]+).*/\1/' <<<"$summary")"
        skipped="$(grep -cE '^[[:space:]]+[0-9]+ - .* \(Skipped\)$' "$log" || true)"
        echo "$((total - failed - skipped)) $failed $skipped" >"$LOGS/count-$name"
    fi
    return "$status"
}

configure_and_build() {
    local dir="$1"
    shift
    cmake -S "$MARKFORGE_ROOT" -B "$dir" -G Ninja "$@"
    ninja -C "$dir" -j "$MARKFORGE_JOBS"
}

stage_native() {
    local dir
    dir="$(build_dir native)"
    configure_and_build "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMARKFORGE_EXPECTED_POINTER_SIZE=8 \
        -DMARKFORGE_BENCH=ON
    run_ctest "$dir" native
}

stage_sanitize() {
    local dir
    dir="$(build_dir sanitize)"
    configure_and_build "$dir" -DCMAKE_BUILD_TYPE=Debug -DMARKFORGE_SANITIZE=ON -DMARKFORGE_EXPECTED_POINTER_SIZE=8
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
    local failed=0
    for target in "${FUZZ_TARGETS[@]}"; do
        fuzz_one "$dir" "$target" || failed=1
    done
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

main() {
    mkdir -p "$LOGS"
    rm -f "$LOGS"/count-*
    if [ "${MARKFORGE_SKIP_SETUP:-0}" != 1 ]; then
        bash "$MARKFORGE_ROOT/scripts/setup.sh"
    fi
    for stage in $STAGES; do
        declare -F "stage_$stage" >/dev/null || die "unknown stage '$stage' (native sanitize fuzz arm)"
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
    return "$overall"
}

# Sourcing the script gives its functions without running the stages.
if [ "${BASH_SOURCE[0]}" = "$0" ]; then
    main "$@"
fi
