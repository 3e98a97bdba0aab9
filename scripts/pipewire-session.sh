#!/usr/bin/env bash
# A private, headless PipeWire session for Brightmix's tests, CI and demonstrations: two
# virtual speakers ("desk_speakers", stereo; "subwoofer", mono) and a multi-output sink
# ("multi_output") over them, which is also the default output. Everything the session
# writes (sockets, logs, WirePlumber state) stays under DIR; the user's own session, if
# any, is never touched. Works as root on a headless machine without D-Bus or a systemd
# user session.
#
#   pipewire-session.sh start DIR     start pipewire, wireplumber and pipewire-pulse
#   pipewire-session.sh stop DIR      stop what start started, by process ID
#   pipewire-session.sh kill DIR      end them at once with SIGKILL, as a crash would
#   pipewire-session.sh restart DIR [--mute NODE]
#                                     stop what still runs and start again; with --mute the
#                                     sink NODE comes back muted, as a session manager that
#                                     saved a mute would bring it back
#   pipewire-session.sh env DIR       print the environment a client needs (also in DIR/env.sh)
#
# Clients reach the session by sourcing DIR/env.sh first. Set BRIGHTMIX_SESSION_PULSE=0 to
# leave out pipewire-pulse.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
config=$here/pipewire-session

usage() {
    echo "usage: $0 start|stop|kill|env DIR, or $0 restart DIR [--mute NODE]" >&2
    exit 2
}

