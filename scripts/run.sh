#!/usr/bin/env bash
# Brightmix on Linux in one command, on a fresh Debian 12 machine: installs what it needs
# (scripts/install-deps.sh), builds the desktop application and the command-line program,
# and runs Brightmix.
#
#   scripts/run.sh                  the desktop application (tray icon and panel); on a
#                                   machine without a desktop: a demonstration (below)
#   scripts/run.sh list             list the output devices (command-line program)
#   scripts/run.sh route --volume 0.5 --output subwoofer=subwoofer ...   (see --help)
#
# Without a reachable PipeWire session (a headless machine, a root shell) it starts the
# project's private session under build/run/pipewire-session, says so, plays a test tone
# into its multi-output device, and stops it all again at the end. Without a display, the
# desktop application runs under a virtual X server in its demonstration mode: it switches
# on, routes the tone at half volume, records three seconds, saves screenshots of its panel
# and windows, and says where everything is. The private session's speakers are virtual:
# nothing is audible, but every step really runs.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/install-deps.sh

build=build/run
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBRIGHTMIX_TESTS=OFF \
    -DBRIGHTMIX_BENCHMARKS=OFF >/dev/null
cmake --build "$build" --target brightmix brightmix-watchdog brightmix-app

session=""
player=""
cleanup() {
    if [ -n "$player" ]; then
        kill "$player" 2>/dev/null || true
        wait "$player" 2>/dev/null || true
    fi
    if [ -n "$session" ]; then
        ./scripts/pipewire-session.sh stop "$session"
        echo "run.sh: stopped the demonstration session."
    fi
}
trap cleanup EXIT

if ! pw-cli info 0 >/dev/null 2>&1; then
    session=$PWD/$build/pipewire-session
    echo "run.sh: no PipeWire session is reachable, so this starts Brightmix's private"
    echo "        demonstration session under $session: virtual speakers"
    echo "        (desk_speakers, subwoofer) behind a multi-output device, nothing audible."
    ./scripts/pipewire-session.sh stop "$session" >/dev/null 2>&1 || true
    ./scripts/pipewire-session.sh start "$session"
    # shellcheck disable=SC1091
    . "$session/env.sh"
    if [ $# -eq 0 ] || [ "$1" = route ]; then
        tone=$session/demo-tone.wav
        sox -n -r 48000 -c 2 -e floating-point -b 32 "$tone" synth 600 sine 440 gain -12 \
            2>/dev/null
        pw-cat --playback --target multi_output "$tone" &
        player=$!
        echo "run.sh: a 440 Hz test tone plays into the multi-output device."
    fi
fi

if [ $# -gt 0 ]; then
    "$build/app/linux/brightmix" "$@"
    exit
fi

if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] && [ -z "$session" ]; then
    exec "$build/app/linux/brightmix-app"
fi

demo=$PWD/$build/demo
rm -rf "$demo"
echo "run.sh: no desktop here, so Brightmix runs under a virtual X server in its"
echo "        demonstration mode; what it makes goes to $demo."
xvfb-run -a -s "-screen 0 1280x1024x24" "$build/app/linux/brightmix-app" --demo "$demo" \
    --seconds 3
echo "run.sh: done. The panel: $demo/panel.png; the recording and the other screenshots are"
echo "        beside it."
