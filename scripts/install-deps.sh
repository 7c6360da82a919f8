#!/bin/sh
# Installs the Debian packages the instrument needs to build, run and test,
# but only those that are missing, so a second run costs one dpkg query.
set -eu

PACKAGES="
qtbase5-dev libqt5svg5-dev portaudio19-dev libboost-dev
cmake g++ make pkg-config dpkg-dev
libbenchmark-dev
xvfb xauth jackd2 jack-capture sox
"

missing=""
for p in $PACKAGES; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing="$missing $p"
    fi
done

[ -z "$missing" ] && exit 0

if [ "$(id -u)" -eq 0 ]; then SUDO=""; else SUDO="sudo"; fi
echo "Installing:$missing"
$SUDO apt-get update -q
# jackd2 asks about real-time scheduling through debconf; the defaults are fine.
$SUDO env DEBIAN_FRONTEND=noninteractive apt-get install -y -q $missing