[ $# -ge 2 ] || usage
command=$1
mkdir -p "$2"
dir=$(cd "$2" && pwd)
shift 2
mute_node=
if [ "$command" = restart ] && [ $# -eq 2 ] && [ "$1" = --mute ]; then
    mute_node=$2
elif [ $# -ne 0 ]; then
    usage
fi

write_env() {
    cat >"$dir/env.sh" <<ENV
export XDG_RUNTIME_DIR=$dir/run
export PIPEWIRE_RUNTIME_DIR=$dir/run
export PULSE_RUNTIME_PATH=$dir/run/pulse
export XDG_CONFIG_HOME=$dir/config
export XDG_STATE_HOME=$dir/state
export XDG_DATA_HOME=$dir/data
unset PIPEWIRE_REMOTE PULSE_SERVER DBUS_SESSION_BUS_ADDRESS
ENV
}

# Waits up to $1 seconds for the command that follows to succeed.
wait_for() {
    local seconds=$1
    shift
    local tries=$((seconds * 50))
    for _ in $(seq "$tries"); do
        if "$@" >/dev/null 2>&1; then
            return 0
        fi
        sleep 0.02
    done
    return 1
}

is_running() {
    local file=$dir/run/$1.pid
    [ -f "$file" ] && is_alive "$(cat "$file")"
}

# Alive and not yet a zombie: an orphaned daemon that exited may wait a while for its
# new parent to reap it, and must not count as running meanwhile.
is_alive() {
    local state
    state=$(awk '{ print $3 }' "/proc/$1/stat" 2>/dev/null) || return 1
    [ -n "$state" ] && [ "$state" != Z ] && [ "$state" != X ]
}

stop_one() {
    local file=$dir/run/$1.pid
    [ -f "$file" ] || return 0
    local pid
    pid=$(cat "$file")
    if is_alive "$pid"; then
        kill -TERM "$pid" 2>/dev/null || true
        for _ in $(seq 100); do
            is_alive "$pid" || break
            sleep 0.02
        done
        if is_alive "$pid"; then
            kill -KILL "$pid" 2>/dev/null || true
        fi
    fi
    rm -f "$file"
}

stop_all() {
    stop_one pipewire-pulse
    stop_one wireplumber
    stop_one pipewire
}

kill_one() {
    local file=$dir/run/$1.pid
    [ -f "$file" ] || return 0
    local pid
    pid=$(cat "$file")
    if is_alive "$pid"; then
        kill -KILL "$pid" 2>/dev/null || true
        for _ in $(seq 250); do
            is_alive "$pid" || break
            sleep 0.02
        done
    fi
    rm -f "$file"
}

fail() {
    echo "pipewire-session.sh: $*" >&2
    for log in "$dir"/logs/*.log; do
        [ -s "$log" ] || continue
        echo "--- $log" >&2
        tail -n 20 "$log" >&2
    done
    stop_all
    exit 1
}

default_sink_is() {
    pw-metadata -n default 0 default.audio.sink 2>/dev/null | grep -q "\"name\":\"$1\""
}

has_default_sink() {
    pw-metadata -n default 0 default.audio.sink 2>/dev/null | grep -q "value:"
}

# Ready when WirePlumber has linked the multi-output sink to both of its speakers.
members_linked() {
    local links
    links=$(pw-link -l 2>/dev/null) || return 1
    grep -q "desk_speakers:playback_FL" <<<"$links" && grep -q "subwoofer:playback_MONO" <<<"$links"
}

# Mutes a sink before the session manager runs, the way it would restore a saved mute.
mute_sink() {
    local id
    id=$(pw-cli ls Node 2>/dev/null | awk -v name="\"$1\"" '
        /^[[:space:]]*id [0-9]+,/ { sub(",", "", $2); current = $2 }
        $1 == "node.name" && $3 == name { print current; exit }')
    [ -n "$id" ] && pw-cli set-param "$id" Props '{ mute: true }' >/dev/null 2>&1
}

start_session() {
    for tool in pipewire wireplumber pw-cli pw-metadata pw-link; do
        command -v "$tool" >/dev/null || fail "$tool is not installed (run scripts/install-deps.sh)"
    done
    if is_running pipewire; then
        fail "a session is already running under $dir"
    fi
    mkdir -p "$dir/run" "$dir/logs" "$dir/config" "$dir/state" "$dir/data"
    chmod 700 "$dir/run"
    rm -rf "$dir/config/wireplumber"
    cp -r "$config/wireplumber" "$dir/config/wireplumber"
    write_env
    # shellcheck disable=SC1091
    . "$dir/env.sh"

    pipewire -c "$config/pipewire.conf" >"$dir/logs/pipewire.log" 2>&1 &
    echo $! >"$dir/run/pipewire.pid"
    wait_for 10 pw-cli info 0 || fail "pipewire did not answer"
    if [ -n "$mute_node" ]; then
        wait_for 10 mute_sink "$mute_node" || fail "$mute_node could not be muted"
    fi

    wireplumber >"$dir/logs/wireplumber.log" 2>&1 &
    echo $! >"$dir/run/wireplumber.pid"
    wait_for 10 has_default_sink || fail "wireplumber did not configure the session"
    wait_for 10 members_linked || fail "the multi-output sink was not linked to its speakers"
    pw-metadata -n default 0 default.configured.audio.sink '{"name":"multi_output"}' \
        Spa:String:JSON >/dev/null
    wait_for 10 default_sink_is multi_output || fail "the multi-output sink did not become the default"

    if [ "${BRIGHTMIX_SESSION_PULSE:-1}" = 1 ] && command -v pipewire-pulse >/dev/null; then
        mkdir -p "$dir/run/pulse"
        pipewire-pulse >"$dir/logs/pipewire-pulse.log" 2>&1 &
        echo $! >"$dir/run/pipewire-pulse.pid"
        if command -v pactl >/dev/null; then
            wait_for 10 pactl info || fail "pipewire-pulse did not answer"
        fi
    fi
    echo "pipewire-session.sh: session running under $dir (. $dir/env.sh to use it)"
}

case $command in
start)
    start_session
    ;;
stop)
    stop_all
    ;;
kill)
    # The server first, as in a crash; its clients then lose it whether or not they end on
    # their own.
    kill_one pipewire
    kill_one wireplumber
    kill_one pipewire-pulse
    ;;
restart)
    stop_all
    start_session
    ;;
env)
    write_env
    cat "$dir/env.sh"
    ;;
*)
    usage
    ;;
esac
