#!/usr/bin/env bash
# Measures markforge against openssl side by side, in one run:
#   1. markforge::hash (SHA-256, SHA-512) against `openssl dgst` on a 1 GiB file
#   2. whole-process time of each recaster key conversion against the nearest
#      openssl command (hyperfine)
#   3. peak resident memory of hashing a 64 MiB and a 1 GiB file (GNU time)
#   4. `markforge build` of one 1 GiB component and of four 256 MiB ones against one `openssl dgst`
#      pass over the same file, and its peak memory
#   5. markforge-agent: signatures per second with 64 clients (key folder and
#      SoftHSM2) against `openssl speed -multi <cores> rsa2048`, the latency
#      it adds at one client, and where its CPU time per request goes
#   6. `markforge verify` of a container with one 1 GiB component against one
#      `openssl dgst` pass over the same bytes, and of two components against
#      two passes; its peak memory for 64 MiB and 1 GiB containers
# Not part of the test suite: timings depend on the machine and its load.
#
# Environment: MARKFORGE_SKIP_SETUP=1 skips scripts/setup.sh; BENCH_DIR picks
# the folder for the test files (default: a new folder under /tmp, removed
# at the end); BENCH_BIG_MIB sets the big file's size (default 1024);
# BENCH_CONVERT_ROUNDS the rounds per conversion (default 25); BENCH_ONLY
# one part: hashing, conversions, memory, build, agent or verify;
# BENCH_AGENT_SECONDS the length of each agent load run (default 10);
# BENCH_AGENT_ROUNDS the alternating openssl/agent rounds (default 3).
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

BIG_MIB="${BENCH_BIG_MIB:-1024}"
CONVERT_ROUNDS="${BENCH_CONVERT_ROUNDS:-25}"
BUILD="$MARKFORGE_ROOT/build-bench"

if [ "${MARKFORGE_SKIP_SETUP:-0}" != 1 ]; then
    bash "$MARKFORGE_ROOT/scripts/setup.sh" bench
fi

banner "bench: Release build"
cmake -S "$MARKFORGE_ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DMARKFORGE_WERROR=ON -DMARKFORGE_BENCH=ON \
    -DMARKFORGE_TESTS=OFF >/dev/null
ninja -C "$BUILD" -j "$MARKFORGE_JOBS" recaster hash_bench markforge_program keydir markforge-agent agent_load \
    agent_sign_bench slow_agent token_sign_threads
RECASTER="$BUILD/bin/recaster"
MARKFORGE="$BUILD/bin/markforge"
HASH_BENCH="$BUILD/bin/hash_bench"
AGENT="$BUILD/bin/markforge-agent"
AGENT_LOAD="$BUILD/bin/agent_load"
AGENT_SIGN_BENCH="$BUILD/bin/agent_sign_bench"
SLOW_AGENT="$BUILD/bin/slow_agent"
TOKEN_THREADS="$BUILD/bin/token_sign_threads"
SOFTHSM_MODULE=/usr/lib/softhsm/libsofthsm2.so
P11KIT_CLIENT="$(pkg-config --variable=p11_module_path p11-kit-1)/p11-kit-client.so"
AGENT_SECONDS="${BENCH_AGENT_SECONDS:-10}"
AGENT_ROUNDS="${BENCH_AGENT_ROUNDS:-3}"

if [ -n "${BENCH_DIR:-}" ]; then
    WORK="$BENCH_DIR"
    mkdir -p "$WORK"
else
    # Memory-backed when possible, so no disk write-back of the fresh test
    # files runs during the measurements.
    WORK="$(mktemp -d "$([ -w /dev/shm ] && echo /dev/shm || echo /tmp)/markforge-bench.XXXXXX")"
    trap 'rm -rf "$WORK"' EXIT
fi
SUMMARY="$WORK/summary.txt"
: >"$SUMMARY"

# Field `name` (a column title: mean, median, ...) of row `row` (1-based, in
# command order) of a hyperfine CSV.
csv_field() {
    awk -F, -v row="$2" -v name="$3" 'NR == 1 { for (i = 1; i <= NF; i++) col[$i] = i }
        NR == row + 1 { print $col[name] }' "$1"
}

# Mean CPU seconds (user + system) of row `row` of a hyperfine CSV: less
# disturbed than wall time when other work shares the cores.
csv_cpu() {
    awk -F, -v row="$2" 'NR == 1 { for (i = 1; i <= NF; i++) col[$i] = i }
        NR == row + 1 { print $col["user"] + $col["system"] }' "$1"
}

