#!/usr/bin/env bash
# The whole test suite from a fresh Debian 12 machine: install; the layering and the lock
# annotations (clang -Wthread-safety) checked; build, test; then the same
# tests under AddressSanitizer + UndefinedBehaviorSanitizer, the threaded ones under
# ThreadSanitizer, the whole suite cross-built for AArch64 (the camera) and run under
# qemu-aarch64, both Debian packages, and each fuzz target for a bounded time.
# Every configuration is a preset in CMakePresets.json; a person types the same commands.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh --arm64
jobs=$(nproc)

scripts/check_layers.sh

echo "== clang -Wthread-safety"
cmake --preset tsa >/dev/null
cmake --build --preset tsa -j"$jobs"

echo "== build and test (RelWithDebInfo)"
cmake --preset native >/dev/null
cmake --build --preset native -j"$jobs"
ctest --preset native -j"$jobs"

echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
cmake --preset asan >/dev/null
cmake --build --preset asan -j"$jobs"
ctest --preset asan -j"$jobs"          # ASAN_OPTIONS=detect_leaks=1, UBSAN_OPTIONS=print_stacktrace=1

echo "== ThreadSanitizer (threaded areas)"
cmake --preset tsan >/dev/null
cmake --build --preset tsan -j"$jobs"
ctest --preset tsan -j"$jobs"          # labels core|client|transfer|catalogue|delete|system|app

# The whole CTest suite, cross-built, each test binary run by qemu-aarch64 (user mode, no
# binfmt). Nothing is excluded: the host tools the media and app tests call (ffmpeg, ffprobe,
# exiftool, tshark) are started through fork/exec and run natively, and the fault tests'
# tmpfs mount works as root under emulation as it does natively. Timings here mean nothing.
echo "== AArch64 (cross-built, tests under qemu-aarch64)"
cmake --preset arm64 >/dev/null
cmake --build --preset arm64 -j"$jobs"
ctest --preset arm64 -j"$jobs"
# The static-runtime variant links and runs (its tests are the ones above).
cmake --preset arm64-static >/dev/null
cmake --build --preset arm64-static --target korvel-server korvel-app -j"$jobs"
if aarch64-linux-gnu-readelf -d build-arm64-static/korvel-server build-arm64-static/korvel-app |
        grep -E 'NEEDED.*(libstdc\+\+|libgcc_s|libdeflate)'; then
    echo "static-runtime build still needs the libraries above" >&2; exit 1
fi
qemu-aarch64 build-arm64-static/korvel-app --help >/dev/null

echo "== packages (amd64, arm64)"
cpack --preset native >/dev/null
dpkg-deb -c build/korvel_*_amd64.deb
cpack --preset arm64 >/dev/null
dpkg-deb -c build-arm64/korvel_*_arm64.deb

if [ -x scripts/fuzz.sh ]; then
    echo "== fuzzing (bounded)"
    scripts/fuzz.sh "${KORVEL_FUZZ_SECONDS:-30}"
fi
echo "all test stages passed"
