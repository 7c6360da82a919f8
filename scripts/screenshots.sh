#!/bin/sh
# Photographs the real program with a few notes sounding, once in each lattice
# drawing, for the README: docs/lattice-flowers.png and docs/lattice-grapes.png.
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

work=$(mktemp -d)
. "$root/scripts/stage.sh"
trap stage_cleanup EXIT INT TERM
need import imagemagick
for program in merrow-tuning-arbo arbo-wand; do
    [ -x "$bin/$program" ] || { echo "screenshots.sh: build first ($bin/$program)" >&2; exit 1; }
done
start_stage

port=$((30000 + $$ % 20000))
# A step up along 3, then the root, two trunk notes and three leaves of
# different primes.
tags="0000000007 0000000001 0000000002 0000000003 0000000004 0000000005 0000000006"

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
    "0000000002": { "event": 0, "value": "/3" },
    "0000000003": { "event": 0, "value": "/2/-3" },
    "0000000004": { "event": 0, "value": "/3/5" },
    "0000000005": { "event": 0, "value": "/-2/3/-7" },
    "0000000006": { "event": 0, "value": "/2/3/11" },
    "0000000007": { "event": 2, "value": 3 }
}
JSON
    HOME="$home" XDG_DATA_HOME="$home" XDG_CONFIG_HOME="$home" \
        "$bin/merrow-tuning-arbo" >"$work/$1.out" 2>&1 &
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
