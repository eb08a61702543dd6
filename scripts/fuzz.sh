#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan+UBSan, in build-fuzz/ or $FUZZ_BUILD) and runs each
# for SECONDS seconds (default 10), starting from the committed seeds in fuzz/corpus/<target>/.
# What a run discovers is kept in $FUZZ_BUILD/corpus/ (never in the committed seeds); a crash,
# hang, leak or sanitizer finding leaves its input in fuzz-out/ and makes the script exit 1.
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]
#
# Extra libFuzzer flags can be given in FUZZ_FLAGS (for example "-jobs=2 -workers=2").
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-10}"
shift || true
build="${FUZZ_BUILD:-build-fuzz}"

CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DORVANE_FUZZ=ON -DORVANE_DESKTOP=OFF \
    -DORVANE_TESTS=OFF >/dev/null
ninja -C "$build" orvane_fuzzers

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    for seeds in fuzz/corpus/*/; do
        targets+=("$(basename "$seeds")")
    done
fi

mkdir -p fuzz-out
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:allocator_may_return_null=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

failed=()
total=0
summary=""
for target in "${targets[@]}"; do
    binary="$build/fuzz/$target"
    if [ ! -x "$binary" ]; then
        echo "no such fuzz target: $target" >&2
        failed+=("$target")
        continue
    fi
    work="$build/corpus/$target"
    mkdir -p "$work"
    log="fuzz-out/$target.log"
    echo "== $target: ${seconds}s =="
    status=0
    # shellcheck disable=SC2086
    "$binary" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=4096 -max_len=8192 \
        -print_final_stats=1 -artifact_prefix="fuzz-out/$target-" ${FUZZ_FLAGS:-} \
        "$work" "fuzz/corpus/$target" >"$log" 2>&1 || status=$?
    runs=$(awk '/stat::number_of_executed_units:/ {n += $2} END {print n + 0}' "$log")
    total=$((total + runs))
    if [ "$status" -ne 0 ]; then
        failed+=("$target")
        summary+=$(printf '%-22s %12s  FAILED (exit %s, see %s)' "$target" "$runs" "$status" "$log")
        tail -n 40 "$log"
    else
        summary+=$(printf '%-22s %12s  ok' "$target" "$runs")
    fi
    summary+=$'\n'
done

echo
echo "target                   executions  result"
printf '%s' "$summary"
echo "total executions: $total"
if [ ${#failed[@]} -ne 0 ]; then
    echo "findings in: ${failed[*]}" >&2
    exit 1
fi
