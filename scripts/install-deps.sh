#!/bin/sh
# Installs the Debian packages the instrument needs, but only those that are
# missing, so a second run costs one dpkg query.
#
#   scripts/install-deps.sh build        what building and running need (make run)
#   scripts/install-deps.sh test         that, and the tools of the tests (make test)
#   scripts/install-deps.sh --list SET   prints the packages of one set and nothing else
#                                        (build, test: the test tools alone)
set -eu

# Building and running: compilers, the libraries the program links, the font
# its music symbols are drawn from and the tools that draw them and its icons,
# and npm, which fetches the font of the Helmholtz-Ellis signs.
BUILD="
qtbase5-dev libqt5svg5-dev portaudio19-dev libboost-dev librtmidi-dev liblo-dev
libasound2-dev libjack-jackd2-dev libsndfile1-dev
cmake g++ make pkg-config dpkg-dev
lilypond-fonts python3-fonttools librsvg2-bin npm
"

# Testing: benchmarks, a virtual display and sound card, audio analysis, the
# validators of the package and its desktop files, and a decimal-comma locale.
TEST="
libbenchmark-dev
xvfb xauth xdotool imagemagick
jackd2 jack-capture sox
openssl locales
lintian desktop-file-utils appstream man-db
"

case "${1:-}" in
    --list)
        case "${2:-}" in
            build) echo $BUILD ;;
            test) echo $TEST ;;
            *) echo "usage: $0 --list build|test" >&2; exit 2 ;;
        esac
        exit 0 ;;
    build) PACKAGES=$BUILD ;;
    test) PACKAGES="$BUILD $TEST" ;;
    *) echo "usage: $0 build|test" >&2; exit 2 ;;
esac

missing=""
for p in $PACKAGES; do
    # npm also comes with Node.js from other sources (NodeSource bundles it
    # and conflicts with Debian's package): any working npm will do.
    if [ "$p" = npm ] && command -v npm >/dev/null 2>&1; then
        continue
    fi
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing="$missing $p"
    fi
done

if [ "$(id -u)" -eq 0 ]; then SUDO=""; else SUDO="sudo"; fi

if [ -n "$missing" ]; then
    echo "Installing:$missing"
    $SUDO apt-get update -q
    # jackd2 asks about real-time scheduling through debconf; the defaults are fine.
    $SUDO env DEBIAN_FRONTEND=noninteractive apt-get install -y -q $missing
fi

# The tests play the engine under a decimal-comma locale, where a C library
# that follows the environment would read 0.5 as 0.
if [ "$1" = test ] && ! locale -a 2>/dev/null | grep -qi '^de_DE\.utf-\?8$'; then
    echo "Generating the de_DE.UTF-8 locale for the tests"
    $SUDO localedef -i de_DE -f UTF-8 de_DE.UTF-8
fi
