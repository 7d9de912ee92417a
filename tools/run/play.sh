#!/usr/bin/env bash
# Starts the device from a build tree, hands it a session as a controller does and shows what plays
# until the session ends or Ctrl-C. Exit status 0 only if it played. Called by ./dev run.
set -euo pipefail

usage() {
    cat <<'TEXT'
usage: ./dev run [--music PATH | --url URL] [--device ALSA-PCM] [--mixer ELEMENT] [--port PORT] [--log]

  --music PATH       an audio file or a folder, served to the device over HTTP, or an M3U playlist
                     that the device reads itself; without it three tracks are made and served
  --url URL          an audio file, a playlist or a radio on the network
  --device ALSA-PCM  default: "default" where the machine has a sound card, else a simulated card
  --mixer ELEMENT    mixer element for the volume (Master)
  --port PORT        port of the device's HTTP server (8000)
  --log              show the daemon's log lines too
TEXT
}

build=$(realpath "$1")
shift
here=$(dirname "$(realpath "$0")")
music='' url='' device='' mixer=Master port=8000 show_log=''
while [ $# -gt 0 ]; do
    case "$1" in
        --music | --url | --device | --mixer | --port)
            [ $# -ge 2 ] || { usage >&2; exit 2; }
            declare "${1#--}=$2"
            shift 2
            ;;
        --log) show_log=1; shift ;;
        --help | -h) usage; exit 0 ;;
        *) echo "run: unknown option '$1'; see ./dev run --help" >&2; exit 2 ;;
    esac
done

work=$(mktemp -d)
daemon='' bus='' server='' log_reader='' system_bus='' avahi=''

stop() { # pid: asks a process of ours to end and waits for it
    [ -n "$1" ] && kill "$1" 2>/dev/null && wait "$1" 2>/dev/null || true
}

clean_up() {
    stop "$daemon"
    stop "$server"
    stop "$log_reader"
    stop "$bus"
    stop "$avahi"
    stop "$system_bus"
    rm -rf "$work"
}
trap clean_up EXIT

fail() {
    echo "run: $*" >&2
    [ -f "$work/daemon.log" ] && tail -n 20 "$work/daemon.log" >&2
    exit 1
}

has_sound_card() {
    [ -r /proc/asound/cards ] && grep -q '^ *[0-9]' /proc/asound/cards
}

choose_card() {
    [ -n "$device" ] && return
    device=default
    has_sound_card && return
    echo "run: no sound card here, playing on a simulated one"
    "$build/bin/simcardctl" create "$work/card" >/dev/null
    export ALSA_CONFIG_PATH="$work/card/asound.conf"
}

start_bus() {
    [ -n "${DBUS_SESSION_BUS_ADDRESS:-}" ] && return
    export DBUS_SESSION_BUS_ADDRESS="unix:path=$work/bus"
    dbus-daemon --session --nofork --nopidfile --address="$DBUS_SESSION_BUS_ADDRESS" 2>/dev/null &
    bus=$!
    wait_for_socket "$work/bus" || fail "the message bus did not start"
}

wait_for_socket() {
    for _ in $(seq 100); do
        [ -S "$1" ] && return
        sleep 0.05
    done
    return 1
}

# Controllers find the device through Avahi. Where the machine runs none (a container), one of our
# own does, on the loopback interface alone.
start_discovery() {
    busctl --system status org.freedesktop.Avahi >/dev/null 2>&1 && return
    if [ "$(id -u)" != 0 ] || ! command -v avahi-daemon >/dev/null; then
        echo "run: no Avahi daemon here, so no controller finds the device"
        return
    fi
    "$here/own_daemon.sh" system-bus "$work" 2>/dev/null &
    system_bus=$!
    export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$work/system-bus"
    wait_for_socket "$work/system-bus" || fail "the system bus did not start"
    "$here/own_daemon.sh" avahi "$work" >"$work/avahi.log" 2>&1 &
    avahi=$!
}

# Buses of our own are found from another terminal by their addresses only.
show_buses() {
    local name
    for name in DBUS_SESSION_BUS_ADDRESS DBUS_SYSTEM_BUS_ADDRESS; do
        [[ ${!name:-} != *"$work"* ]] ||
            echo "run: to drive it from another terminal: export $name=${!name}"
    done
}

# The device as a controller on the network sees it; the announcement takes a second or two.
show_discovery() {
    local found=''
    [ -n "$avahi" ] || busctl --system status org.freedesktop.Avahi >/dev/null 2>&1 || return 0
    for _ in $(seq 10); do
        found=$(avahi-browse --resolve --parsable --terminate _nuvio-connect._tcp 2>/dev/null |
            awk -F';' -v port="$port" '$1 == "=" && $9 == port { print $7 ", " $8 ", port " $9; exit }') || true
        [ -z "$found" ] || break
        sleep 0.5
    done
    echo "run: found on the network: ${found:-nothing}"
}

