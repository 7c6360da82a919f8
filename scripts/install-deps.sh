#!/bin/sh
# Installs the Debian packages the instrument needs to build, run and test,
# but only those that are missing, so a second run costs one dpkg query.
set -eu

PACKAGES="
qtbase5-dev libqt5svg5-dev portaudio19-dev libboost-dev librtmidi-dev liblo-dev libasound2-dev
cmake g++ make pkg-config dpkg-dev
libbenchmark-dev
xvfb xauth jackd2 jack-capture sox libjack-jackd2-dev
imagemagick xdotool
lilypond-fonts python3-fonttools
openssl
locales
"

missing=""
for p in $PACKAGES; do
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
if ! locale -a 2>/dev/null | grep -qi '^de_DE\.utf-\?8$'; then
    echo "Generating the de_DE.UTF-8 locale for the tests"
    $SUDO localedef -i de_DE -f UTF-8 de_DE.UTF-8
fi