# Mean wall seconds of rows 1 and 2 of a hyperfine CSV, then their mean CPU
# seconds, on one line.
pair_times() {
    echo "$(csv_field "$1" 1 mean) $(csv_field "$1" 2 mean) $(csv_cpu "$1" 1) $(csv_cpu "$1" 2)"
}

mbps() {
    awk -v s="$1" -v t="$2" 'BEGIN { printf "%.0f", s / t / 1e6 }'
}

ratio() {
    awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", a / b }'
}

record() {
    echo "$*" | tee -a "$SUMMARY"
}

make_files() {
    banner "bench: test files in $WORK"
    head -c $((64 << 20)) /dev/urandom >"$WORK/file-64MiB"
    head -c $((BIG_MIB << 20)) /dev/urandom >"$WORK/file-big"
    note "64 MiB and ${BIG_MIB} MiB of random bytes"
}

# The digests must agree before their speed means anything.
check_digests() {
    local algorithm="$1" file="$2"
    local ours theirs
    ours="$("$HASH_BENCH" --hash-once "$algorithm" "$file" | awk '{print $1}')"
    theirs="$(openssl dgst "-$algorithm" -r "$file" | awk '{print $1}')"
    [ "$ours" = "$theirs" ] || die "$algorithm digests differ: markforge $ours, openssl $theirs"
}

bench_hashing() {
    banner "bench: hashing ${BIG_MIB} MiB, markforge::hash against openssl dgst"
    local file="$WORK/file-big" size=$((BIG_MIB << 20))
    cat "$file" >/dev/null  # both sides read from the page cache
    record ""
    record "Hashing a ${BIG_MIB} MiB file (whole process, mean of hyperfine runs, file in page cache)"
    record "$(printf '  %-9s %15s %13s %7s   %15s %13s %7s' algorithm 'markforge MB/s' 'openssl MB/s' ratio \
        'markforge CPU' 'openssl CPU' ratio)"
    for algorithm in sha256 sha512; do
        check_digests "$algorithm" "$file"
        local csv="$WORK/hash-$algorithm.csv"
        hyperfine -N --style basic --warmup 1 --runs 10 --export-csv "$csv" \
            -n "markforge $algorithm" "$HASH_BENCH --hash-once $algorithm $file" \
            -n "openssl $algorithm" "openssl dgst -$algorithm $file"
        local ours theirs ours_cpu theirs_cpu
        read -r ours theirs ours_cpu theirs_cpu < <(pair_times "$csv")
        record "$(printf '  %-9s %15s %13s %7s   %15s %13s %7s' "$algorithm" \
            "$(mbps "$size" "$ours")" "$(mbps "$size" "$theirs")" "$(ratio "$theirs" "$ours")" \
            "$(mbps "$size" "$ours_cpu")" "$(mbps "$size" "$theirs_cpu")" "$(ratio "$theirs_cpu" "$ours_cpu")")"
    done
    record "  (MB/s of wall time, then of CPU time (user + system); ratio: markforge / openssl, target >= 0.95)"
    banner "bench: Google Benchmark, in-process, same file"
    MARKFORGE_BENCH_FILE="$file" "$HASH_BENCH" --benchmark_min_time=2 --benchmark_repetitions=3 \
        --benchmark_report_aggregates_only=true
}

make_keys() {
    openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out "$WORK/generated.pem" 2>/dev/null
    openssl rsa -in "$WORK/generated.pem" -traditional -out "$WORK/private.pem" 2>/dev/null
    openssl pkey -in "$WORK/private.pem" -pubout -out "$WORK/public.pem"
    "$RECASTER" --convertkey -i "$WORK/public.pem" -o "$WORK/modulus.bin" -I pem -O raw
    "$RECASTER" --convertkey -i "$WORK/public.pem" -o "$WORK/public.mf" -I pem -O markforge
    "$RECASTER" --convertkey -i "$WORK/private.pem" -o "$WORK/private.mf" -I pem -O markforge
}

