#!/bin/sh
# Measures how long the real program takes from its start to the first paint
# of the main window, with the default lattice, on a private stage (a virtual
# X display and a dummy JACK sound card, see stage.sh), and prints the median
# of several runs with where the time went.
#
#   scripts/startup-time.sh [build folder] [runs]      (defaults: build, 7)
#
# Each run starts the program as a user would (a configuration folder that
# already exists, made by one warm-up run that is not counted), waits for the
# log line "Main window painted", and ends the program with SIGTERM. The
# figures come from the log's own time stamps and the time the script
# started the process, all on the same clock. STARTUP_DEBUG=1 also prints
# each run's raw stamps.
set -eu

root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
runs=${2:-7}
bin="$build/bin/merrow-tuning-arbo"
[ -x "$bin" ] || { echo "startup-time.sh: build first ($bin)" >&2; exit 1; }

work=$(mktemp -d)
. "$root/scripts/stage.sh"
trap stage_cleanup EXIT INT TERM
start_stage

home="$work/home"
config="$home/Merrow Tuning Arbo"
mkdir -p "$config"
cat >"$config/options.json" <<JSON
{
    "updateCheckInterval": 4,
    "windowSize": "1200,820",
    "windowPos": "0,0"
}
JSON

# Seconds since midnight of an "hh:mm:ss.zzz" stamp.
seconds() {
    echo "$1" | awk -F: '{ printf "%.3f", $1 * 3600 + $2 * 60 + $3 }'
}
# The stamp of the first line after the last start banner matching $1.
stamp_of() {
    awk -v pattern="$1" '/Starting app at/ { n = NR } { line[NR] = $0 }
        END { for (i = n; i <= NR; i++) if (index(line[i], pattern)) {
                  print substr(line[i], 2, 12); exit } }' "$config/log.txt"
}

run() {
    rm -f "$config/log.txt" # so that only this run's lines are read
    started=$(date +%H:%M:%S.%N | cut -c1-12)
    HOME="$home" XDG_DATA_HOME="$home" XDG_CONFIG_HOME="$home" "$bin" >"$work/out.txt" 2>&1 &
    arbo_pid=$!
    wait_for 300 sh -c "awk '/Starting app at/ { n = NR } /Main window painted/ && n && NR > n { f = 1 }
        END { exit !f }' \"$config/log.txt\"" ||
        { echo "startup-time.sh: the window was never painted" >&2; cat "$work/out.txt" >&2; exit 1; }
    kill -TERM "$arbo_pid"
    wait "$arbo_pid" 2>/dev/null || true
    arbo_pid=""
    t0=$(seconds "$started")
    tpatch=$(seconds "$(stamp_of 'Loading voice patch')")
    topen=$(seconds "$(stamp_of 'Opening PD patch')")
    tpaint=$(seconds "$(stamp_of 'Main window painted')")
    [ -z "${STARTUP_DEBUG:-}" ] || echo "$started $t0 $tpatch $topen $tpaint" >&2
    echo "$t0 $tpatch $topen $tpaint" | awk '{ printf "%d %d %d %d\n",
        ($4 - $1) * 1000, ($2 - $1) * 1000, ($3 - $2) * 1000, ($4 - $3) * 1000 }'
}

run >/dev/null # warm-up: writes the lattice file, the runtime patches, the caches
: >"$work/times"
i=0
while [ "$i" -lt "$runs" ]; do
    run >>"$work/times"
    i=$((i + 1))
done

echo "start-up to first paint of the main window, $runs runs (ms):"
sort -n "$work/times" | awk '{ total[NR] = $1; a[NR] = $2; b[NR] = $3; c[NR] = $4 }
    END { m = int((NR + 1) / 2)
          printf "  all runs: "; for (i = 1; i <= NR; i++) printf "%d ", total[i]; printf "\n"
          printf "  median %d ms; in that run:\n", total[m]
          printf "    process start to the first voice patch load: %d ms\n", a[m]
          printf "    closing and copying before the patch opens:  %d ms\n", b[m]
          printf "    opening the patch to the first paint:        %d ms\n", c[m] }'
