#!/usr/bin/env bash
# Installs what the project needs from Debian's packages, only when something is missing.
set -euo pipefail
packages=(build-essential cmake pkg-config libcjson-dev libdeflate-dev libgtest-dev libgmock-dev
          libbenchmark-dev clang libclang-rt-14-dev ffmpeg libimage-exiftool-perl tshark)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    sudo_cmd=""
    [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
    $sudo_cmd apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}" >/dev/null
fi
