# Shell helpers for scripts that run the real program on a private stage: a
# virtual X display (Xvfb) and a JACK server on the dummy driver as the sound
# card, so that nothing of the user's desktop or sound is touched.
#
# Source it after `set -eu`, with $work set to a private temporary folder.
# start_stage sets $DISPLAY and $JACK_DEFAULT_SERVER; stop_stage ends both
# servers. A script that starts the program keeps its process id in
# $arbo_pid; `trap stage_cleanup EXIT INT TERM` then ends the program, the
# servers and removes $work, whatever way the script ends.

stage_xvfb_pid=""
stage_jack_pid=""
arbo_pid=""

need() { # command debian-package
    if ! command -v "$1" >/dev/null 2>&1; then
        echo "$(basename "$0"): '$1' is missing; install the Debian package $2" >&2
        exit 1
    fi
}

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

start_stage() {
    need Xvfb xvfb
    need xdotool xdotool
    need jackd jackd2
    need jack_lsp jackd2
    display=":$((100 + $$ % 400))"
    Xvfb "$display" -screen 0 1400x900x24 -nolisten tcp >"$work/xvfb.log" 2>&1 &
    stage_xvfb_pid=$!
    export DISPLAY="$display"
    wait_for 100 xdotool getmouselocation ||
        { echo "$(basename "$0"): Xvfb did not start" >&2; cat "$work/xvfb.log" >&2; exit 1; }

    server="arbo-stage-$$"
    JACK_NO_AUDIO_RESERVATION=1 jackd --no-realtime -n "$server" -d dummy -r 44100 -p 256 \
        >"$work/jackd.log" 2>&1 &
    stage_jack_pid=$!
    export JACK_DEFAULT_SERVER="$server"
    wait_for 100 jack_lsp -s "$server" ||
        { echo "$(basename "$0"): jackd did not start" >&2; cat "$work/jackd.log" >&2; exit 1; }
}

stop_stage() {
    for pid in $stage_jack_pid $stage_xvfb_pid; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    stage_jack_pid=""
    stage_xvfb_pid=""
}

stage_cleanup() {
    if [ -n "$arbo_pid" ]; then
        kill "$arbo_pid" 2>/dev/null || true
        wait "$arbo_pid" 2>/dev/null || true
        arbo_pid=""
    fi
    stop_stage
    rm -rf "$work"
}
