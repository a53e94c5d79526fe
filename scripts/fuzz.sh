#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang (AddressSanitizer + UndefinedBehaviorSanitizer)
# into build-fuzz and runs each for SECONDS (default 60) against a working copy of its seed
# corpus, fuzz/corpus/<target>/, which is never written to.
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]     e.g. scripts/fuzz.sh 30 command configload
#
# The working corpora stay in build-fuzz/corpus/<target>/ and grow from run to run; anything a
# target finds (crash-*, leak-*, timeout-*, oom-*) lands in build-fuzz/findings/<target>/ and
# fails the script. Replay one with: build-fuzz/bin/fuzz_<target> <file>
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath -m "${BUILD_DIR:-$src/build-fuzz}")
seconds=${1:-60}
shift || true
case "$seconds" in
    '' | *[!0-9]*) echo "usage: $0 [SECONDS] [TARGET...]" >&2; exit 2 ;;
esac

# Largest input per target: one request frame; configuration files of a few kilobytes; a probe
# history of a full type.
declare -A max_len=([command]=4104 [configload]=8192 [configreader]=8192 [probehistory]=16384
    [protectionconfig]=8192)
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    targets=(command configload configreader probehistory protectionconfig)
fi
for target in "${targets[@]}"; do
    if [ -z "${max_len[$target]:-}" ] || [ ! -d "$src/fuzz/corpus/$target" ]; then
        echo "unknown fuzz target: $target (known: ${!max_len[*]})" >&2
        exit 2
    fi
done

"$src/scripts/setup.sh"
cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
    -DCMAKE_CXX_COMPILER=clang++ -DCORVANE_FUZZ=ON -DCORVANE_BUILD_TESTS=OFF \
    -DCORVANE_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target "${targets[@]/#/fuzz_}"

# libFuzzer reports leaks itself; the sanitizers stop at the first error with a full stack.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1:check_initialization_order=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}

summary=()
failed=()
for target in "${targets[@]}"; do
    corpus="$build/corpus/$target"
    findings="$build/findings/$target"
    log="$build/findings/$target.log"
    mkdir -p "$corpus" "$findings"
    cp -n "$src/fuzz/corpus/$target"/* "$corpus/" 2>/dev/null || true
    echo "== fuzz_$target for ${seconds}s (corpus $corpus)"
    status=0
    "$build/bin/fuzz_$target" "$corpus" -max_total_time="$seconds" \
        -max_len="${max_len[$target]}" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$findings/" >"$log" 2>&1 || status=$?
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
    added=$(sed -n 's/^stat::new_units_added: *//p' "$log" | tail -1)
    rss=$(sed -n 's/^stat::peak_rss_mb: *//p' "$log" | tail -1)
    cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | cut -d' ' -f2 || true)
    summary+=("$(printf '%-17s %10s %8s %6s %8s %6s' "$target" "${runs:-?}" "${rate:-?}" \
        "${cov:-?}" "${added:-?}" "${rss:-?}")")
    if [ "$status" -ne 0 ]; then
        failed+=("$target")
        tail -60 "$log"
        echo "fuzz_$target failed (exit $status); its log: $log; findings: $findings"
    fi
done

echo
printf '%-17s %10s %8s %6s %8s %6s\n' target executions exec/s cov new peakMB
printf '%s\n' "${summary[@]}"
if [ ${#failed[@]} -ne 0 ]; then
    echo "fuzzing found problems in: ${failed[*]}"
    exit 1
fi
echo "fuzzing: no findings"
