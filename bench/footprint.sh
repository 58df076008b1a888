#!/usr/bin/env bash
# Footprint figures of the real server: resident memory and threads when idle, with 1, 10
# and 50 configured apps held connected, during a 50-app soak, and after the apps left;
# stripped binary sizes. Prints a markdown table for the README.
#
# usage: bench/footprint.sh [BUILD_DIR]     (default: build; relative to the repository)
#
# Builds nothing: expects BUILD_DIR/korvel-server, BUILD_DIR/korvel-app and
# BUILD_DIR/bench/footprint_clients. Runs the server on its fixed port 9800 over /tmp/SD0;
# creates a demo card there when none exists and removes it again at the end.
set -euo pipefail

repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-build}"
[[ "$build" = /* ]] || build="$repo/$build"
server="$build/korvel-server"
app="$build/korvel-app"
clients="$build/bench/footprint_clients"
port=9800
card=/tmp/SD0
soak_apps=50
soak_seconds=10

for f in "$server" "$app" "$clients"; do
    if [ ! -x "$f" ]; then
        echo "footprint: $f is missing; build it first:" >&2
        echo "  cmake --build $build --target korvel-server korvel-app footprint_clients" >&2
        exit 1
    fi
done
for tool in ss strip size awk; do
    command -v "$tool" >/dev/null || { echo "footprint: $tool is missing" >&2; exit 1; }
done
if ss -ltnH "sport = :$port" | grep -q .; then
    echo "footprint: port $port is already taken; stop whatever listens there first" >&2
    exit 1
fi

work="$(mktemp -d)"
server_pid=""
client_pid=""
made_card=0

cleanup() {
    exec 3>&- 2>/dev/null || true
    if [ -n "$client_pid" ]; then kill "$client_pid" 2>/dev/null || true; fi
    if [ -n "$server_pid" ]; then
        kill "$server_pid" 2>/dev/null || true
        wait "$server_pid" 2>/dev/null || true
    fi
    if [ "$made_card" = 1 ]; then rm -rf "$card"; fi
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

if [ ! -e "$card" ]; then
    echo "footprint: no card at $card, making the demo card" >&2
    made_card=1
    # The capability file is not needed here, and its fixed path lies outside the card.
    KORVEL_CAP_PATH="" "$repo/scripts/make_demo_card.sh" "$card" >/dev/null
fi

# status FIELD: the number of a /proc/PID/status line of the server (kB for memory lines).
status() {
    awk -v k="$1:" '$1 == k { print $2 }' "/proc/$server_pid/status"
}

# wait_threads N: until the server is back to N threads (apps gone), at most 20 s.
wait_threads() {
    for _ in $(seq 1 200); do
        [ "$(status Threads)" -le "$1" ] && return 0
        sleep 0.1
    done
    echo "footprint: the server still has $(status Threads) threads, expected $1" >&2
}

"$server" >/dev/null 2>"$work/server.err" &
server_pid=$!
for _ in $(seq 1 100); do
    ss -ltnH "sport = :$port" | grep -q . && break
    kill -0 "$server_pid" 2>/dev/null || { echo "footprint: the server exited:" >&2; cat "$work/server.err" >&2; exit 1; }
    sleep 0.1
done
ss -ltnH "sport = :$port" | grep -q . || { echo "footprint: the server never listened on $port" >&2; exit 1; }
sleep 1

# snap: "VmRSS RssAnon RssFile Threads" of the server now.
snap() {
    echo "$(status VmRSS) $(status RssAnon) $(status RssFile) $(status Threads)"
}
read -r idle_rss idle_anon idle_file idle_threads < <(snap)

# hold N: N configured apps stay connected while the server's figures are read.
declare -A held_rss held_anon held_file held_threads
hold() {
    local n=$1 fifo="$work/release"
    mkfifo "$fifo"
    "$clients" hold "$n" "$port" <"$fifo" >"$work/hold.out" &
    client_pid=$!
    exec 3>"$fifo"
    for _ in $(seq 1 300); do
        grep -q '^ready' "$work/hold.out" && break
        kill -0 "$client_pid" 2>/dev/null || break
        sleep 0.1
    done
    grep -q '^ready' "$work/hold.out" || { echo "footprint: $n apps could not be held" >&2; exit 1; }
    sleep 1  # every worker has started and gone to sleep on its queue
    read -r "held_rss[$n]" "held_anon[$n]" "held_file[$n]" "held_threads[$n]" < <(snap)
    exec 3>&-
    wait "$client_pid"
    client_pid=""
    rm -f "$fifo"
    wait_threads "$idle_threads"
}
for n in 1 10 50; do hold "$n"; done

# Soak: the peak is counted from here (5 clears VmHWM), VmRSS sampled twice a second.
echo 5 >"/proc/$server_pid/clear_refs" 2>/dev/null || echo "footprint: VmHWM not reset; the peak covers the whole run" >&2
"$clients" soak "$soak_apps" "$soak_seconds" "$port" >"$work/soak.out" &
client_pid=$!
samples=0 sum=0 max=0 min=0 max_anon=0 max_file=0 max_threads=0
while kill -0 "$client_pid" 2>/dev/null; do
    read -r r a f t < <(snap)
    samples=$((samples + 1)) sum=$((sum + r))
    [ "$r" -gt "$max" ] && max=$r
    { [ "$min" = 0 ] || [ "$r" -lt "$min" ]; } && min=$r
    [ "$a" -gt "$max_anon" ] && max_anon=$a
    [ "$f" -gt "$max_file" ] && max_file=$f
    [ "$t" -gt "$max_threads" ] && max_threads=$t
    sleep 0.5
done
soak_rc=0
wait "$client_pid" || soak_rc=$?
client_pid=""
soak_hwm=$(status VmHWM)
[ "$soak_rc" = 0 ] || echo "footprint: the soak clients reported failures (exit $soak_rc)" >&2
wait_threads "$idle_threads"
sleep 1
read -r after_rss after_anon after_file after_threads < <(snap)

# stripped NAME PATH: a row of stripped sizes.
stripped() {
    local out="$work/$1.stripped"
    strip -o "$out" "$2"
    local bytes text data bss
    bytes=$(stat -c %s "$out")
    read -r text data bss _ < <(size "$out" | awk 'NR == 2')
    printf '| %s | %d | %.0f | %d | %d | %d |\n' "$1" "$bytes" \
        "$(awk -v b="$bytes" 'BEGIN { print b / 1024 }')" "$text" "$data" "$bss"
}
# per_app N: (RSS_N - RSS_idle) / N in KiB, and threads added per app.
per_app() {
    awk -v r="${held_rss[$1]}" -v i="$idle_rss" -v t="${held_threads[$1]}" -v it="$idle_threads" \
        -v n="$1" 'BEGIN { printf "%.0f KiB, %.2f threads", (r - i) / n, (t - it) / n }'
}
row() {  # row LABEL RSS ANON FILE THREADS NOTE
    printf '| %s | %s | %s | %s | %s | %s |\n' "$@"
}

echo
echo "| Server state | VmRSS KiB | anon KiB | file KiB | threads | per app |"
echo "| --- | ---: | ---: | ---: | ---: | --- |"
row "idle" "$idle_rss" "$idle_anon" "$idle_file" "$idle_threads" "-"
for n in 1 10 50; do
    row "$n connected app(s), configured" "${held_rss[$n]}" "${held_anon[$n]}" \
        "${held_file[$n]}" "${held_threads[$n]}" "$(per_app "$n")"
done
marginal=$(awk -v a="${held_rss[50]}" -v b="${held_rss[10]}" 'BEGIN { printf "%.0f", (a - b) / 40 }')
row "$soak_apps-app soak, peak (VmHWM)" "$soak_hwm" "-" "-" "-" "-"
row "$soak_apps-app soak, sampled max" "$max" "$max_anon" "$max_file" "$max_threads" "-"
row "$soak_apps-app soak, sampled mean (min)" "$((sum / (samples > 0 ? samples : 1))) ($min)" \
    "-" "-" "-" "$samples samples"
row "after every app left" "$after_rss" "$after_anon" "$after_file" "$after_threads" "-"
echo
echo "| Stripped binary | bytes | KiB | text | data | bss |"
echo "| --- | ---: | ---: | ---: | ---: | ---: |"
stripped korvel-server "$server"
stripped korvel-app "$app"
echo
echo "Marginal cost of an app from 10 to 50 connected: $marginal KiB resident."
echo "Produced by \`bench/footprint.sh $(basename "$build")\` on $(date -u +%Y-%m-%d), $(uname -m), Linux $(uname -r),"
echo "$(nproc) cores; build type $(awk -F= '/^CMAKE_BUILD_TYPE:/ { print $2 }' "$build/CMakeCache.txt" 2>/dev/null)."
echo "The real server on port $port over $card; figures from /proc/PID/status (anon = RssAnon,"
echo "file = RssFile: shared library pages and mapped media regions). Apps from footprint_clients"
echo "on 127.0.0.1: hold connects and configures N apps, then waits; soak runs $soak_apps apps for"
echo "$soak_seconds s, each fetching the catalogue page by page and downloading whole files with"
echo "length-0 chunk requests, reconnecting on errors."
echo "Soak clients: $(cat "$work/soak.out")"
