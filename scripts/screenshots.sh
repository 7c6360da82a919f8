#!/bin/sh
# Photographs the real program with a chord sounding (1/1, 5/4, 3/2, 7/4 and
# 9/8, each with its note card), once in each lattice drawing, for the README:
# docs/lattice-flowers.png and docs/lattice-grapes.png.
#
#   scripts/screenshots.sh [build folder]      (default: build)
#
# Runs everything private to itself: a virtual X display (Xvfb), a JACK server
# on the dummy driver as the sound card, and a fresh configuration folder per
# shot (options choosing the drawing, a tag map for the notes), so the user's
# own files are never read or written. The notes are struck the way a wand
# strikes them, with the built arbo-wand tool. Look at the pictures afterwards.
set -eu

root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
bin="$build/bin"
out="$root/docs"

need() {
    if ! command -v "$1" >/dev/null 2>&1; then
        echo "screenshots.sh: '$1' is missing; install the Debian package $2" >&2
        exit 1
    fi
}
need Xvfb xvfb
need jackd jackd2
need jack_lsp jackd2
need xdotool xdotool
need import imagemagick
for program in merrow-tuning-arbo arbo-wand; do
    [ -x "$bin/$program" ] || { echo "screenshots.sh: build first ($bin/$program)" >&2; exit 1; }
done

work=$(mktemp -d)
xvfb_pid=""
jack_pid=""
arbo_pid=""
cleanup() {
    for pid in $arbo_pid $jack_pid $xvfb_pid; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT INT TERM

# Waits up to $1 tenths of a second for the command after it to succeed.
wait_for() {
    tries=$1
    shift
    while ! "$@" >/dev/null 2>&1; do
        tries=$((tries - 1))
        [ "$tries" -gt 0 ] || return 1
        sleep 0.1
    done
}

display=":$((100 + $$ % 400))"
Xvfb "$display" -screen 0 1400x900x24 -nolisten tcp >"$work/xvfb.log" 2>&1 &
xvfb_pid=$!
export DISPLAY="$display"
wait_for 100 xdotool getmouselocation ||
    { echo "screenshots.sh: Xvfb did not start" >&2; cat "$work/xvfb.log" >&2; exit 1; }

server="arbo-screenshots-$$"
JACK_NO_AUDIO_RESERVATION=1 jackd --no-realtime -n "$server" -d dummy -r 44100 -p 256 \
    >"$work/jackd.log" 2>&1 &
jack_pid=$!
wait_for 100 env JACK_DEFAULT_SERVER="$server" jack_lsp -s "$server" ||
    { echo "screenshots.sh: jackd did not start" >&2; cat "$work/jackd.log" >&2; exit 1; }

port=$((30000 + $$ % 20000))
# The chord: the root, its fifth and the fifth's fifth an octave down (trunk
# notes), its third and seventh (leaves).
tags="0000000001 0000000002 0000000003 0000000004 0000000005"

shoot() { # style circlesView
    home="$work/$1"
    config="$home/Merrow Tuning Arbo"
    mkdir -p "$config"
    cat >"$config/options.json" <<JSON
{
    "circlesView": $2,
    "udpPort": $port,
    "updateCheckInterval": 4,
    "windowSize": "1200,820",
    "windowPos": "0,0"
}
JSON
    cat >"$config/rfid_map.json" <<JSON
{
    "0000000001": { "event": 0, "value": "/" },
    "0000000002": { "event": 0, "value": "/5" },
    "0000000003": { "event": 0, "value": "/3" },
    "0000000004": { "event": 0, "value": "/7" },
    "0000000005": { "event": 0, "value": "/-2/3/3" }
}
JSON
    HOME="$home" XDG_DATA_HOME="$home" XDG_CONFIG_HOME="$home" \
        JACK_DEFAULT_SERVER="$server" "$bin/merrow-tuning-arbo" >"$work/$1.out" 2>&1 &
    arbo_pid=$!
    wait_for 300 grep -q "UDP socket opened" "$config/log.txt" ||
        { echo "screenshots.sh: the program did not start listening" >&2; cat "$work/$1.out" >&2; exit 1; }
    window=$(xdotool search --sync --onlyvisible --name "Merrow Tuning Arbo" | head -n 1)
    # shellcheck disable=SC2086
    "$bin/arbo-wand" --quiet --port "$port" --rate 50 $tags
    # A script, not a test: the notes need a few audio buffers to come back
    # from the engine, and the window a repaint.
    sleep 1.5
    import -window "$window" "$out/lattice-$1.png"
    kill -TERM "$arbo_pid"
    wait "$arbo_pid" || true
    arbo_pid=""
    echo "wrote $out/lattice-$1.png"
}

mkdir -p "$out"
shoot flowers true
shoot grapes false
# The chord's balls, their connector lines and the cards, twice the size, so
# that the notation can be read (the window is 1200x820, the chord lies near
# its middle).
convert "$out/lattice-grapes.png" -crop 720x200+470+300 +repage -filter Lanczos -resize 200% \
    "$out/note-cards.png"
echo "wrote $out/note-cards.png"