start_device() {
    cat >"$work/settings.conf" <<CONF
feature.nuvio_connect = 1
feature.nuvio_connect.app_id = nuvio-connect-run
feature.nuvio_connect.app_secret = not-a-secret
feature.nuvio_connect.http_port = $port
feature.nuvio_connect.log = 1
feature.nuvio_connect.volume_element = $mixer
feature.nuvio_connect.volume_device = default
alsa.output_device = $device
host.allow_loopback = 1
host.state_dir = $work/state
CONF
    NUVIO_MUSIC_FOLDERS=/ NUVIO_SETTINGS="$work/settings.conf" NUVIO_LOG_STDERR=1 \
        "$build/bin/nuvio-connect" >"$work/daemon.log" 2>&1 &
    daemon=$!
    if [ -n "$show_log" ]; then
        tail -f "$work/daemon.log" &
        log_reader=$!
    fi
    for _ in $(seq 100); do
        kill -0 "$daemon" 2>/dev/null || fail "the device did not start"
        curl -sf -o "$work/display.json" "http://127.0.0.1:$port/get-display-info" && return
        sleep 0.1
    done
    fail "the device does not answer on port $port"
}

# A controller's music lies on the network: so does what is played here.
choose_content() {
    [ -z "$url" ] || return 0
    [ -n "$music" ] || { music="$work/music"; "$here/make_tracks.py" "$music"; }
    [ -e "$music" ] || fail "no such file or folder: $music"
    music=$(realpath "$music")
    case "${music,,}" in
        *.m3u | *.m3u8) url=$music; return ;;
    esac
    mkdir "$work/web"
    "$here/web_server.py" "$work/web" "$music" >"$work/url" &
    server=$!
    for _ in $(seq 100); do
        url=$(cat "$work/url")
        [ -z "$url" ] || return 0
        kill -0 "$server" 2>/dev/null || break
        sleep 0.1
    done
    fail "the web server did not start"
}

hand_over_session() {
    local expiry body
    expiry=$(($(date +%s) + 86400))
    echo "run: handing over $url"
    body=$(python3 - "$url" "$expiry" <<'PY'
import json, sys
content, expiry = sys.argv[1], int(sys.argv[2])
print(json.dumps({
    "session_id": "run", "become_active": True,
    "jwt_api": {"endpoint": content, "jwt": "api-token", "exp": expiry},
    "jwt_nconnect": {"endpoint": "", "jwt": "", "exp": expiry}}))
PY
    )
    curl -sf -H 'Content-Type: application/json' -d "$body" \
        "http://127.0.0.1:$port/connect-to-nconnect" || fail "the device refused the session"
}

now_playing() { # status|title|artist|position m:ss|length m:ss, as any media-player client sees it
    playerctl -p nuvio_connect metadata --format \
        '{{status}}|{{title}}|{{artist}}|{{duration(position)}}|{{duration(mpris:length)}}' \
        2>/dev/null || true
}

# Returns once the session is over; true if something was heard.
follow_session() {
    local status title artist position length heard=1 shown='' shown_title='' line idle=0
    while kill -0 "$daemon" 2>/dev/null; do
        IFS='|' read -r status title artist position length <<<"$(now_playing)"
        if [ "$status" = Playing ] && [ -n "$position" ]; then
            idle=0
            [ "$position" != 0:00 ] && heard=0
            if [ "$title" != "$shown_title" ] && [ -n "$shown_title" ]; then echo; fi
            shown_title=$title
            line="$title${artist:+ - $artist}  $position / $length"
            [ "$line" = "$shown" ] || printf '\r\e[K%s' "$line"
            shown=$line
        elif [ "$status" != Paused ]; then
            # Between two tracks the player may be seen stopped for a moment.
            idle=$((idle + 1))
            [ $idle -ge 6 ] && [ $heard = 0 ] && break
            [ $idle -ge 40 ] && break
        fi
        sleep 0.25
    done
    echo
    grep -q 'Nothing else to play' "$work/daemon.log" || [ $heard = 0 ] || return 1
    return $heard
}

trap 'interrupted=1' INT
interrupted=
choose_content
choose_card
start_bus
start_discovery
start_device
show_buses
show_discovery
hand_over_session
if follow_session; then
    echo "run: played"
else
    [ -n "$interrupted" ] && exit 130
    fail "nothing was heard"
fi
