#!/bin/sh
# The program as a user gets it: installed with `cmake --install` under a
# staging root and an unusual prefix, and as the Debian package unpacked into
# a root of its own. Each installed instrument must start, find its patches
# and music symbols in its own prefix and paint its window; the desktop files
# and manual pages must pass their validators; the package must pass lintian
# and depend on no build or test tool; removing what the install placed must
# leave nothing behind (the program never writes into its prefix).
#
#   tests/tst_package.sh BUILD_DIR SOURCE_DIR
set -eu

build=$(cd "$1" && pwd)
root=$(cd "$2" && pwd)
work=$(mktemp -d)
. "$root/scripts/stage.sh"
trap stage_cleanup EXIT INT TERM

need desktop-file-validate desktop-file-utils
need appstreamcli appstream
need lintian lintian
need man man-db
need dpkg-deb dpkg
need cpack cmake

fail() {
    echo "tst_package: $*" >&2
    exit 1
}

id=org.merrowtuning.Arbo

# Starts the instrument at $1 on the stage with a fresh configuration folder,
# waits until its window is painted and ends it; its resources must all come
# from $2.
start_installed() {
    home="$work/home-$(date +%s%N)"
    mkdir -p "$home"
    log="$home/Merrow Tuning Arbo/log.txt"
    (cd / && exec env HOME="$home" XDG_DATA_HOME="$home" QT_QPA_PLATFORM=offscreen \
        "$1" >"$home/out.txt" 2>&1) &
    arbo_pid=$!
    tries=600
    until grep -q "Main window painted" "$log" 2>/dev/null; do
        kill -0 "$arbo_pid" 2>/dev/null || { cat "$home/out.txt" "$log" >&2; fail "$1 ended before its window"; }
        tries=$((tries - 1))
        [ "$tries" -gt 0 ] || { cat "$log" >&2; fail "$1 painted no window within a minute"; }
        sleep 0.1
    done
    kill "$arbo_pid"
    wait "$arbo_pid" || fail "$1 did not end cleanly on SIGTERM"
    arbo_pid=""
    grep -q "Resource dir: \"$2\"" "$home/out.txt" || { cat "$home/out.txt" >&2; fail "$1 did not take its resources from $2"; }
    grep -q "Loading voice patch \"$2/patches/Sine.pd\"" "$log" || { cat "$log" >&2; fail "$1 did not load the voice from $2"; }
    if grep -E "CRITICAL|not found|Failed to load" "$log" >&2; then
        fail "$1 missed a resource"
    fi
}

start_stage

# --- cmake --install with DESTDIR and a prefix of its own ---------------------
stage="$work/stage"
prefix=/opt/arbo-test
DESTDIR="$stage" cmake --install "$build" --prefix "$prefix" >"$work/install.log"
inst="$stage$prefix"
for tool in "$root"/src/tools/*.cpp; do
    name=$(basename "$tool" .cpp)
    "$inst/bin/$name" --version >/dev/null || fail "the installed $name does not run"
done
desktop-file-validate "$inst/share/applications/$id.desktop" || fail "desktop-file-validate"
appstreamcli validate --no-net --pedantic "$inst/share/metainfo/$id.metainfo.xml" >"$work/appstream.log" 2>&1 ||
    { cat "$work/appstream.log" >&2; fail "appstreamcli validate"; }
for page in "$inst"/share/man/man1/*.1.gz; do
    warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
    [ -z "$warnings" ] || fail "$page: $warnings"
done
[ -f "$inst/share/icons/hicolor/scalable/apps/$id.svg" ] && [ -f "$inst/share/icons/hicolor/48x48/apps/$id.png" ] ||
    fail "the icon is missing"
start_installed "$inst/bin/merrow-tuning-arbo" "$inst/share/merrow-tuning-arbo"

# Removing exactly what the install placed (the manifest names the files
# without the staging root, the last one without a newline) leaves no file.
while IFS= read -r file || [ -n "$file" ]; do rm -f "$stage$file"; done <"$build/install_manifest.txt"
left=$(find "$stage" ! -type d)
[ -z "$left" ] || fail "left behind after removing the installed files: $left"

# --- the Debian package -------------------------------------------------------
cpack --config "$build/CPackConfig.cmake" -B "$work/deb" >"$work/cpack.log" 2>&1 ||
    { cat "$work/cpack.log" >&2; fail "cpack"; }
deb=$(ls "$work"/deb/*.deb)
depends=$(dpkg-deb -f "$deb" Depends | tr ',|' '\n\n' | sed 's/(.*//; s/[[:space:]]//g')
[ -n "$depends" ] || fail "the package depends on nothing"
for tool in $("$root/scripts/install-deps.sh" --list test) $("$root/scripts/install-deps.sh" --list build) \
    libqt5test5 libbenchmark1debian; do
    if echo "$depends" | grep -qx "$tool"; then fail "the package depends on the build or test tool $tool"; fi
done
for lib in libqt5widgets5 libportaudio2 liblo7 librtmidi6 libsndfile1; do
    echo "$depends" | grep -qx "$lib" || fail "the package does not depend on $lib"
done
# Warnings count as failures; only informational tags (hardening of a build
# made without Debian's flags, which `make package` adds) may remain.
lintian --fail-on error,warning "$deb" >"$work/lintian.log" 2>&1 ||
    { cat "$work/lintian.log" >&2; fail "lintian"; }
dpkg-deb -x "$deb" "$work/debroot"
start_installed "$work/debroot/usr/bin/merrow-tuning-arbo" "$work/debroot/usr/share/merrow-tuning-arbo"
echo "tst_package: installed and packaged program start; validators and lintian pass"
