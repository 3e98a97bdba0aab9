#!/usr/bin/env bash
# What the desktop application costs, measured on the private PipeWire session under a
# virtual X server: start-up time to a visible panel with the router running, resident
# memory, and the CPU share of the whole process over 10 s while on with nothing playing
# and while routing a tone. Prints one line per figure; docs/PERFORMANCE.md keeps them.
# Needs a build: cmake --preset ci && cmake --build --preset ci --target brightmix-app
set -euo pipefail
cd "$(dirname "$0")/.."

app=${1:-build/ci/app/linux/brightmix-app}
work=$(mktemp -d)
session=$work/session
cleanup() {
    [ -n "${player:-}" ] && kill "$player" 2>/dev/null || true
    ./scripts/pipewire-session.sh stop "$session" >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap cleanup EXIT
./scripts/pipewire-session.sh start "$session" >/dev/null
# shellcheck disable=SC1091
. "$session/env.sh"
ticks=$(getconf CLK_TCK)

cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }

measure() { # label, tone (yes/no)
    local label=$1 tone=$2 out=$work/$1.out
    player=""
    if [ "$tone" = yes ]; then
        sox -n -r 48000 -c 2 -e floating-point -b 32 "$work/tone.wav" synth 60 sine 440 \
            gain -12 2>/dev/null
        pw-cat --playback --target multi_output "$work/tone.wav" &
        player=$!
        sleep 1
    fi
    local started
    started=$(date +%s%N)
    xvfb-run -a -s "-screen 0 1280x1024x24" "$app" --demo "$work/$label" --seconds 16 \
        --no-recording >"$out" 2>/dev/null &
    local runner=$!
    until grep -q "^Routing" "$out" 2>/dev/null; do sleep 0.02; done
    local ready
    ready=$(date +%s%N)
    local pid
    pid=$(pgrep -n -f "brightmix-app --demo $work/$label")
    sleep 2
    local before after
    before=$(cpu_ticks "$pid")
    sleep 10
    after=$(cpu_ticks "$pid")
    local rss
    rss=$(awk '/VmRSS/ {print $2}' "/proc/$pid/status")
    wait "$runner" || true
    [ -n "$player" ] && kill "$player" 2>/dev/null || true
    player=""
    echo "$label: start-up to switched on: $(((ready - started) / 1000000)) ms (with Xvfb start)"
    echo "$label: resident memory: $((rss / 1024)) MiB"
    echo "$label: CPU: $(awk -v t=$((after - before)) -v hz="$ticks" \
        'BEGIN {printf "%.2f", 100 * t / hz / 10}') % of one core over 10 s"
}

measure idle no
measure routing yes
