#!/usr/bin/env bash
# Runs every fuzz target of a build tree for a time and prints what came of it.
#
#   tools/fuzz/run.sh BUILD [SECONDS [TARGET...]]     600 s each; as many at once as there are cores
#
# What a run learns is kept in BUILD/fuzz/corpus and is where the next one starts; an input that
# breaks something is kept in BUILD/fuzz/findings, and the exit status is then not 0. Run one again
# with: BUILD/bin/fuzz_TARGET FILE
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

build=$(realpath "$1")
seconds=${2:-600}
targets=("${@:3}")
[ ${#targets[@]} = 0 ] && mapfile -t targets < <(cd "$build/bin" && ls -d fuzz_* | sed s/fuzz_//)

fuzz() {
    local target=$1 work=$build/fuzz
    mkdir -p "$work/corpus/$target" "$work/findings/$target"
    # The targets' own output goes to nowhere; the fuzzer reports on the other channel.
    "$build/bin/fuzz_$target" -max_total_time="$seconds" -max_len=4096 -timeout=60 \
        -rss_limit_mb=1024 -print_final_stats=1 -artifact_prefix="$work/findings/$target/" \
        "$work/corpus/$target" "tests/fuzz/corpus/$target" \
        >/dev/null 2>"$work/$target.log" || echo "status $?" >>"$work/$target.log"
}

row() {
    local target=$1 log=$build/fuzz/$1.log
    local runs covered findings
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    covered=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | cut -d' ' -f2)
    findings=$(find "$build/fuzz/findings/$target" -type f | wc -l)
    printf '%-18s %14s %10s %10s %9s\n' "$target" "${runs:-0}" $((${runs:-0} / seconds)) \
        "${covered:-0}" "$findings"
    if [ "$findings" != 0 ] || grep -q '^status ' "$log" || [ "${runs:-0}" = 0 ]; then
        printf '  see %s\n' "$log"
        return 1
    fi
}

export -f fuzz
export build seconds
# Of where memory was taken only the last two steps: what libraries without frame pointers leave of the
# others is another trace each time, and all are kept.
export ASAN_OPTIONS=malloc_context_size=2
export LSAN_OPTIONS=print_suppressions=0:suppressions=$PWD/tests/lsan.supp
printf '%s\n' "${targets[@]}" | xargs -P "$(nproc)" -I{} bash -euo pipefail -c 'fuzz {}'

printf '%-18s %14s %10s %10s %9s\n' target executions 'a second' 'branches' findings
failed=0
for target in "${targets[@]}"; do
    row "$target" || failed=1
done
exit $failed
