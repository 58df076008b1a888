#!/usr/bin/env bash
# Installs what the project needs from Debian's packages, only when something is missing.
# usage: scripts/deps.sh [--arm64]
#   --arm64  also the AArch64 cross toolchain, Debian's arm64 (multiarch) libraries and
#            qemu-aarch64 for running the cross-built tests (cmake --preset arm64)
set -euo pipefail
arm64=0
for arg in "$@"; do
    case "$arg" in
        --arm64) arm64=1 ;;
        -h|--help) sed -n '2,5p' "$0"; exit 0 ;;
        *) echo "deps: unknown argument $arg" >&2; exit 1 ;;
    esac
done
packages=(build-essential cmake pkg-config libcjson-dev libdeflate-dev libgtest-dev libgmock-dev
          libbenchmark-dev clang libclang-rt-14-dev ffmpeg libimage-exiftool-perl tshark
          systemd)
if [ "$arm64" -eq 1 ]; then
    packages+=(g++-aarch64-linux-gnu qemu-user libcjson-dev:arm64 libdeflate-dev:arm64
               libgtest-dev:arm64 libgmock-dev:arm64 libstdc++6:arm64)
fi
sudo_cmd=""
[ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
update=0
if [ "$arm64" -eq 1 ] && ! dpkg --print-foreign-architectures | grep -qx arm64; then
    echo "adding the arm64 architecture to dpkg"
    $sudo_cmd dpkg --add-architecture arm64
    update=1
fi
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    update=1
fi
if [ "$update" -eq 1 ]; then
    $sudo_cmd apt-get update -qq
fi
if [ ${#missing[@]} -gt 0 ]; then
    DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}" >/dev/null
fi
