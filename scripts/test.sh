#!/usr/bin/env bash
# The whole test suite from a fresh Debian 12 machine: install; the lock annotations checked
# by clang; build, test; then the same tests under AddressSanitizer +
# UndefinedBehaviorSanitizer, the threaded ones under ThreadSanitizer, and each fuzz target
# for a bounded time.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
jobs=$(nproc)

scripts/check_layers.sh

echo "== clang -Wthread-safety"
CC=clang CXX=clang++ cmake -S . -B build-tsa -DCMAKE_BUILD_TYPE=Debug -DKORVEL_THREAD_SAFETY=ON \
    -DKORVEL_TESTS=OFF -DKORVEL_BENCH=OFF >/dev/null
cmake --build build-tsa -j"$jobs" --target korvel_engine korvel-server

echo "== build and test (RelWithDebInfo)"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKORVEL_WERROR=ON >/dev/null
cmake --build build -j"$jobs"
ctest --test-dir build -j"$jobs" --output-on-failure

echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DKORVEL_SANITIZE=address -DKORVEL_BENCH=OFF >/dev/null
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --test-dir build-asan -j"$jobs" --output-on-failure

echo "== ThreadSanitizer (threaded areas)"
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DKORVEL_SANITIZE=thread -DKORVEL_BENCH=OFF >/dev/null
cmake --build build-tsan -j"$jobs"
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
    ctest --test-dir build-tsan -j"$jobs" --output-on-failure -L 'core|client|transfer|catalogue|delete|system|app'

if [ -x scripts/fuzz.sh ]; then
    echo "== fuzzing (bounded)"
    scripts/fuzz.sh "${KORVEL_FUZZ_SECONDS:-30}"
fi
echo "all test stages passed"
