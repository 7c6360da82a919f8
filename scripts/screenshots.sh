#!/bin/sh
# Photographs the real program, transposed up a fifth, with a chord sounding
# (1/1, 5/4, 3/2, 7/4 and 9/8 of the new root, each with its note card), once
# in each lattice drawing, for the README: docs/lattice-flowers.png and
# docs/lattice-grapes.png, and the cards enlarged in docs/note-cards.png; and
# the same cards in Helmholtz-Ellis notation in docs/note-cards-heji.png.
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
# A step up along 3, then the chord: the root, its fifth and the fifth's
# fifth an octave down (trunk notes), its third and seventh (leaves).
tags="0000000007 0000000001 0000000002 0000000003 0000000004 0000000005"

shoot() { # name circlesView notation picture
    home="$work/$1"
    config="$home/Merrow Tuning Arbo"
    mkdir -p "$config"
    cat >"$config/options.json" <<JSON
{
    "circlesView": $2,
    "notation": "$3",
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
    "0000000005": { "event": 0, "value": "/-2/3/3" },
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
    import -window "$window" "$4"
    kill -TERM "$arbo_pid"
    wait "$arbo_pid" || true
    arbo_pid=""
    echo "wrote $4"
}

# The chord's balls, their connector lines and the cards, twice the size, so
# that the notation can be read: the cards lie at the window's right edge, the
# chord near the middle of its 820 pixels' height.
cards() { # window picture
    convert "$1" -gravity NorthEast -crop 720x200+0+290 +repage \
        -filter Lanczos -resize 200% "$2"
    echo "wrote $2"
}

mkdir -p "$out"
shoot flowers true conventional "$out/lattice-flowers.png"
shoot grapes false conventional "$out/lattice-grapes.png"
cards "$out/lattice-grapes.png" "$out/note-cards.png"
shoot heji false helmholtz-ellis "$work/heji.png"
cards "$work/heji.png" "$out/note-cards-heji.png"
