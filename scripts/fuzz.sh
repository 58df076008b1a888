#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a bounded time over its
# committed seed corpus. New inputs go to a scratch directory; crashes land in
# fuzz/artifacts/ and fail the run.
# Usage: scripts/fuzz.sh [seconds per target] [target...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
shift || true
jobs=$(nproc)
cmake --preset fuzz >/dev/null      # build-fuzz: clang, KORVEL_FUZZ=ON (CMakePresets.json)
cmake --build --preset fuzz -j"$jobs"
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    for f in fuzz/fuzz_*.cpp; do targets+=("$(basename "$f" .cpp)"); done
fi
mkdir -p fuzz/artifacts
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
status=0
for t in "${targets[@]}"; do
    mkdir -p "$scratch/$t" "fuzz/corpus/$t"
    dict=()
    [ -f "fuzz/$t.dict" ] && dict=(-dict="fuzz/$t.dict")
    echo "-- $t for ${seconds}s"
    if ! ./build-fuzz/fuzz/"$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
            -print_final_stats=1 -artifact_prefix=fuzz/artifacts/"$t"- "${dict[@]}" \
            "$scratch/$t" "fuzz/corpus/$t" > "$scratch/$t.log" 2>&1; then
        echo "FAILED: $t"; tail -n 40 "$scratch/$t.log"; status=1
    else
        grep -E 'stat::number_of_executed_units|cov:' "$scratch/$t.log" | tail -n 2 || true
    fi
done
exit $status
