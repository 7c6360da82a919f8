#!/bin/sh
# Photographs the real program, transposed up a fifth, with a chord sounding
# (1/1, 5/4, 3/2, 7/4 and 9/8 of the new root, each with its note card), once
# in each lattice drawing, for the README: docs/lattice-flowers.png and
# docs/lattice-grapes.png, and the cards enlarged in docs/note-cards.png; the
# same cards in Helmholtz-Ellis notation in docs/note-cards-heji.png; and the
# window with its scenes panel, a cue list's second scene recalled by a tag,
# in docs/scenes.png.
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

shoot() { # name circlesView scenesPanelVisible notation tags...
    name=$1 circles=$2 panel=$3 notation=$4
    shift 4
    home="$work/$name"
    config="$home/Merrow Tuning Arbo"
    mkdir -p "$config"
    cat >"$config/options.json" <<JSON
{
    "circlesView": $circles,
    "notation": "$notation",
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
    "0000000007": { "event": 2, "value": 3 },
    "0000000008": { "event": 23, "value": 2 }
}
JSON
    cat >"$config/scenes.json" <<JSON
{
    "format": 1,
    "panelVisible": $panel,
    "lists": [ { "name": "Evening set", "scenes": [
        { "name": "Drone", "patch": "Sine.pd",
          "notes": [ { "ratio": "1/1", "path": "/" }, { "ratio": "3/2", "path": "/3" } ] },
        { "name": "Otonal 4:5:6:7", "patch": "Sine.pd",
          "notes": [ { "ratio": "1/1", "path": "/" }, { "ratio": "5/4", "path": "/5" },
                     { "ratio": "3/2", "path": "/3" }, { "ratio": "7/4", "path": "/7" } ] },
        { "name": "Utonal answer", "patch": "Sine.pd",
          "notes": [ { "ratio": "1/1", "path": "/" }, { "ratio": "8/5", "path": "/-5" } ] },
        { "name": "Coda", "patch": "Sine.pd", "notes": [ { "ratio": "1/1", "path": "/" } ] }
    ] } ]
}
JSON
    HOME="$home" XDG_DATA_HOME="$home" XDG_CONFIG_HOME="$home" \
        "$bin/merrow-tuning-arbo" >"$work/$name.out" 2>&1 &
    arbo_pid=$!
    wait_for 300 grep -q "UDP socket opened" "$config/log.txt" ||
        { echo "screenshots.sh: the program did not start listening" >&2; cat "$work/$name.out" >&2; exit 1; }
    window=$(xdotool search --sync --onlyvisible --name "Merrow Tuning Arbo" | head -n 1)
    # shellcheck disable=SC2086
    "$bin/arbo-wand" --quiet --port "$port" --rate 50 "$@"
    # A script, not a test: the notes need a few audio buffers to come back
    # from the engine, and the window a repaint.
    sleep 1.5
    import -window "$window" "$out/$name.png"
    kill -TERM "$arbo_pid"
    wait "$arbo_pid" || true
    arbo_pid=""
    echo "wrote $out/$name.png"
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
# shellcheck disable=SC2086
shoot lattice-flowers true false conventional $tags
# shellcheck disable=SC2086
shoot lattice-grapes false false conventional $tags
shoot scenes false true conventional 0000000008
cards "$out/lattice-grapes.png" "$out/note-cards.png"
# The same chord written in Helmholtz-Ellis signs; only its cards are kept.
# shellcheck disable=SC2086
shoot heji-window false false helmholtz-ellis $tags
cards "$out/heji-window.png" "$out/note-cards-heji.png"
rm "$out/heji-window.png"
