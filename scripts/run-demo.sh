#!/usr/bin/env bash
# Installs what is missing, builds, prepares a demo memory card in /tmp/SD0 (when it is
# absent, or afresh with --fresh) and runs the server in the foreground on port 9800.
#
# usage: scripts/run-demo.sh [--fresh]
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
fresh=0
for arg in "$@"; do
    case "$arg" in
        --fresh) fresh=1 ;;
        -h|--help) sed -n '2,5p' "$0"; exit 0 ;;
        *) echo "run-demo: unknown argument $arg" >&2; exit 1 ;;
    esac
done

"$root/scripts/deps.sh"
(cd "$root" && cmake --preset native >/dev/null &&
    cmake --build --preset native --target korvel-server korvel-app -j"$(nproc)")

if [ "$fresh" -eq 1 ]; then
    rm -rf /tmp/SD0
fi
if [ ! -d /tmp/SD0 ]; then
    "$root/scripts/make_demo_card.sh" /tmp/SD0
fi

echo "korvel-server listening on port 9800 (card /tmp/SD0); try in another terminal:"
echo "  $root/build/korvel-app ls"
echo "  $root/build/korvel-app get 100MEDIA-IMG_0001.JPG -o /tmp"
exec "$root/build/korvel-server"
