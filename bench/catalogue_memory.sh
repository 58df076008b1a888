#!/usr/bin/env bash
# What the catalogue costs the real server: on cards of 10,000 and 50,000 photos (each with a
# .thm, in 100 media directories), 1 or 4 apps fetch their whole catalogue (type 1,
# 65,535-byte packets, bursts of 3,200) together and stay connected without acknowledging
# the last package. Prints a markdown table of the printed text, the server's peak (VmHWM)
# and its resident memory while the apps stay (VmRSS), both above idle, then the time and
# peak memory of `korvel-app ls` on the largest card.
#
# usage: bench/catalogue_memory.sh [BUILD_DIR]     (default: build; relative to the repository)
#
# Builds nothing: expects BUILD_DIR/korvel-server, BUILD_DIR/korvel-app and
# BUILD_DIR/bench/footprint_clients. Runs the server on its fixed port 9800 over /tmp/SD0,
# which must not exist; the cards made there are removed at the end.
set -euo pipefail

repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-build}"
[[ "$build" = /* ]] || build="$repo/$build"
server="$build/korvel-server"
app="$build/korvel-app"
clients="$build/bench/footprint_clients"
port=9800
card=/tmp/SD0

for f in "$server" "$app" "$clients"; do
    [ -x "$f" ] || { echo "catalogue_memory: $f is missing; build it first" >&2; exit 1; }
done
[ -x /usr/bin/time ] || { echo "catalogue_memory: /usr/bin/time is missing (package time)" >&2; exit 1; }
if ss -ltnH "sport = :$port" | grep -q .; then
    echo "catalogue_memory: port $port is already taken" >&2
    exit 1
fi
if [ -e "$card" ]; then
    echo "catalogue_memory: $card exists; move it away first" >&2
    exit 1
fi

work="$(mktemp -d)"
server_pid=""
client_pid=""
cleanup() {
    exec 3>&- 2>/dev/null || true
    if [ -n "$client_pid" ]; then kill "$client_pid" 2>/dev/null || true; fi
    if [ -n "$server_pid" ]; then kill "$server_pid" 2>/dev/null || true; wait "$server_pid" 2>/dev/null || true; fi
    rm -rf "$card" "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# make_card PHOTOS: PHOTOS empty photos with empty .thm companions in 100 directories (the
# catalogue reads no content of a photo, only its status).
make_card() {
    local per=$(($1 / 100))
    rm -rf "$card"
    for d in $(seq 100 199); do
        mkdir -p "$card/DCIM/${d}MEDIA"
        (cd "$card/DCIM/${d}MEDIA" && touch $(seq -f 'IMG_%04g.JPG' 1 "$per") $(seq -f 'IMG_%04g.thm' 1 "$per"))
    done
    sync
}

status() { awk -v k="$1:" '$1 == k { print $2 }' "/proc/$server_pid/status"; }

start_server() {
    "$server" >/dev/null 2>"$work/server.err" &
    server_pid=$!
    for _ in $(seq 1 100); do
        ss -ltnH "sport = :$port" | grep -q . && break
        sleep 0.1
    done
    sleep 0.5
}

stop_server() {
    kill "$server_pid"
    wait "$server_pid" 2>/dev/null || true
    server_pid=""
}

mib() { awk -v k="$1" 'BEGIN { printf "%.1f", k / 1024 }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

# browse PHOTOS APPS: one table row.
browse() {
    start_server
    local idle fifo="$work/release"
    idle=$(status VmRSS)
    echo 5 >"/proc/$server_pid/clear_refs"
    mkfifo "$fifo"
    "$clients" browse "$2" "$port" <"$fifo" >"$work/browse.out" &
    client_pid=$!
    exec 3>"$fifo"
    for _ in $(seq 1 1200); do
        grep -q '^ready' "$work/browse.out" && break
        kill -0 "$client_pid" 2>/dev/null || break
        sleep 0.1
    done
    grep -q '^ready' "$work/browse.out" || { echo "catalogue_memory: the apps got no catalogue" >&2; exit 1; }
    sleep 0.5
    local hwm rss text
    hwm=$(status VmHWM)
    rss=$(status VmRSS)
    text=$(awk '{ printf "%.0f", $3 / 1024 }' "$work/browse.out")
    exec 3>&-
    wait "$client_pid" || true
    client_pid=""
    rm -f "$fifo"
    stop_server
    local all=$((text * $2))
    printf '| %s photos, %s app(s) | %s MiB | +%s MiB (%s×) | +%s MiB (%s×) |\n' "$1" "$2" \
        "$(mib "$text")" "$(mib $((hwm - idle)))" "$(ratio $((hwm - idle)) "$all")" \
        "$(mib $((rss - idle)))" "$(ratio $((rss - idle)) "$all")"
}

echo "| card | printed text (per app) | server peak above idle (÷ all texts) | held while the apps page |"
echo "| --- | ---: | ---: | ---: |"
for photos in 10000 50000; do
    make_card "$photos"
    for apps in 1 4; do browse "$photos" "$apps"; done
done

# korvel-app ls on the last card: its own time and peak, and the server's peak meanwhile.
start_server
idle=$(status VmRSS)
echo 5 >"/proc/$server_pid/clear_refs"
/usr/bin/time -f '%e %M' -o "$work/ls.time" "$app" ls >/dev/null
read -r secs maxkb <"$work/ls.time"
echo
echo "korvel-app ls, 50000 photos: ${secs} s, peak $(mib "$maxkb") MiB resident;" \
    "the server meanwhile +$(mib $(($(status VmHWM) - idle))) MiB above idle."
stop_server
echo "Produced by \`bench/catalogue_memory.sh $(basename "$build")\` on $(date -u +%Y-%m-%d), $(uname -m), $(nproc) cores;" \
    "build type $(awk -F= '/^CMAKE_BUILD_TYPE:/ { print $2 }' "$build/CMakeCache.txt" 2>/dev/null)."