# Median of the numbers on standard input.
median() {
    sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

# Instructions executed by one run (valgrind), or nothing without valgrind.
instructions() {
    command -v valgrind >/dev/null || return 0
    valgrind --tool=callgrind --callgrind-out-file=/dev/null "$@" 2>&1 >/dev/null |
        sed -nE 's/.*refs:[[:space:]]+([0-9,]+).*/\1/p' | tr -d ,
}

# A count in millions with one decimal, or "-" for no count.
millions() {
    awk -v i="$1" 'BEGIN { if (i != "") printf "%.1f", i / 1e6; else print "-" }'
}

# One conversion against its openssl counterpart. The two alternate in
# CONVERT_ROUNDS short hyperfine rounds, so a change in the machine's load
# during the measurement falls on both alike; the figures are medians over
# the rounds (times: of each round's median; ratio: of each round's ratio).
bench_pair() {
    local label="$1" ours="$2" theirs="$3"
    local csv="$WORK/convert.csv" rounds="$WORK/rounds.txt"
    : >"$rounds"
    for _ in $(seq "$CONVERT_ROUNDS"); do
        hyperfine -N --style none --warmup 3 --runs 20 --export-csv "$csv" -n recaster "$ours" \
            -n openssl "$theirs" >/dev/null 2>&1
        local a b
        a="$(csv_field "$csv" 1 median)"
        b="$(csv_field "$csv" 2 median)"
        echo "$a $b $(ratio "$a" "$b")" >>"$rounds"
    done
    local a b r ia ib
    a="$(awk '{ print $1 * 1000 }' "$rounds" | median)"
    b="$(awk '{ print $2 * 1000 }' "$rounds" | median)"
    r="$(awk '{ print $3 }' "$rounds" | median)"
    # shellcheck disable=SC2086 # the commands are word lists
    ia="$(instructions $ours)"
    # shellcheck disable=SC2086
    ib="$(instructions $theirs)"
    record "$(printf '  %-26s %10.2f %10.2f %7.3f %9s %9s %7s  %s' "$label" "$a" "$b" "$r" \
        "$(millions "$ia")" "$(millions "$ib")" \
        "$(awk -v a="$ia" -v b="$ib" 'BEGIN { if (a != "" && b != "") printf "%.3f", a / b; else print "-" }')" \
        "${theirs%% -in*}")"
}

bench_conversions() {
    banner "bench: key conversions, recaster against openssl (2048-bit RSA)"
    make_keys
    local out="$WORK/out" w="$WORK"
    local pubout="openssl pkey -pubin -in $w/public.pem -pubout -out $out.pem"
    local traditional="openssl rsa -in $w/private.pem -traditional -out $out.pem"
    record ""
    record "Key conversions (whole process; $CONVERT_ROUNDS alternating rounds of 20 runs each, medians)"
    record "$(printf '  %-26s %10s %10s %7s %9s %9s %7s  %s' conversion 'recaster' 'openssl' 'ratio' \
        'recaster' 'openssl' 'ratio' 'openssl command')"
    record "$(printf '  %-26s %10s %10s %7s %9s %9s %7s' '' ms ms time 'M instr' 'M instr' instr)"
    bench_pair "raw -> pem" "$RECASTER --convertkey -i $w/modulus.bin -o $out -I raw -O pem" "$pubout"
    bench_pair "raw -> markforge" "$RECASTER --convertkey -i $w/modulus.bin -o $out -I raw -O markforge" "$pubout"
    bench_pair "pem public -> raw" "$RECASTER --convertkey -i $w/public.pem -o $out -I pem -O raw" "$pubout"
    bench_pair "pem public -> markforge" "$RECASTER --convertkey -i $w/public.pem -o $out -I pem -O markforge" "$pubout"
    bench_pair "pem private -> markforge" "$RECASTER --convertkey -i $w/private.pem -o $out -I pem -O markforge" \
        "$traditional"
    bench_pair "markforge public -> pem" "$RECASTER --convertkey -i $w/public.mf -o $out -I markforge -O pem" "$pubout"
    bench_pair "markforge private -> pem" "$RECASTER --convertkey -i $w/private.mf -o $out -I markforge -O pem" \
        "$traditional"
    # The same command in both columns: how far this machine's noise alone
    # moves a ratio measured this way.
    bench_pair "control: openssl twice" "$traditional" "$traditional"
    record "  (ratio: recaster / openssl, below 1 is faster; instructions counted by valgrind when present;"
    record "   the control row runs the openssl command in both columns, so its distance from 1 is noise)"
}

peak_kib() {
    /usr/bin/time -f '%M' "$@" 2>&1 >/dev/null | tail -1
}

bench_memory() {
    banner "bench: peak memory of hashing"
    record ""
    record "Peak resident memory while hashing (GNU time, KiB)"
    record "$(printf '  %-22s %10s %10s' command '64 MiB' "${BIG_MIB} MiB")"
    for algorithm in sha256 sha512; do
        record "$(printf '  %-22s %10s %10s' "markforge $algorithm" \
            "$(peak_kib "$HASH_BENCH" --hash-once "$algorithm" "$WORK/file-64MiB")" \
            "$(peak_kib "$HASH_BENCH" --hash-once "$algorithm" "$WORK/file-big")")"
    done
    record "$(printf '  %-22s %10s %10s' "openssl dgst -sha256" \
        "$(peak_kib openssl dgst -sha256 "$WORK/file-64MiB")" "$(peak_kib openssl dgst -sha256 "$WORK/file-big")")"
}

# `markforge build` reads every component once: the reading thread hashes
# each component, a second thread the archive's running digest and the
# payload write. The target is at most 1.10 times one openssl dgst pass over
# the same bytes.
bench_build_pair() {
    local label="$1" algorithm="$2" out="$3"
    shift 3
    local csv="$WORK/build.csv"
    # The previous output is removed outside the timing: freeing a 1 GiB
    # file is the file system's work, and openssl writes no output.
    hyperfine -N --style basic --warmup 1 --runs 10 --export-csv "$csv" --prepare "rm -f $out" \
        -n "markforge build" "$MARKFORGE build -o $out --key dev --mode development --key-dir $WORK --hash $algorithm $*" \
        -n "openssl dgst" "openssl dgst -$algorithm $WORK/file-big"
    local a b ac bc am bm
    read -r a b ac bc < <(pair_times "$csv")
    # The median beside the mean: writing new pages of a virtual machine
    # costs what the host makes it cost, and a few slow runs move the mean.
    am="$(csv_field "$csv" 1 median)"
    bm="$(csv_field "$csv" 2 median)"
    record "$(printf '  %-22s %-7s %9.3f %9.3f %7s   %9.3f %9.3f %7s   %9.3f %9.3f %7s' "$label" "$algorithm" \
        "$a" "$b" "$(ratio "$a" "$b")" "$am" "$bm" "$(ratio "$am" "$bm")" "$ac" "$bc" "$(ratio "$ac" "$bc")")"
}

# Six small components signed through a stand-in agent that answers each
# request after 200 ms: the signatures are in flight together. The agent
# listens on 127.0.0.1:8001 in a network namespace of its own where one can
# be made (as root), so the machine's port is never touched.
bench_slow_agent() {
    local parts=() i
    for i in 1 2 3 4 5 6; do
        head -c 4096 /dev/urandom >"$WORK/small-$i"
        parts+=("c$i=$WORK/small-$i")
    done
    "$MARKFORGE" keygen --bits 2048 -o "$WORK/slow.markforge" --public-out "$WORK/slow.pem" >/dev/null
    local script='ip link set lo up 2>/dev/null; "$0" "$1" 200 & agent=$!; sleep 0.3
        start=$(date +%s%N); "$2" build -o "$3" --key slow --mode production --verify-key "$4" "${@:5}" >/dev/null
        status=$?; end=$(date +%s%N); kill $agent; echo "$status $(( (end - start) / 1000000 ))"'
    local result
    if unshare -n true 2>/dev/null; then
        result="$(unshare -n bash -c "$script" "$SLOW_AGENT" "$WORK/slow.markforge" "$MARKFORGE" "$WORK/slow.img" \
            "$WORK/slow.pem" "${parts[@]}")"
    else
        result="$(bash -c "$script" "$SLOW_AGENT" "$WORK/slow.markforge" "$MARKFORGE" "$WORK/slow.img" \
            "$WORK/slow.pem" "${parts[@]}")"
    fi
    [ "${result%% *}" = 0 ] || die "the build against the slow stand-in agent failed"
    record "$(printf '  six 4 KiB components, agent answering after 200 ms: %s ms (six signatures one after another: 1400 ms)' \
        "${result##* }")"
}

bench_build() {
    banner "bench: markforge build against one openssl dgst pass over the same ${BIG_MIB} MiB"
    "$MARKFORGE" keygen --bits 2048 -o "$WORK/dev.markforge" >/dev/null
    local file="$WORK/file-big" out="$WORK/container.img" quarter=$((BIG_MIB << 18)) i
    for i in 0 1 2 3; do
        dd if="$file" of="$WORK/quarter-$i" bs=1M iflag=skip_bytes,count_bytes skip=$((i * quarter)) \
            count="$quarter" status=none
    done
    cat "$file" "$WORK"/quarter-* >/dev/null
    record ""
    record "markforge build, development mode, ${BIG_MIB} MiB in all (whole process, mean and median of 10 runs)"
    record "$(printf '  %-22s %-7s %9s %9s %7s   %9s %9s %7s   %9s %9s %7s' case hash 'build s' 'dgst s' ratio \
        'median' 'median' ratio 'build CPU' 'dgst CPU' ratio)"
    for algorithm in sha256 sha512; do
        bench_build_pair "1 component" "$algorithm" "$out" "big=$file"
        bench_build_pair "4 components" "$algorithm" "$out" \
            "q0=$WORK/quarter-0" "q1=$WORK/quarter-1" "q2=$WORK/quarter-2" "q3=$WORK/quarter-3"
    done
    record "  (ratio: markforge build / one openssl dgst pass over the same bytes; target <= 1.10)"
    # The payload must be written from the very buffer that was hashed; the
    # same copy alone, read into a buffer and written out, is the floor of
    # the second thread's work.
    local csv="$WORK/copy.csv" a b ac bc
    hyperfine -N --style basic --warmup 1 --runs 10 --export-csv "$csv" --prepare "rm -f $out" \
        -n "dd copy" "dd if=$file of=$out bs=1M status=none" -n "openssl dgst" "openssl dgst -sha256 $file"
    read -r a b ac bc < <(pair_times "$csv")
    record "$(printf '  %-30s %9.3f s wall, %9.3f s CPU (openssl dgst -sha256: %.3f s, %.3f s CPU)' \
        "copy alone (dd bs=1M)" "$a" "$ac" "$b" "$bc")"
    record "$(printf '  peak memory (KiB): %s for 64 MiB, %s for %s MiB, %s for 4 x %s MiB' \
        "$(peak_kib "$MARKFORGE" build -o "$out" --key dev --mode development --key-dir "$WORK" small="$WORK/file-64MiB")" \
        "$(peak_kib "$MARKFORGE" build -o "$out" --key dev --mode development --key-dir "$WORK" big="$file")" "$BIG_MIB" \
        "$(peak_kib "$MARKFORGE" build -o "$out" --key dev --mode development --key-dir "$WORK" \
            "q0=$WORK/quarter-0" "q1=$WORK/quarter-1" "q2=$WORK/quarter-2" "q3=$WORK/quarter-3")" "$((BIG_MIB / 4))")"
    bench_slow_agent
    rm -f "$out" "$WORK"/quarter-*
}

# RSA-2048 sign/s from `openssl speed` (extra arguments: -multi N).
openssl_sign_rate() {
    openssl speed -seconds "$1" "${@:2}" rsa2048 2>/dev/null | awk '/^rsa 2048 bits/ { print $(NF - 1) }'
}

# Starts the agent on a free port with these arguments; AGENT_PID and
# AGENT_PORT are set once it listens.
start_agent() {
    local port_file="$WORK/agent/port"
    rm -f "$port_file"
    "$AGENT" --port 0 --port-file "$port_file" --audit-log "$WORK/agent/audit.log" "$@" 2>>"$WORK/agent/agent.err" &
    AGENT_PID=$!
    for _ in $(seq 100); do
        [ -s "$port_file" ] && break
        sleep 0.1
    done
    [ -s "$port_file" ] || die "markforge-agent did not start: $(cat "$WORK/agent/agent.err")"
    AGENT_PORT="$(cat "$port_file")"
}

stop_agent() {
    kill -TERM "$AGENT_PID"
    wait "$AGENT_PID" || die "markforge-agent did not stop cleanly"
}

# Word `name` (rate, mean_us, ...) of the load generator's output line.
load_field() {
    sed -nE "s/.*[[:space:]]?$2=([0-9.]+).*/\\1/p" <<<"$1"
}

# CPU seconds (user + system) the running agent has used so far.
agent_cpu_seconds() {
    awk -v tick="$(getconf CLK_TCK)" '{ printf "%.3f", ($14 + $15) / tick }' "/proc/$AGENT_PID/stat"
}

# A SoftHSM2 token in $WORK/agent/hsm holding the bench key as "bench".
make_token() {
    local hsm="$WORK/agent/hsm"
    mkdir -p "$hsm/tokens"
    printf 'directories.tokendir = %s\nobjectstore.backend = file\nlog.level = ERROR\n' "$hsm/tokens" >"$hsm/softhsm2.conf"
    export SOFTHSM2_CONF="$hsm/softhsm2.conf"
    softhsm2-util --init-token --free --label bench --pin 4711 --so-pin 4712 >/dev/null
    softhsm2-util --import "$WORK/agent/keys/bench.pem" --token bench --label bench --id 01 --pin 4711 >/dev/null
    (umask 077 && echo 4711 >"$hsm/pin")
}

# Microseconds of CPU that AgentKey::Sign takes in one thread (signature and
# check, no network), median of three Google Benchmark runs.
agent_sign_cpu_us() {
    MARKFORGE_BENCH_KEY_DIR="$WORK/agent/keys" MARKFORGE_BENCH_KEY=bench "$AGENT_SIGN_BENCH" \
        --benchmark_min_time=3 --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
        --benchmark_format=csv 2>/dev/null | awk -F, '/_median/ { printf "%.0f", $4 }'
}

# One load run with these arguments: LOAD is set to the generator's output
# line, REQUEST_US to the agent's CPU microseconds per request.
LOAD=""
REQUEST_US=""
measure_load() {
    local before count
    before="$(agent_cpu_seconds)"
    LOAD="$("$AGENT_LOAD" --port "$AGENT_PORT" --seconds "$AGENT_SECONDS" "$@")"
    count=$(($(load_field "$LOAD" signatures) + $(load_field "$LOAD" refused)))
    REQUEST_US="$(awk -v before="$before" -v after="$(agent_cpu_seconds)" -v n="$count" \
        'BEGIN { printf "%.0f", (after - before) * 1e6 / n }')"
}

# The middle value of the numbers given as arguments.
median_of() {
    printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'
}

bench_agent() {
    banner "bench: signing agent (RSA-2048, SHA-256, ${AGENT_SECONDS}s per run, $AGENT_ROUNDS rounds)"
    local cores single one added multi folder round
    local multi_rates=() folder_rates=() agent_us=() client_us=() refused_us sign_us openssl_us best
    cores="$(nproc)"
    mkdir -p "$WORK/agent/keys"
    openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out "$WORK/agent/keys/bench.pem" 2>/dev/null
    single="$(openssl_sign_rate "$AGENT_SECONDS")"
    sign_us="$(agent_sign_cpu_us)"

    start_agent --key-dir "$WORK/agent/keys"
    # openssl and the agent take turns, so a change in the machine's other
    # load falls on both columns.
    for round in $(seq "$AGENT_ROUNDS"); do
        multi_rates+=("$(openssl_sign_rate "$AGENT_SECONDS" -multi "$cores")")
        measure_load --clients 64 --key bench
        agent_us+=("$REQUEST_US")
        folder_rates+=("$(load_field "$LOAD" rate)")
        client_us+=("$(load_field "$LOAD" client_cpu_us)")
        note "round $round: openssl ${multi_rates[-1]} sign/s, agent ${folder_rates[-1]} sign/s"
    done
    # The same connections for a key the agent does not hold: everything a
    # request costs except the signing.
    measure_load --clients 64 --key absent --expect-refusal
    refused_us="$REQUEST_US"
    one="$("$AGENT_LOAD" --port "$AGENT_PORT" --clients 1 --seconds "$AGENT_SECONDS" --key bench)"
    stop_agent
    make_token
    bench_token

    multi="$(median_of "${multi_rates[@]}")"
    folder="$(median_of "${folder_rates[@]}")"
    added="$(awk -v mean="$(load_field "$one" mean_us)" -v rate="$single" 'BEGIN { printf "%.0f", mean - 1e6 / rate }')"
    openssl_us="$(awk -v r="$multi" -v c="$cores" 'BEGIN { printf "%.0f", c * 1e6 / r }')"
    # The most any agent could reach here: the cores spent only on signing
    # with the check, the cheapest request (a refused one) and the load
    # generator's side of it.
    best="$(awk -v o="$openssl_us" -v s="$sign_us" -v r="$refused_us" -v g="$(median_of "${client_us[@]}")" \
        'BEGIN { printf "%.3f", o / (s + r + g) }')"

    record ""
    record "Signing agent, RSA-2048 PKCS#1 v1.5 over SHA-256 digests, $cores cores"
    record "$(printf '  %-46s %10s' 'openssl speed -multi '"$cores"' rsa2048' "$multi sign/s")"
    record "$(printf '  %-46s %10s  (%s of openssl)' 'agent, key folder, 64 clients' "$folder sign/s" \
        "$(ratio "$folder" "$multi")")"
    record "$(printf '  %-46s %10s' 'plain token threads, 64 sessions (SoftHSM2)' "$(load_field "$PLAIN" rate) sign/s")"
    record "$(printf '  %-46s %10s  (%s of the plain threads)' 'agent, SoftHSM2 token, 64 clients' \
        "$(load_field "$HSM" rate) sign/s" "$(ratio "$(load_field "$HSM" rate)" "$(load_field "$PLAIN" rate)")")"
    record "$(printf '  %-46s %10s' 'plain threads through p11-kit server, 64' "$(load_field "$PLAIN_REMOTE" rate) sign/s")"
    record "$(printf '  %-46s %10s  (%s of the plain threads)' 'agent through p11-kit server, 64 clients' \
        "$(load_field "$HSM_REMOTE" rate) sign/s" \
        "$(ratio "$(load_field "$HSM_REMOTE" rate)" "$(load_field "$PLAIN_REMOTE" rate)")")"
    record "$(printf '  %-46s %10s' 'openssl speed rsa2048, one sign' "$(awk -v r="$single" 'BEGIN { printf "%.0f us", 1e6 / r }')")"
    record "$(printf '  %-46s %10s  (added by the agent: %s us)' 'agent, key folder, 1 client, round trip' \
        "$(load_field "$one" mean_us) us" "$added")"
    record "$(printf '  %-46s %10s' 'CPU per signature: openssl speed' "$openssl_us us")"
    record "$(printf '  %-46s %10s' 'CPU per signature: agent (64 clients)' "$(median_of "${agent_us[@]}") us")"
    record "$(printf '  %-46s %10s' '  signing and check alone (agent_sign_bench)' "$sign_us us")"
    record "$(printf '  %-46s %10s' 'CPU per refused request: agent (no signing)' "$refused_us us")"
    record "$(printf '  %-46s %10s' 'CPU per request: load generator' "$(median_of "${client_us[@]}") us")"
    record "$(printf '  %-46s %10s' 'best ratio possible here' "$best")"
    record "  (medians of $AGENT_ROUNDS alternating rounds; the load generator runs on the same cores as a batch"
    record "   task; one TCP connection per request, audit log on; openssl's single-process figure is per CPU"
    record "   second; best ratio: openssl's CPU per signature over signing with the check + a refused request"
    record "   + the generator's part; load average at the end: $(cut -d' ' -f1-3 /proc/loadavg))"
}

# The token rates, each beside the plain way of signing with the same token
# from 64 threads of one process, a session each (token_sign_threads): the
# token in this process, then behind `p11-kit server` reached through its
# client module. Sets PLAIN, HSM, PLAIN_REMOTE and HSM_REMOTE to the
# generators' output lines.
PLAIN="" HSM="" PLAIN_REMOTE="" HSM_REMOTE=""
bench_token() {
    local pin="$WORK/agent/hsm/pin" socket="$WORK/agent/hsm.sock" server
    PLAIN="$("$TOKEN_THREADS" "$SOFTHSM_MODULE" bench bench "$pin" 64 "$AGENT_SECONDS")"
    start_agent --pkcs11-uri "pkcs11:token=bench;object=bench?module-path=$SOFTHSM_MODULE&pin-source=file:$pin"
    HSM="$("$AGENT_LOAD" --port "$AGENT_PORT" --clients 64 --seconds "$AGENT_SECONDS" --key bench)"
    stop_agent
    p11-kit server -f --provider "$SOFTHSM_MODULE" -n "$socket" "pkcs11:token=bench" >"$WORK/agent/p11-kit.log" 2>&1 &
    server=$!
    for _ in $(seq 100); do [ -S "$socket" ] && break; sleep 0.1; done
    [ -S "$socket" ] || die "p11-kit server did not start: $(cat "$WORK/agent/p11-kit.log")"
    export P11_KIT_SERVER_ADDRESS="unix:path=$socket"
    PLAIN_REMOTE="$("$TOKEN_THREADS" "$P11KIT_CLIENT" bench bench "$pin" 64 "$AGENT_SECONDS")"
    start_agent --pkcs11-uri "pkcs11:token=bench;object=bench?module-path=$P11KIT_CLIENT&pin-source=file:$pin"
    HSM_REMOTE="$("$AGENT_LOAD" --port "$AGENT_PORT" --clients 64 --seconds "$AGENT_SECONDS" --key bench)"
    stop_agent
    unset P11_KIT_SERVER_ADDRESS
    kill "$server"
    wait "$server" 2>/dev/null || true
}

# Builds `container` from NAME=FILE words, signed by the bench key.
build_container() {
    local container="$1"
    shift
    "$MARKFORGE" build -o "$container" --key bench --mode development --key-dir "$WORK" "$@" >/dev/null
}

# One hyperfine comparison of `markforge verify` against an openssl command;
# prints wall and CPU ratios.
bench_verify_pair() {
    local label="$1" ours="$2" theirs="$3" size="$4"
    local csv="$WORK/verify.csv"
    hyperfine -N --style basic --warmup 1 --runs 10 --export-csv "$csv" -n "markforge verify" "$ours" \
        -n "openssl" "$theirs"
    local a b ac bc
    read -r a b ac bc < <(pair_times "$csv")
    record "$(printf '  %-24s %9.3f %9.3f %7s   %9.3f %9.3f %7s   %6s %6s' "$label" "$a" "$b" "$(ratio "$a" "$b")" \
        "$ac" "$bc" "$(ratio "$ac" "$bc")" "$(mbps "$size" "$a")" "$(mbps "$size" "$b")")"
}

bench_verify() {
    banner "bench: markforge verify of ${BIG_MIB} MiB against openssl dgst"
    "$MARKFORGE" keygen --bits 2048 -o "$WORK/bench.markforge" --public-out "$WORK/bench.pem" >/dev/null
    local big="$WORK/file-big" size=$((BIG_MIB << 20)) half=$((BIG_MIB << 19))
    build_container "$WORK/one.bin" "image=$big"
    head -c "$half" "$big" >"$WORK/half-1"
    tail -c +"$((half + 1))" "$big" >"$WORK/half-2"
    build_container "$WORK/two.bin" "first=$WORK/half-1" "second=$WORK/half-2"
    rm -f "$WORK/half-1" "$WORK/half-2"
    local quarter=$((BIG_MIB << 18)) i parts=()
    for i in 0 1 2 3; do
        dd if="$big" of="$WORK/quarter-$i" bs=1M iflag=skip_bytes,count_bytes skip=$((i * quarter)) \
            count="$quarter" status=none
        parts+=("q$i=$WORK/quarter-$i")
    done
    build_container "$WORK/four.bin" "${parts[@]}"
    rm -f "$WORK"/quarter-*
    build_container "$WORK/small.bin" "image=$WORK/file-64MiB"
    "$MARKFORGE" verify "$WORK/one.bin" --key "$WORK/bench.pem" >/dev/null || die "verify of one.bin failed"
    "$MARKFORGE" verify "$WORK/two.bin" --key "$WORK/bench.pem" >/dev/null || die "verify of two.bin failed"
    cat "$WORK/one.bin" "$WORK/two.bin" "$WORK/four.bin" "$big" >/dev/null  # all from the page cache
    record ""
    record "markforge verify, SHA-256, ${BIG_MIB} MiB of components (whole process, mean of hyperfine runs)"
    record "$(printf '  %-24s %9s %9s %7s   %9s %9s %7s   %6s %6s' case 'verify s' 'openssl s' ratio \
        'verify CPU' 'ssl CPU' ratio 'MB/s' 'MB/s')"
    bench_verify_pair "1 component vs 1 pass" "$MARKFORGE verify $WORK/one.bin --key $WORK/bench.pem" \
        "openssl dgst -sha256 $big" "$size"
    bench_verify_pair "2 components vs 2 passes" "$MARKFORGE verify $WORK/two.bin --key $WORK/bench.pem" \
        "openssl dgst -sha256 $big $big" "$size"
    bench_verify_pair "4 components vs 1 pass" "$MARKFORGE verify $WORK/four.bin --key $WORK/bench.pem" \
        "openssl dgst -sha256 $big" "$size"
    record "  (ratio: markforge / openssl, target <= 1.10; two passes: openssl hashes the file twice in one process)"
    record "$(printf '  peak memory (KiB): verify 64 MiB %s, verify %s MiB %s, openssl dgst %s MiB %s' \
        "$(peak_kib "$MARKFORGE" verify "$WORK/small.bin" --key "$WORK/bench.pem")" "$BIG_MIB" \
        "$(peak_kib "$MARKFORGE" verify "$WORK/one.bin" --key "$WORK/bench.pem")" "$BIG_MIB" \
        "$(peak_kib openssl dgst -sha256 "$big")")"
}

case "${BENCH_ONLY:-all}" in
all)
    make_files
    bench_hashing
    bench_conversions
    bench_memory
    bench_build
    bench_agent
    bench_verify
    ;;
build) make_files && bench_build ;;
hashing) make_files && bench_hashing ;;
conversions) bench_conversions ;;
memory) make_files && bench_memory ;;
agent) bench_agent ;;
verify) make_files && bench_verify ;;
*) die "BENCH_ONLY must be hashing, conversions, memory, build, agent or verify" ;;
esac

banner "bench: summary ($(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | xargs))"
cat "$SUMMARY"
